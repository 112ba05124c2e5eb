#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# fio writes blocks with checksums and reads them all back: with plain calls, with memory mappings and with
# asynchronous calls, with and without the direct flag, in order and at random, several writers at once.
. "$(dirname "$0")/common.bash"
require fio

# verify NAME OPTION...: what was written is read back from the host's cache, and then, that being dropped, from tarnd.
verify() {
  local name=$1
  shift
  mkdir -p "$T/mnt/$name"
  fio --name="$name" --directory="$T/mnt/$name" --size=$((4 * SCALE))M --numjobs=2 --nrfiles=2 --verify=crc32c \
    --verify_fatal=1 --do_verify=1 --group_reporting --randrepeat=0 --fallocate=none --verify_state_save=0 \
    --output="$T/fio-$name.err" "$@" || fail "fio $name"
  fio --name="$name" --directory="$T/mnt/$name" --size=$((4 * SCALE))M --numjobs=2 --nrfiles=2 --verify=crc32c \
    --verify_fatal=1 --verify_only --group_reporting --invalidate=1 --fallocate=none --verify_state_save=0 \
    --output="$T/fio-$name.err" "$@" || fail "fio $name, read once more"
}

start_soak
verify sync --ioengine=sync --rw=randwrite --bsrange=512-20k
verify psync-append --ioengine=psync --rw=write --bs=64k --fsync=16
verify pvsync --ioengine=pvsync --rw=randwrite --bs=4k --fdatasync=32
verify direct --ioengine=psync --rw=randwrite --bs=4k --direct=1
verify mmap --ioengine=mmap --rw=randwrite --bs=4k --fsync=64
verify libaio --ioengine=libaio --rw=randwrite --bs=16k --iodepth=8
verify libaio-direct --ioengine=libaio --rw=randwrite --bs=16k --iodepth=8 --direct=1
end_soak
