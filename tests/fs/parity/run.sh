#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# run.sh BUILD CASE KIND [CACHE]: runs one case on a plain directory and on a mount over another directory of the same file
# system, and compares what the two say, operation by operation, and what the two directories hold afterwards.
# CACHE: for how many seconds the host may keep names and attributes, if not for the usual time.
# KIND is tmpfs or ext4, made for the test. For others than root, who cannot mount it, tmpfs is wherever temporary files lie.
. "$(dirname "$0")/../../lib.sh"
CASE=${2:?case} KIND=${3:?kind of file system} CACHE=${4:-}
PROGRAM="$BUILD/tests/fs/cases/$CASE"
SECONDS_PER_RUN=240
[ -x "$PROGRAM" ] || fail "$PROGRAM is not built"

mkdir "$T/fs"

make_tmpfs() {
  if [ "$(id -u)" -eq 0 ]; then mount -t tmpfs -o size=256m tarn-parity "$T/fs"; fi
}

make_ext4() {
  [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount an ext4" >&2; exit 77; }
  [ -e /dev/loop-control ] || { echo "skipped: there are no loop devices here" >&2; exit 77; }
  truncate -s 256M "$T/image"
  mkfs.ext4 -q -b 4096 "$T/image"
  mount -o loop "$T/image" "$T/fs"
}

cleanup_test() {
  if mountpoint -q "$T/fs"; then umount "$T/fs" || umount -l "$T/fs"; fi
}

case $KIND in
  tmpfs | ext4) "make_$KIND" ;;
  *) fail "no such kind of file system: $KIND" ;;
esac

# tree_of DIR: what a directory holds, a line for each name and a sum of its content.
tree_of() {
  (
    cd "$1"
    find . -mindepth 1 -type d -printf 'left behind: %P %y %m %U:%G links %n\n' \
      -o -printf 'left behind: %P %y %m %U:%G links %n size %s %l\n' | sed 's/ $//' | LC_ALL=C sort
    find . -type f -print0 | LC_ALL=C sort -z | xargs -0r sha256sum | sed 's/^/left behind: /'
  )
}

# run_case WHERE DIR BELOW: leaves the transcript in $T/WHERE; DIR is the directory of the case, BELOW its lower one.
run_case() {
  local status=0
  (cd "$2" && timeout -k 5 $SECONDS_PER_RUN "$PROGRAM") >"$T/$1" 2>"$T/$1.err" </dev/null || status=$?
  case $status in
    0) ;;
    77) cat "$T/$1.err" >&2 ;;
    124 | 137) fail "on the $1 directory the case is not done after $SECONDS_PER_RUN s; it came to: $(tail -n 1 "$T/$1")" ;;
    *) fail "on the $1 directory the case ended with $status; it came to: $(tail -n 1 "$T/$1")" ;;
  esac
  tree_of "$3" >>"$T/$1"
  echo "exit status $status" >>"$T/$1"
  return $status
}

mkdir "$T/fs/plain" "$T/fs/lower"
run_case plain "$T/fs/plain" "$T/fs/plain" || exit $?
tarn mount ${CACHE:+--cache "$CACHE"} "$T/fs/lower" "$T/mnt"
tarn rule add --include "$T/fs/lower" >/dev/null
mkdir "$T/mnt/case"
run_case mount "$T/mnt/case" "$T/fs/lower/case" || true
python3 "$HERE/fs/parity/compare.py" --case "$CASE" --kind "$KIND" --runs-in process \
  --differences "$HERE/fs/parity/differences.txt" "$T/plain" "$T/mount"
tarn umount "$T/mnt"
