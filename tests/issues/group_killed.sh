#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A signal that ends the whole process group of a tarnd in the foreground, as a key of the terminal does, leaves
# mounts that refuse, not programs that wait: what sees to that is in a group of its own.
. "$(dirname "$0")/../lib.sh"

refuses() { grep -q " $T/mnt .* - fuse.tarn " /proc/self/mountinfo && ! timeout 5 ls "$T/mnt"; }
gone() { ! kill -0 "$1"; }

ulimit -c 0
for signal in QUIT KILL; do
  setsid env --default-signal=QUIT tarnd --foreground >"$T/foreground.err" 2>&1 </dev/null &
  started=$!
  wait_until 10 "tarnd runs" tarn status
  tarn mount "$T/lower" "$T/mnt"
  pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
  [ "$(ps -o pgid= "$pid" | tr -d ' ')" = "$pid" ] || fail "tarnd does not lead its process group"
  kill -$signal -- "-$pid"
  wait "$started" || true
  wait_until 10 "tarnd has gone" gone "$pid"
  wait_until 10 "the mount refuses after SIG$signal" refuses
done
