#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A write is recorded by the name that the program has used, also where the host keeps names and another name of the file
# was used just before: one that is gone, or one that no rule includes.
. "$(dirname "$0")/../lib.sh"

tarn mount --cache 1 "$T/lower" "$T/mnt"
mkdir "$T/mnt/source" "$T/mnt/outside"
tarn rule add --include "$T/lower/source" >/dev/null
setsid tarn watch >"$T/records" 2>"$T/watch.err" &
watch=$!
cleanup_test() { kill "$watch" 2>/dev/null; }
wait_until 10 "records are watched" eval '[ "$(helo_count)" -gt 0 ]'

python3 - "$T/mnt" <<'PY' || fail "the names were not used as they should"
import os
import sys
import time

os.chdir(sys.argv[1])


def write(path, size):
    fd = os.open(path, os.O_WRONLY)
    os.write(fd, b"x" * size)
    os.close(fd)


def make(path):
    with open(path, "w"):
        pass
    os.stat(path)


# The other name is removed, and its directory leaves the rule.
os.mkdir("source/dir")
make("source/file")
os.link("source/file", "source/dir/other")
write("source/dir/other", 11)
os.unlink("source/dir/other")
os.rename("source/dir", "outside/dir")
write("source/file", 12)

# The same with a third name.
make("source/three")
os.link("source/three", "source/second")
os.link("source/second", "source/third")
write("source/third", 21)
os.unlink("source/second")
os.unlink("source/third")
write("source/three", 22)

# The other name is outside the rule. What was kept of the first name before it had another is over.
make("source/inside")
os.link("source/inside", "outside/name")
time.sleep(1.2)
for size in range(31, 36):
    os.stat("outside/name")
    write("source/inside", size)
    os.stat("source/inside")
    write("outside/name", 99)
PY
: >"$T/mnt/source/end"
wait_until 10 "all records have come" grep -q "/source/end " "$T/records"
kill "$watch"

grep " write " "$T/records" | sed "s|.* write $T/lower/||" >"$T/writes"
cat >"$T/wanted" <<'END'
source/dir/other offset 0 bytes 11
source/file offset 0 bytes 12
source/third offset 0 bytes 21
source/three offset 0 bytes 22
source/inside offset 0 bytes 31
source/inside offset 0 bytes 32
source/inside offset 0 bytes 33
source/inside offset 0 bytes 34
source/inside offset 0 bytes 35
END
diff "$T/wanted" "$T/writes" || fail "other names were recorded"
