#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A target that is full, away, replaced or paused concerns nobody else, is told, and is healed when it is back.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root mounts file systems of its own" >&2; exit 77; }
cleanup_test() {
  umount -l "$T/disk" 2>/dev/null
  return 0
}
mkdir "$T/disk"
chmod 700 "$T/lower"
mount_disk() { mount -t tmpfs -o size=8m,mode=700 tmpfs "$T/disk"; }
disk_state() { service_status | python3 -c 'import json,sys
print([t for s in json.load(sys.stdin)["sources"] for t in s["targets"] if t["name"] == "disk"][0]["state"])'; }
disk_is() { [ "$(disk_state)" = "$1" ]; }
other_is_equal() {
  verb wait data/replica --timeout 120 || fail "the other target waits too: $(service_status)"
  python3 "$HERE/replicate/tree_compare.py" "$T/lower" "$T/replica" || fail "the other target differs"
}

mount_disk
echo before >"$T/lower/before"
tarn mount "$T/lower" "$T/mnt"
configure replica disk
start_service
equal disk

# Full: held with the reason, then healed.
head -c 6M /dev/zero >"$T/disk/ballast"
head -c 4M /dev/urandom >"$T/mnt/large"
wait_until 30 "the full target is held" disk_is held
{ verb status || true; } | grep "No space left" >/dev/null || fail "the reason is not told: $(verb status)"
other_is_equal
if verb wait data/disk --timeout 5 2>"$T/wait.err"; then fail "waited for a held target"; fi
rm "$T/disk/ballast"
verb wait --timeout 60 || { sleep 35; verb wait --timeout 60; } || fail "not healed: $(service_status)"
equal disk

# Its entry is skipped: a gap, which resync ends.
head -c 8M /dev/zero >"$T/disk/ballast" 2>/dev/null || true
head -c 3M /dev/urandom >"$T/mnt/second"
wait_until 30 "the full target is held" disk_is held
while disk_is held; do
  if verb skip data/disk >/dev/null 2>&1; then rm -f "$T/disk/ballast"; fi
  sleep 0.2
done
[ "$(field skipped | sort -n | tail -n 1)" -gt 0 ] || fail "a skipped entry is not told: $(verb status)"
verb resync data/disk
equal disk
[ "$(field skipped | sort -u)" = 0 ] || fail "skipped after a resync: $(service_status)"

# Nothing mounted: the directory below is never written.
umount -l "$T/disk"
wait_until 30 "the missing file system is noticed" disk_is away
echo while-away >"$T/mnt/while-away"
other_is_equal
[ -z "$(ls -A "$T/disk")" ] || fail "the directory below the mount point was written: $(ls -A "$T/disk")"
# An empty file system in its place is filled again.
mount_disk
wait_until 60 "the new file system is copied" disk_is equal
equal disk
stop_service
grep -q "unnamed file" "$T/service.err" && fail "a page of a write that was tried again was taken for another"

# Away at the start; paused over a restart.
umount "$T/disk"
start_service
wait_until 30 "the missing file system is noticed" disk_is away
mount_disk
wait_until 60 "it is copied" disk_is equal
verb pause data/disk
disk_is paused || fail "not paused: $(disk_state)"
echo while-paused >"$T/mnt/while-paused"
other_is_equal
[ ! -e "$T/disk/while-paused" ] || fail "a paused target was written"
kill_service
start_service
wait_until 10 "it is paused still" disk_is paused
verb resume data/disk
equal disk

# Another directory with contents is not taken unasked. A paused target's file system can be unmounted.
verb pause data/disk
umount "$T/disk"
mount_disk
echo foreign >"$T/disk/foreign"
verb resume data/disk
wait_until 30 "the other directory is noticed" disk_is away
sleep 2
[ "$(cat "$T/disk/foreign")" = foreign ] || fail "a foreign file was removed"
verb resync data/disk
equal disk
[ ! -e "$T/disk/foreign" ] || fail "the foreign file is still there"
stop_service
