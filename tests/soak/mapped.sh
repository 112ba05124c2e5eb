#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Mapped writers beside writers in the same pages of one file, several files at once. What each wrote last is what
# every process reads, what the lower file holds and what the replica holds.
. "$(dirname "$0")/common.bash"

FILES=3

start_soak
writers=()
for n in $(seq $FILES); do
  python3 "$HERE/soak/mapped_writers.py" "$T/mnt/shared-$n" $((6 * SCALE)) &
  writers+=($!)
done
for writer in "${writers[@]}"; do wait "$writer" || fail "bytes of a writer were lost"; done
catch_up
for n in $(seq $FILES); do
  cmp "$T/mnt/shared-$n" "$T/lower/shared-$n"
  cmp "$T/mnt/shared-$n" "$T/replica/shared-$n"
done
end_soak
