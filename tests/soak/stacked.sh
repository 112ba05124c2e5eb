#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A mount over a mount: programs work on the upper one. Each captures what passes through it under paths of its own, and
# what the lower one captures makes the replica.
. "$(dirname "$0")/common.bash"
require git fio stress-ng

start_soak
mkdir "$T/upper"
tarn mount "$T/mnt" "$T/upper"
tarn rule add --include "$T/mnt" 2>/dev/null
take_sources

git init -q "$T/upper/git"
cp -r "$T/sources/module" "$T/upper/git"
git -C "$T/upper/git" add -A
git -C "$T/upper/git" -c user.name=a -c user.email=a@example.org commit -q -m all
git -C "$T/upper/git" gc -q
git -C "$T/upper/git" fsck --full
mkdir "$T/upper/fio" "$T/upper/stress"
fio --name=v --directory="$T/upper/fio" --rw=randwrite --bsrange=1k-16k --size=$((2 * SCALE))M --verify=crc32c \
  --verify_fatal=1 --fallocate=none --verify_state_save=0 --ioengine=mmap --output="$T/fio.err" || fail "fio"
python3 "$HERE/soak/mapped_writers.py" "$T/upper/mapped" $((3 * SCALE)) 4
stress-ng --temp-path "$T/upper/stress" --timeout $((2 * SCALE)) --quiet --verify --rename 2 --dentry 1 --dentries 200 \
  --link 1 --symlink 1 --hdd 1 --hdd-bytes 2m --mmap 1 --mmap-file --mmap-bytes 1m --dir 1 --utime 1 --chmod 1 ||
  fail "a stressor failed"

catch_up
diff -r --no-dereference "$T/upper" "$T/lower"
tarn umount "$T/upper"
end_soak
