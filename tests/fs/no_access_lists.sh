#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# cp -p sets the mode through an access control list where it can, which no record would carry: the mount takes
# none, the mode is set as a mode, and the replica has it.
. "$(dirname "$0")/../lib.sh"

start_replication
echo text >"$T/file"
chmod 604 "$T/file"
cp -p "$T/file" "$T/mnt/copy"
wait_caught_up
[ "$(stat -c %a "$T/lower/copy")" = 604 ]
[ "$(stat -c %a "$T/replica/copy")" = 604 ]
python3 - "$T/mnt/copy" <<'PY'
import errno, os, struct, sys
# Version 2; owner rw-, group ---, others r--.
acl = struct.pack("<I", 2) + b"".join(struct.pack("<HHI", tag, perm, 0xffffffff) for tag, perm in ((1, 6), (4, 0), (32, 4)))
name = "system.posix_acl_access"
for call, error in ((lambda: os.getxattr(sys.argv[1], name), errno.ENODATA),
                    (lambda: os.setxattr(sys.argv[1], name, acl), errno.EOPNOTSUPP)):
    try:
        call()
    except OSError as e:
        assert e.errno == error, e
    else:
        sys.exit("%s is there" % name)
PY
stop_mirrord
