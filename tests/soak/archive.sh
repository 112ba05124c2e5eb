#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# tar and rsync take a tree with everything a tree can hold to the mount and back again: content, owners, modes, times,
# hard and symbolic links, holes, extended attributes. Nothing of it differs at the end.
. "$(dirname "$0")/common.bash"
require tar rsync getfattr setfattr
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can give files away" >&2; exit 77; }

make_source() {
  local s=$1 i
  mkdir -p "$s/deep/er/still" "$s/with space" "$s/empty" "$s/many"
  take_sources
  cp -r "$T/sources/module" "$s/code"
  for i in $(seq $((60 * SCALE))); do head -c $((i * 131 % 9000)) /dev/urandom >"$s/many/$i"; done
  head -c 3000000 /dev/urandom >"$s/large"
  truncate -s 5000000 "$s/sparse"
  dd if=/dev/urandom of="$s/sparse" bs=1000 count=2 seek=1500 conv=notrunc status=none
  printf 'x' >"$s/new
line"
  ln "$s/large" "$s/deep/er/second name"
  ln "$s/large" "$s/third name"
  ln -s ../large "$s/deep/symlink"
  ln -s /nowhere/at/all "$s/dangling"
  chmod 4755 "$s/many/1"
  chmod 2750 "$s/with space"
  chmod 1777 "$s/empty"
  chmod 0 "$s/many/2"
  chown 12:34 "$s/many/3" "$s/deep/er"
  chown -h 56:78 "$s/dangling"
  setfattr -n user.kind -v value "$s/many/4"
  setfattr -n user.of.directory -v "$(head -c 200 /dev/zero | tr '\0' v)" "$s/deep"
  old_times "$s"
}

# Times with a part below a second, so that rsync does not take those of one second for equal.
old_times() { find "$1" -exec touch -h -d "${2:-2006-09-20 03:42:06.123456}" {} +; }

attributes() { (cd "$1" && find . -print0 | sort -z | xargs -0 getfattr -h -d -m '^(user|trusted)\.' 2>/dev/null); }

same() {
  compare_trees "$1" "$2"
  [ "$(attributes "$1")" = "$(attributes "$2")" ] || fail "the extended attributes of $1 and $2 differ"
}

make_source "$T/source"
start_soak

mkdir "$T/mnt/tar" "$T/mnt/rsync" "$T/back"
tar -C "$T/source" --xattrs -cf - . | tar -C "$T/mnt/tar" --xattrs -xpf -
tar -C "$T/source" -cf - . | tar -C "$T/mnt/tar" -df - || fail "tar finds differences"
tar -C "$T/mnt/tar" --xattrs -cf - . | (mkdir "$T/back/tar" && tar -C "$T/back/tar" --xattrs -xpf -)
same "$T/source" "$T/back/tar"

rsync -aHAXS "$T/source/" "$T/mnt/rsync/"
rsync -aHAX "$T/mnt/rsync/" "$T/back/rsync/"
same "$T/source" "$T/back/rsync"
differences=$(rsync -aHAX --checksum --itemize-changes --dry-run "$T/source/" "$T/mnt/rsync/")
[ -z "$differences" ] || fail "rsync finds differences: $differences"

# The second time only what has changed is sent, in place and by renaming, and what is gone goes.
(cd "$T/source" && rm -r many/1* && echo more >>many/20 && mv large larger && chmod 600 sparse &&
  dd if=/dev/urandom of=larger bs=4096 seek=100 count=3 conv=notrunc status=none)
old_times "$T/source" '1970-01-01 00:00:01.987654'
rsync -aHAX --delete --no-whole-file "$T/source/" "$T/mnt/rsync/"
rsync -aHAX --delete --no-whole-file --inplace "$T/source/" "$T/mnt/tar/"
for copy in tar rsync; do same "$T/source" "$T/mnt/$copy"; done
end_soak
