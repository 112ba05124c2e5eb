#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A target without room is held, and what could not be copied meanwhile is in it when there is room again: also files
# that have their size already, but not their data.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount" >&2; exit 77; }
cleanup_test() { umount -l "$T/disk"; }

mkdir "$T/disk"
mount -t tmpfs -o size=24m,mode=700 test "$T/disk"
mkdir -m 700 "$T/disk/target"
tarn mount "$T/lower" "$T/mnt"
configure disk/target </dev/null
sed -i 's,name = "disk/target",name = "target",' "$CONFIG"
start_service
mkdir "$T/mnt/d"
equal disk/target

fill() { head -c 64M /dev/zero >"$T/disk/ballast" 2>/dev/null || true; }
for round in 1 2 3; do
  fill
  for i in $(seq 12); do
    head -c 300000 /dev/urandom >"$T/mnt/d/$i"
    mv "$T/mnt/d/$i" "$T/mnt/d/renamed-$i"
    ln -f "$T/mnt/d/renamed-$i" "$T/mnt/d/link-$i"
  done
  wait_until 30 "the target is held" state_is held
  [ "$round" -eq 1 ] || kill_service
  [ "$round" -eq 1 ] || start_service
  sleep 0.3
  rm "$T/disk/ballast"
  until verb wait --timeout 60 2>/dev/null; do sleep 0.1; done
  equal disk/target
done
stop_service
