#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Programs create directories and files and write them on the mount; the replica is identical.
. "$(dirname "$0")/../lib.sh"

start_replication

mkdir -p "$T/mnt/a/b/c" "$T/mnt/with space" "$T/mnt/d"
echo small >"$T/mnt/a/small"
: >"$T/mnt/a/empty"
head -c 5000000 /dev/urandom >"$T/mnt/a/b/large"
printf 'first\n' >"$T/mnt/log"
for i in $(seq 50); do echo "line $i" >>"$T/mnt/log"; done
dd if=/dev/urandom of="$T/mnt/a/b/large" bs=777 count=3 seek=1000 conv=notrunc status=none
dd if=/dev/urandom of="$T/mnt/sparse" bs=1 count=1 seek=1000000 status=none
printf 'x' >"$T/mnt/with space/new
line"
cp -p /usr/include/stdio.h "$T/mnt/d/stdio.h"
truncate -s 100 "$T/mnt/d/stdio.h"
truncate -s 9000 "$T/mnt/d/stdio.h"
chmod 640 "$T/mnt/a/small"
chown 12:34 "$T/mnt/a/small"
chmod 1777 "$T/mnt/d"
touch -d '2001-02-03 04:05:06.789012' "$T/mnt/a/small"

# What a program reads back through the mount is what the lower directory holds.
cmp "$T/mnt/a/b/large" "$T/lower/a/b/large"
cmp "$T/mnt/log" "$T/lower/log"
[ "$(ls -A "$T/mnt/a")" = "$(ls -A "$T/lower/a")" ]

wait_caught_up
compare_trees "$T/lower" "$T/replica"
no_gap
stop_mirrord
tarn umount "$T/mnt"
if mountpoint -q "$T/mnt"; then fail "still mounted"; fi
