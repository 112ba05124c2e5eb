#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What a process may do on the mount is what it may do below: access lists for named users and groups, with masks, on
# files, FIFOs, sockets, devices and directories on the way; the superuser without capabilities, and others with them;
# what no longer has a capability; whether the host keeps attributes or asks each time; a process of a user name space, which has capabilities there alone.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }

cleanup_test() {
  umount "$T/mnt" 2>/dev/null
  umount "$T/lower"
}
chmod 755 "$T"
# Lists are not every file system's; devices may be opened.
mount -t tmpfs -o mode=755,size=16m,dev tarn-rights "$T/lower"
for cache in 0 1; do
  tarn mount --cache $cache "$T/lower" "$T/mnt"
  python3 "$HERE/fs/same_rights.py" "$T/lower" "$T/mnt" || fail "rights differ"
  tarn umount "$T/mnt"
  rm -rf "${T:?}/lower/"*
done
