#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A write that a full lower file system refuses leaves nothing that a program could read, neither bytes nor a size, and the
# next append lands at the file's real end. The log tells the reason that the program was not told.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount a small file system" >&2; exit 77; }

mkdir "$T/small"
mount -t tmpfs -o size=256k tarn-small "$T/small"
cleanup_test() { umount -l "$T/small"; }
tarn mount "$T/small" "$T/mnt"

python3 - "$T/mnt" "$T/small" <<'PY' || fail "what was refused is there all the same"
import os
import sys

mnt, small = sys.argv[1:]


def same(name):
    with open(mnt + "/" + name, "rb") as seen, open(small + "/" + name, "rb") as below:
        assert seen.read() == below.read(), name
    assert os.stat(mnt + "/" + name).st_size == os.stat(small + "/" + name).st_size, name


fd = os.open(mnt + "/log", os.O_WRONLY | os.O_CREAT | os.O_APPEND)
reader = os.open(mnt + "/log", os.O_RDONLY)
os.write(fd, b"first\n")
with open(small + "/filler", "wb", 0) as filler:
    try:
        while True:
            filler.write(bytes(4096))
    except OSError:
        pass
refused = 0
for _ in range(40):
    try:
        os.write(fd, b"r" * 3000)
    except OSError:
        refused += 1
    os.pread(reader, 1 << 20, 0)
assert refused, "nothing was refused"
same("log")
os.unlink(small + "/filler")
os.write(fd, b"last\n")
same("log")
with open(small + "/log", "rb") as below:
    data = below.read()
assert data.startswith(b"first\n") and data.endswith(b"last\n") and b"\0" not in data
PY
tarn log | grep -q 'tarn_write_lower: .*rc=-28' || fail "the log does not tell the reason"
