#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# tarnd is told to end while programs are busy on its mount. It ends in order, in time and without a leak, the programs
# get errors, and what was changed up to the end is in the replica: the daemon gets all that was sent before the
# channel closes.
. "$(dirname "$0")/common.bash"
require stress-ng

start_soak
mkdir "$T/mnt/stress"
run_beside stress-ng --temp-path "$T/mnt/stress" --timeout 60 --quiet --rename 2 --dentry 1 --dentries 200 --link 1 \
  --hdd 1 --hdd-bytes 4m --mmap 1 --mmap-file --mmap-bytes 2m --open 1 --chmod 1 --dir 1 --symlink 1 --utime 1 \
  --flock 1 --lockf 1 --aio 1 --sendfile 1 --sendfile-size 1m --readahead 1 --readahead-bytes 2m
sleep $((2 * SCALE))
stop_tarnd || fail "tarnd did not end as it should"
if mountpoint -q "$T/mnt"; then fail "the mount is still there"; fi
kill_beside
wait_until 60 "mirrord says that tarnd has ended" grep -q 'tarnd has ended' "$T/mirrord.err"
check_numbers
# It applies what it has; a mark that would confirm it does not come any more.
kill "$MIRRORD_PID"
wait "$MIRRORD_PID" || [ $? -eq 1 ] || fail "mirrord did not end as it should"
MIRRORD_PID=
compare_replica no-times
