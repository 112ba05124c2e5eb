#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A full lower file system: the writer gets an error, what was written before is whole below and in the replica,
# and once there is room again everything goes on.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount a small file system" >&2; exit 77; }

mkdir "$T/small"
mount -t tmpfs -o size=2m tarn-small "$T/small"
cleanup_test() { umount -l "$T/small"; }
mkdir "$T/small/lower"
rmdir "$T/lower"
ln -s "$T/small/lower" "$T/lower"

tarn mount "$T/small/lower" "$T/mnt"
# Room is there at once: by one who removes and writes, and without a moment in between. Before mirrord is there: it has a
# file open while it compares it with its copy, like any program that reads.
python3 - "$T/mnt" <<'PY' || fail "no room after a removal"
import os
import sys

os.chdir(sys.argv[1])
for i in range(60):
    with open("filler", "wb", 0) as filler:
        try:
            while True:
                filler.write(bytes(100000))
        except OSError:
            pass
    if i % 2:
        os.rename("next", "filler")
        os.unlink("filler")
    else:
        os.unlink("filler")
    with open("next", "wb", 0) as out:
        out.write(b"x" * 50000)
os.unlink("next")
PY

start_mirrord

echo kept >"$T/mnt/kept"
if head -c 4000000 /dev/zero >"$T/mnt/large" 2>"$T/head.err"; then fail "4 MB went into 2 MB"; fi
[ "$(stat -c %s "$T/small/lower/large")" -gt 1000000 ] || fail "hardly anything was written"
rm "$T/mnt/large"
wait_caught_up # mirrord may have it open
echo again >"$T/mnt/again"
[ "$(cat "$T/small/lower/again")" = again ]
wait_caught_up
compare_trees "$T/small/lower" "$T/replica"
no_gap
stop_mirrord
