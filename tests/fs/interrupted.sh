#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A call that waits for a daemon which does not read ends its wait when somebody wants to end the caller: the write is
# done, its record is lost and logged as interrupted, and the next call of the same program is as good as any.
. "$(dirname "$0")/../lib.sh"

start_replication
echo before >"$T/mnt/before"
wait_caught_up
kill -STOP "$MIRRORD_PID"

python3 - "$T/mnt/data" <<'PY' || fail "an interrupted writer"
import os
import signal
import sys
import time

signal.signal(signal.SIGTERM, lambda *_: None)
writer = os.getpid()
sender = os.fork()
if sender == 0:
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    while os.getppid() == writer:
        os.kill(writer, signal.SIGTERM)
        time.sleep(0.05)
    os._exit(0)
block = b"x" * 65536
with open(sys.argv[1], "wb", buffering=0) as out:
    for i in range(128):
        if out.write(block) != len(block):
            sys.exit("write %d was cut short" % i)
os.kill(sender, signal.SIGKILL)
PY
[ "$(stat -c %s "$T/lower/data")" -eq $((128 * 65536)) ] || fail "the data is not all there"
kill -CONT "$MIRRORD_PID"
interrupted=$(tarn log | grep -c 'Failed send tarn netlink message to pid(.*); ret = -4, back to 0' || true)
[ "$interrupted" -gt 0 ] || fail "no wait was ended by a signal"
echo after >"$T/mnt/after"
wait_until 30 "the daemon is served again" cmp "$T/lower/after" "$T/replica/after"
stop_mirrord_after_a_loss
