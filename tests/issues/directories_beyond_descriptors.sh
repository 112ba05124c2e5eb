#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Users walk through, make and stay in many times more directories than tarnd has descriptors. Who is in one of them, or
# has it open, finds it again wherever it has been moved meanwhile, and nothing else in its place.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root opens a directory again" >&2; exit 77; }

LIMIT=400
chmod 755 "$T"
chmod 777 "$T/lower"
# The superuser would raise the limit: not without that capability.
(
  ulimit -n "$LIMIT"
  exec setpriv --bounding-set=-sys_resource --inh-caps=-sys_resource "$BUILD/tarn/tarn" mount "$T/lower" "$T/mnt"
) || fail "mounting"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
[ "$(awk '/Max open files/ {print $5}' "/proc/$pid/limits")" -eq "$LIMIT" ] || fail "tarnd has another limit than $LIMIT"
# What the last program looked at is closed behind it.
descriptors_left() {
  local open end=$((SECONDS + 20))
  while open=$(ls "/proc/$pid/fd" | wc -l) && [ "$open" -ge $((LIMIT * 7 / 8)) ]; do
    [ "$SECONDS" -lt "$end" ] || fail "tarnd has $open descriptors open $1"
    sleep 0.1
  done
}

as_user() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
cat >"$T/walk.py" <<'PY'
import os
import sys
import time

lower, mnt, own = sys.argv[1:]
TREES = 800


def refused(error):
    sys.exit("%s: %s" % (own, error))


def walk():
    """How many directories there are, each looked at and read."""
    return sum(1 for _ in os.walk(mnt + "/" + own, onerror=refused))


def check(what, is_so):
    if not is_so:
        sys.exit("%s: %s" % (own, what))


def check_walk(what, least, most):
    count = walk()
    check("%s finds %d directories, not %d to %d" % (what, count, least, most), least <= count <= most)


for i in range(TREES):
    os.makedirs("%s/%s/%d/a/b" % (mnt, own, i))
check_walk("the first walk", 1 + 3 * TREES, 1 + 3 * TREES)

# In one of them and with another open, while all the others are looked at.
os.chdir("%s/%s/7/a/b" % (mnt, own))
kept = os.open("%s/%s/8/a" % (mnt, own), os.O_RDONLY | os.O_DIRECTORY)
check_walk("the walk with one open", 1 + 3 * TREES, 1 + 3 * TREES)
os.mkdir("here")
check("not made where we are", os.path.isdir("%s/%s/7/a/b/here" % (lower, own)))

# A parent is renamed through the mount, then directly below, and a link is put in its place there.
os.rename("%s/%s/7" % (mnt, own), "%s/%s/moved" % (mnt, own))
check_walk("the walk after the rename", 2 + 3 * TREES, 2 + 3 * TREES)
check("the current directory is " + os.getcwd(), os.getcwd() == "%s/%s/moved/a/b" % (mnt, own))
os.mkdir("after-rename")
check("not in the renamed parent", os.path.isdir("%s/%s/moved/a/b/after-rename" % (lower, own)))
os.rename("%s/%s/moved/a" % (lower, own), "%s/%s/away" % (lower, own))
os.symlink("../8/a", "%s/%s/moved/a" % (lower, own))
time.sleep(1.5)  # a name is kept for a second
check_walk("the walk after the move below", 3 * TREES + 2, 3 * TREES + 3)
os.mkdir("after-move")
check("not where it was moved", os.path.isdir("%s/%s/away/b/after-move" % (lower, own)))
check("made through the link", not os.path.exists("%s/%s/8/a/b/after-move" % (lower, own)))

check("the open directory", os.listdir(kept) == ["b"])
os.mkdir("of-kept", dir_fd=kept)
check("not in the open directory", os.path.isdir("%s/%s/8/a/of-kept" % (lower, own)))

# One process in a directory uses all those above it.
os.chdir("%s/%s" % (mnt, own))
for i in range(1500):
    os.mkdir("d")
    os.chdir("d")
check("the walk past a deep directory", sum(1 for _ in os.scandir("%s/%s" % (mnt, own))) > TREES)
open("bottom", "w").close()
check("the bottom", os.path.exists("bottom"))
PY
as_user env PATH=/usr/bin:/bin python3 "$T/walk.py" "$T/lower" "$T/mnt" of-user || fail "as a user"
descriptors_left "after the user"
python3 "$T/walk.py" "$T/lower" "$T/mnt" of-root || fail "as root"
descriptors_left "after root"
as_user find "$T/mnt/of-user" -xdev -maxdepth 3 >"$T/found" || fail "find"
[ "$(wc -l <"$T/found")" -gt 2400 ] || fail "find has seen $(wc -l <"$T/found") names"
tarn status >/dev/null || fail "tarn status"
grep -q "half of all" "$TARN_RUN_DIR/tarnd.log" && fail "somebody was refused"
exit 0
