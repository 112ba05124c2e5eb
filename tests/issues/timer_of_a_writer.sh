#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A program whose timer goes off all the time writes while the daemon's queue is full again and again, each time for
# less than the time that a sender waits. Its signals must not cost a record.
. "$(dirname "$0")/../lib.sh"

start_replication

python3 - "$T/mnt" <<'PY' &
import signal, sys
ticks = 0
def tick(*_):
    global ticks
    ticks += 1
signal.signal(signal.SIGALRM, tick)
signal.setitimer(signal.ITIMER_REAL, 0.003, 0.003)
n = 0
while n < 150 or ticks <= 50:
    with open("%s/%d" % (sys.argv[1], n), "wb") as f:
        f.write(b"%d" % n * 2000)
    n += 1
signal.setitimer(signal.ITIMER_REAL, 0)
PY
writer=$!
while kill -0 $writer 2>/dev/null; do
  kill -STOP "$MIRRORD_PID"
  sleep 0.3
  kill -CONT "$MIRRORD_PID"
  sleep 0.02
done
wait $writer || fail "the writer failed"
wait_caught_up
no_gap
if tarn log | grep 'Failed send'; then fail "a record was lost"; fi
compare_trees "$T/lower" "$T/replica"
stop_mirrord
