#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Much of everything: names in one directory, opens, depth; what it takes is given back. FS_MANY scales it: the names
# of the directory, 20 000 unless said otherwise.
. "$(dirname "$0")/../lib.sh"

NAMES=${FS_MANY:-20000}
tarn mount "$T/lower" "$T/mnt"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
descriptors() { ls "/proc/$pid/fd" | wc -l; }

# Every name once, in a listing that restarts at each position it is given.
python3 - "$T/lower/names" "$T/mnt/names" "$NAMES" <<'PY' || fail "a listing"
import os
import sys

lower, mnt, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
os.mkdir(lower)
for i in range(count):
    open("%s/%07d" % (lower, i), "w").close()
names = os.listdir(mnt)
if sorted(names) != ["%07d" % i for i in range(count)]:
    sys.exit("%d names, %d of them different, instead of %d" % (len(names), len(set(names)), count))
numbers = {e.name: e.inode() for e in os.scandir(lower)}
for entry in os.scandir(mnt):
    if entry.inode() != numbers[entry.name]:
        sys.exit("%s has inode number %d, below %d" % (entry.name, entry.inode(), numbers[entry.name]))
PY

# Two names are one inode: one number, the lower one, which stays; and one cache of data.
python3 - "$T/lower" "$T/mnt" <<'PY' || fail "hard links"
import mmap
import os
import sys

lower, mnt = sys.argv[1:]
with open(mnt + "/a", "wb") as out:
    out.write(b"-" * 4096)
os.link(mnt + "/a", mnt + "/b")
number = os.stat(lower + "/a").st_ino
with open(mnt + "/a", "r+b") as first, open(mnt + "/b", "r+b") as second:
    with mmap.mmap(first.fileno(), 4096) as one, mmap.mmap(second.fileno(), 4096) as two:
        one[10:14] = b"here"
        if two[10:14] != b"here":
            sys.exit("two names have two caches")
        os.pwrite(second.fileno(), b"there", 20)
        if one[20:25] != b"there":
            sys.exit("a write by one name is not seen in a mapping of the other")
os.rename(mnt + "/b", mnt + "/c")
os.unlink(mnt + "/a")
if os.stat(mnt + "/c").st_ino != number or os.stat(mnt + "/c").st_nlink != 1:
    sys.exit("the number or the links: %r" % (os.stat(mnt + "/c"),))
PY

# A path as long as there may be, made and removed step by step.
python3 - "$T/mnt" <<'PY' || fail "a deep tree"
import os
import sys

step = "d" * 200
os.chdir(sys.argv[1])
os.mkdir("deep")
os.chdir("deep")
depth = 40  # 8000 characters, twice what one path may have
for _ in range(depth):
    os.mkdir(step)
    os.chdir(step)
with open("bottom", "w") as out:
    out.write("here")
for _ in range(15):
    os.chdir("..")
with open("/".join([step] * 15 + ["bottom"])) as file:
    if file.read() != "here":
        sys.exit("the bottom holds something else")
try:
    os.stat("/".join([step] * 21))
    sys.exit("a path that is too long was walked")
except OSError as error:
    if error.strerror != "File name too long":
        raise
PY
rm -r "$T/mnt/deep" || fail "removing a deep tree"

before=$(descriptors)
python3 - "$T/mnt" $((NAMES / 4)) <<'PY' || fail "opens"
import os
import sys

mnt, count = sys.argv[1], int(sys.argv[2])
for i in range(count):
    fd = os.open(mnt + "/again", os.O_RDWR | os.O_CREAT)
    os.write(fd, b"x")
    os.close(fd)
files = [os.open("%s/held%d" % (mnt, i), os.O_RDWR | os.O_CREAT) for i in range(500)]
for i, fd in enumerate(files):
    os.unlink("%s/held%d" % (mnt, i))
    os.pwrite(fd, b"still here", 0)
for fd in files:
    if os.pread(fd, 100, 0) != b"still here":
        sys.exit("an open file without a name lost its data")
    os.close(fd)
for i in range(count // 4):
    with open("%s/gone%d" % (mnt, i), "w") as out:
        out.write("x")
for i in range(count // 4):
    os.unlink("%s/gone%d" % (mnt, i))
PY
# Each file that tarnd has in memory is a descriptor there: those that are gone leave none.
few_are_left() { [ "$(descriptors)" -le $((before + 50)) ]; }
wait_until 30 "descriptors are given back: $before before, $(descriptors) now" few_are_left
