#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A tarnd that is given few descriptors serves more files than those: the host is made to forget what is not open. What
# is open, a socket that is bound and the directory somebody is in are left alone.
. "$(dirname "$0")/../lib.sh"

NAMES=10000
LIMIT=2000
# The superuser would raise the limit: not without that capability.
(
  ulimit -n "$LIMIT"
  if [ "$(id -u)" -eq 0 ]; then
    exec setpriv --bounding-set=-sys_resource --inh-caps=-sys_resource "$BUILD/tarn/tarn" mount "$T/lower" "$T/mnt"
  fi
  exec tarn mount "$T/lower" "$T/mnt"
) || fail "mounting"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
[ "$(awk '/Max open files/ {print $5}' "/proc/$pid/limits")" -eq "$LIMIT" ] || fail "tarnd has another limit than $LIMIT"

python3 - "$T/lower" "$T/mnt" "$NAMES" <<'PY' || fail "many files"
import os
import socket
import sys
import threading

lower, mnt, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
os.mkdir(lower + "/many")
for i in range(count):
    with open("%s/many/%d" % (lower, i), "w") as out:
        out.write(str(i))
os.mkdir(mnt + "/inside")
os.chdir(mnt + "/inside")
held = [open("%s/many/%d" % (mnt, i * 50)) for i in range(50)]
bound = socket.socket(socket.AF_UNIX)
bound.bind("bound")
bound.listen()
os.symlink("many", mnt + "/link")

for _ in range(2):
    for i in range(count):
        if os.stat("%s/link/%d" % (mnt, i)).st_size != len(str(i)):
            sys.exit("%d has another size" % i)
for i in range(0, count, 7):
    with open("%s/many/%d" % (mnt, i)) as file:
        if file.read() != str(i):
            sys.exit("%d holds something else" % i)

# Listings that bring the attributes of all names, by several at once.
def look_at_all():
    with os.scandir(mnt + "/many") as entries:
        for entry in entries:
            entry.stat()


errors = []
threading.excepthook = lambda told: errors.append(told.exc_value)
for _ in range(3):
    lookers = [threading.Thread(target=look_at_all) for _ in range(4)]
    for looker in lookers:
        looker.start()
    for looker in lookers:
        looker.join()
if errors:
    sys.exit("a listing: %s" % errors[0])

for i, file in enumerate(held):
    if file.read() != str(i * 50):
        sys.exit("an open file holds something else")
    if not os.readlink("/proc/self/fd/%d" % file.fileno()).endswith("/many/%d" % (i * 50)):
        sys.exit("an open file has lost its name")
if os.getcwd() != mnt + "/inside":
    sys.exit("the current directory has become " + os.getcwd())
caller = socket.socket(socket.AF_UNIX)
caller.connect("bound")
PY
[ "$(ls "/proc/$pid/fd" | wc -l)" -lt "$LIMIT" ] || fail "tarnd has no descriptor left"
