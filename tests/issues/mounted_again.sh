#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What a plain umount has taken away can be mounted again at once, however much tarnd still has to give back.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root unmounts without tarn or fusermount3" >&2; exit 77; }

mkdir "$T/lower/many"
(cd "$T/lower/many" && seq 3000 | xargs touch)
tarn mount "$T/lower" "$T/mnt"
for turn in $(seq 5); do
  find "$T/mnt" -type f -size +1 >"$T/found"
  umount "$T/mnt"
  tarn mount "$T/lower" "$T/mnt" 2>"$T/why" || fail "turn $turn: $(cat "$T/why")"
done
[ "$(find "$T/mnt" -type f | wc -l)" -eq 3000 ] || fail "not all is there"
expect_error "is mounted already" tarn mount "$T/lower" "$T/mnt"
