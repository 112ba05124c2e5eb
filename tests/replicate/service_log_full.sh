#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A small log: a target that is too far behind is compared anew; a full disk below the log is a gap that heals.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root mounts file systems of its own" >&2; exit 77; }
cleanup_test() {
  umount -l "$T/service" 2>/dev/null
  return 0
}
mkdir "$T/service" "$T/second"
chmod 700 "$T/lower" "$T/second" "$T/service"
mount -t tmpfs -o size=100m,mode=700 tmpfs "$T/service"
tarn mount "$T/lower" "$T/mnt"
echo 'log-limit = "64 MiB"' | configure replica second
start_service
for i in $(seq 20); do head -c 100K /dev/urandom >"$T/mnt/f$i"; done
equal replica
equal second

# More is written than the log takes while one target is paused.
verb pause data/second
for i in $(seq 100); do head -c 1M /dev/urandom >"$T/mnt/big$((i % 5))"; done
equal_first() {
  verb wait data/replica --timeout 120 && python3 "$HERE/replicate/tree_compare.py" "$T/lower" "$T/replica"
}
equal_first || fail "the target that follows waits for the one that is paused"
verb resume data/second
equal second
grep -q "the log is full" "$T/service.err" || fail "the log was never full"

# No room below the log: records are lost, which is declared, and what is missing is copied from the source.
# What the log gives free to make room is taken, too.
lose_records() {
  head -c 100M /dev/zero 2>/dev/null >>"$T/service/ballast" || true
  lost=$(((lost + 1) % 40))
  head -c 1M /dev/urandom >"$T/mnt/lost$lost"
  grep -q "records are lost" "$T/service.err"
}
lost=0
wait_until 60 "the loss is told" lose_records
rm -f "$T/mnt/f1"
mv "$T/mnt/f2" "$T/mnt/f2-renamed"
rm "$T/service/ballast"
echo after >"$T/mnt/after"
wait_until 60 "the targets can save their positions again" verb wait --timeout 10
equal replica
equal second
grep -q "GAP: the log has no room" "$T/service.err" || fail "no gap for lost records"
wait_until 20 "the state is equal" state_is equal
stop_service
