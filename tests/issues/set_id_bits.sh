#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A stranger writes to a set-user-id file: what the lower file system takes away is gone in the replica as well, before
# his bytes are there. Whatever gives or takes mode bits below, the replica has the mode that the lower file has.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }

chmod 755 "$T"
start_replication
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }

cd "$T/mnt"
for name in written appended truncated opened chowned; do
  cp /bin/true $name
  chmod 6777 $name
done
mkdir shared
chmod 2777 shared
as_nobody sh -c 'echo mine 1<>written; echo mine >>appended; : >opened'
as_nobody truncate -s 10 truncated
chown 65534 chowned
as_nobody mkdir shared/inherits
as_nobody sh -c 'echo x >shared/file'
mkdir group
chown 65534:100 group
touch group/sgid
chown 65534:100 group/sgid
as_nobody chmod 2770 group/sgid
cd /

[ "$(stat -c %a "$T/lower/written")" = 777 ] || fail "the lower file system left the bits: nothing is tested"
[ "$(stat -c %a "$T/lower/shared/inherits")" != 755 ] || fail "the directory did not inherit: nothing is tested"
wait_caught_up
for path in written appended truncated opened chowned shared shared/inherits shared/file group group/sgid; do
  lower=$(stat -c '%a %u:%g %s' "$T/lower/$path")
  replica=$(stat -c '%a %u:%g %s' "$T/replica/$path")
  [ "${lower% *}" = "${replica% *}" ] || fail "$path: $lower below, $replica in the replica"
done
# Never the other way round: the record of the mode is in front of that of the bytes.
stop_mirrord
