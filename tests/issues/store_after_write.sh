#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# One program writes a number into a file that it can only write; another sees it in a mapping and stores its answer over
# it, while a third dirties the same page all the time. No answer is undone, and each number is in one record, once.
. "$(dirname "$0")/../lib.sh"

ROUNDS=3000
tarn mount "$T/lower" "$T/mnt"
tarn rule add --include "$T/lower" >/dev/null
setsid tarn watch >"$T/records" 2>"$T/watch.err" &
watch=$!
cleanup_test() { kill "$watch" 2>/dev/null; }
wait_until 10 "records are watched" eval '[ "$(helo_count)" -gt 0 ]'

python3 - "$T/mnt/file" $ROUNDS <<'PY' || fail "a store was undone"
import mmap
import os
import signal
import struct
import sys
import time

path, rounds = sys.argv[1], int(sys.argv[2])
writer = os.open(path, os.O_WRONLY | os.O_CREAT, 0o644)
os.pwrite(writer, bytes(4096), 0)
mapping = mmap.mmap(os.open(path, os.O_RDWR), 4096)
turns = mmap.mmap(-1, 4096)


def dirty():
    while True:
        mapping[2048] = (mapping[2048] + 1) % 256
        time.sleep(0)


# A record of five bytes is one of these writes: what is written back is longer.
def answer():
    for i in range(1, rounds + 1):
        want = struct.pack("<IB", i, 0)
        while mapping[:5] != want:
            time.sleep(0)
        mapping[:5] = struct.pack("<IB", i, 1)
        turns[:4] = struct.pack("<I", i)


pids = []
for work in dirty, answer:
    pids.append(os.fork())
    if pids[-1] == 0:
        work()
        os._exit(0)
undone = 0
for i in range(1, rounds + 1):
    os.pwrite(writer, struct.pack("<IB", i, 0), 0)
    while turns[:4] != struct.pack("<I", i):
        time.sleep(0)
    undone += mapping[:5] != struct.pack("<IB", i, 1)
for pid in pids:
    os.kill(pid, signal.SIGKILL)
    os.waitpid(pid, 0)
if undone:
    sys.exit("%d of %d answers were undone" % (undone, rounds))
PY
touch "$T/mnt/last"
wait_until 30 "the last record has come" grep -q "$T/lower/last" "$T/records"
records=$(grep -c "write $T/lower/file offset 0 bytes 5\$" "$T/records")
[ "$records" -eq $ROUNDS ] || fail "$ROUNDS writes made $records records"
