#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Several programs on one mount at once, none knowing of the others: a compiler's kind of work (many small files), a
# database, a writer that verifies, mapped writers, an archive that comes and goes. They are stopped in the middle and
# the replica is compared; then they go on.
. "$(dirname "$0")/common.bash"
require git sqlite3 tar rsync fio stress-ng

cat >"$T/programs" <<'EOP'
set -e
export GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
versions() {
  git init -q "$MNT/git"
  local n
  for n in $(seq $((4 * SCALE))); do
    rsync -a --delete "$T/sources/module/" "$MNT/git/$((n % 3))/"
    git -C "$MNT/git" add -A
    git -C "$MNT/git" commit -q --allow-empty -m "$n"
  done
  git -C "$MNT/git" gc -q --prune=now
  git -C "$MNT/git" fsck --full
}
database() {
  local n
  sqlite3 "$MNT/db" 'PRAGMA journal_mode = wal; CREATE TABLE t (a PRIMARY KEY, b);' >/dev/null
  for n in $(seq $((40 * SCALE))); do
    sqlite3 -cmd '.timeout 60000' "$MNT/db" "INSERT INTO t VALUES ($n, randomblob(5000)); DELETE FROM t WHERE a = $n - 9;"
  done
  [ "$(sqlite3 "$MNT/db" 'PRAGMA integrity_check')" = ok ]
}
# As a thread: a process of its own would leave the session.
verified() {
  mkdir "$MNT/fio"
  fio --thread --name=v --directory="$MNT/fio" --rw=randwrite --bsrange=1k-64k --size=$((4 * SCALE))M --verify=crc32c \
    --verify_fatal=1 --fallocate=none --verify_state_save=0 --output=/dev/null
}
mapped() { python3 "$HERE/soak/mapped_writers.py" "$MNT/mapped" $((4 * SCALE)) 4; }
archived() {
  local n
  for n in $(seq $((2 * SCALE))); do
    mkdir "$MNT/tar"
    tar -C "$T/sources" -cf - ukern tests | tar -C "$MNT/tar" -xf -
    diff -r "$T/sources/ukern" "$MNT/tar/ukern"
    rm -r "$MNT/tar"
  done
}
stressed() {
  mkdir "$MNT/stress"
  stress-ng --temp-path "$MNT/stress" --timeout $((4 * SCALE)) --quiet --verify --rename 2 --dentry 1 --dentries 200 \
    --link 1 --hdd 1 --hdd-bytes 4m --mmap 1 --mmap-file --mmap-bytes 2m --open 1 --chmod 1
}
pids=()
for program in versions database verified mapped archived stressed; do
  $program &
  pids+=($!)
done
for pid in "${pids[@]}"; do wait "$pid"; done
EOP

take_sources
start_soak
export SCALE HERE T MNT="$T/mnt"
soak_beside "$T/programs"
