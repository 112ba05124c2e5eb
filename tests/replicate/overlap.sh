#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# mirrord refuses a replica that is the source, contains it or lies in it, by whatever name, before it touches anything.
if [ "$(id -u)" -ne 0 ]; then
  echo "skipped: only root makes bind mounts" >&2
  exit 77
fi
[ -n "${TARN_APART:-}" ] || TARN_APART=1 exec unshare --mount --propagation slave bash "$0" "$@"
. "$(dirname "$0")/../lib.sh"

cleanup_test() { umount -l "$T/same" "$T/parent" "$T/sub" "$T/has/mnt" "$T/other" 2>/dev/null; }
mkdir -p "$T/lower/sub/deep" "$T/same" "$T/parent" "$T/sub" "$T/has/mnt" "$T/other"
echo precious >"$T/lower/sub/f"
mount --bind "$T/lower" "$T/same"
mount --bind "$T" "$T/parent"
mount --bind "$T/lower/sub" "$T/sub"
mount --bind "$T/lower" "$T/has/mnt"
tarn mount "$T/lower" "$T/mnt"
mount --bind "$T/mnt/sub" "$T/other"

refused() {
  local source=$1 replica=$2 text=$3
  expect_error "$text" timeout 20 mirrord --source "$source" --replica "$replica"
  [ ! -e "$T/state" ] || fail "the state was written for $replica"
  [ "$(helo_count)" = 0 ] || fail "mirrord registered for $replica"
}
refused "$T/lower" "$T/lower" "is the source"
refused "$T/lower" "$T/lower/sub" "lies inside the source"
refused "$T/lower" "$T" "contains the source"
refused "$T/lower" / "contains the source"
refused "$T/lower" "$T/same" "is the source"
refused "$T/lower" "$T/same/sub" "lies inside the source"
refused "$T/lower" "$T/parent" "contains the source"
refused "$T/lower" "$T/parent/lower/sub" "lies inside the source"
refused "$T/lower" "$T/sub" "lies inside the source"
refused "$T/sub/deep" "$T/lower/sub" "contains the source"
refused "$T/lower" "$T/has" "a mount that shows the source"
refused "$T/lower" "$T/mnt" "is the source"
refused "$T/lower" "$T/mnt/sub" "lies inside the source"
refused "$T/lower/sub" "$T/mnt" "contains the source"
refused "$T/lower" "$T/other" "lies inside the source"
refused "$T/mnt/sub" "$T/replica" "is a path of a mount"
[ "$(cat "$T/lower/sub/f")" = precious ] || fail "the source was changed"

start_mirrord
echo x >"$T/mnt/sub/g"
wait_caught_up
compare_trees "$T/lower" "$T/replica"
stop_mirrord
umount "$T/other" "$T/has/mnt" "$T/sub" "$T/parent" "$T/same"
