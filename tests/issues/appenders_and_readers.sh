#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Hundreds of programs append to files that others read while the daemon pauses: every append waits for it, and when it
# goes on all of them end, each append is there once, and the mount can be taken away.
. "$(dirname "$0")/../lib.sh"

PROGRAMS=300 APPENDS=4
for ((i = 0; i < PROGRAMS; i++)); do printf '%06d 00\n' $i >"$T/lower/log$i"; done
start_replication
kill -STOP "$MIRRORD_PID"
head -c 64M /dev/zero >"$T/mnt/fills-the-queue" &
filler=$!
sleep 1
(sleep 8 && kill -CONT "$MIRRORD_PID") &

timeout -k 5 100 python3 - "$T/mnt" $PROGRAMS $APPENDS <<'PY' || fail "the appends are not done, or not once"
import os
import signal
import sys
import time

mnt = sys.argv[1]
programs, appends = map(int, sys.argv[2:])
names = ["%s/log%d" % (mnt, i) for i in range(programs)]


def line(number, turn):
    return b"%06d %02d\n" % (number, turn)


# Opens before the reader of its file does, and begins when all readers have begun.
def append(number):
    fd = os.open(names[number], os.O_WRONLY | os.O_APPEND)
    os.write(opened, b"x")
    os.close(go)
    os.read(begin, 1)
    for turn in range(1, appends):
        os.write(fd, line(number, turn))


def read(number):
    os.close(go)
    fd = os.open(names[number], os.O_RDONLY)
    while os.pread(fd, 10, 0) == line(number, 0):
        time.sleep(0.02)
    sys.exit("%s begins with something else" % names[number])


def start(work, number):
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            work(number)
            status = 0
        finally:
            os._exit(status)
    return pid


begin, go = os.pipe()
all_opened, opened = os.pipe()
appenders = [start(append, i) for i in range(programs)]
for _ in appenders:
    os.read(all_opened, 1)
readers = [start(read, i) for i in range(programs)]
os.close(go)
for pid in appenders:
    if os.waitpid(pid, 0)[1] != 0:
        sys.exit("a program that appends has failed")
for pid in readers:
    if os.waitpid(pid, os.WNOHANG) != (0, 0):
        sys.exit("a program that reads has failed")
    os.kill(pid, signal.SIGKILL)
for number, name in enumerate(names):
    with open(name, "rb") as log:
        if log.read() != b"".join(line(number, turn) for turn in range(appends)):
            sys.exit("%s holds something else" % name)
PY
kill "$filler" 2>/dev/null || true
wait "$filler" || true
wait_until 60 "the mount can be taken away" timeout 20 tarn umount "$T/mnt"
kill "$MIRRORD_PID"
wait "$MIRRORD_PID" || [ "$(tarn log | grep -c 'ret = -11')" -gt 0 ] || fail "mirrord ended with an error, and nothing was lost"
MIRRORD_PID=
