#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A tarnd that ends while a mount is in use that was unmounted lazily leaves alone what somebody has mounted in that place
# since, also when it has no descriptor left.
. "$(dirname "$0")/../lib.sh"

[ "$(id -u)" -eq 0 ] || { echo "only root mounts something else there"; exit 77; }
gone() { ! kill -0 "$1"; }
cleanup_test() {
  exec 7>&-
  [ -z "${connections:-}" ] || kill "$connections"
  umount "$T/mnt"
}

tarn mount "$T/lower" "$T/mnt"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
exec 7>"$T/mnt/open"
tarn umount --lazy "$T/mnt"
mount -t tmpfs tmpfs "$T/mnt"
touch "$T/mnt/ours"

# Connections take every number below the limit, and more wait for one to come free.
limit=$(($(ls "/proc/$pid/fd" | sort -n | tail -n 1) + 1))
prlimit --pid "$pid" --nofile="$limit"
python3 - "$TARN_RUN_DIR/daemon" "$limit" <<'PY' &
import signal
import socket
import sys

held = []
for _ in range(int(sys.argv[2]) + 8):
    held.append(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
    held[-1].connect(sys.argv[1])
signal.pause()
PY
connections=$!
# The wait for a connection to the other socket keeps one number.
none_left() { [ "$(ls "/proc/$pid/fd" | wc -l)" -ge "$((limit - 1))" ]; }
wait_until 30 "tarnd has no descriptor left" none_left

kill "$pid"
wait_until 30 "tarnd has gone" gone "$pid"
[ -e "$T/mnt/ours" ] || fail "tarnd unmounted what was not its own"
