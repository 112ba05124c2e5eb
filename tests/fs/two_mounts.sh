#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Two mounts of one directory, and a third of one inside it: what is made, moved or removed through one of them is seen
# by who names it through the others, at once and whatever he had looked at before.
. "$(dirname "$0")/../lib.sh"

mkdir "$T/other" "$T/inner" "$T/lower/sub"
cleanup_test() { umount -l "$T/other" "$T/inner" 2>/dev/null; }
tarn mount --cache 0 "$T/lower" "$T/mnt"
tarn mount --cache 0 "$T/lower" "$T/other"
tarn mount --cache 0 "$T/lower/sub" "$T/inner"
sub="$T/mnt/sub"

mkdir "$sub/dir" "$sub/to"
for name in moved removed replaced kept dir/inside to/over; do echo "$name" >"$sub/$name"; done
others() { printf '%s\n' "$T/other/sub" "$T/inner"; }
is() { [ "$(cat "$1")" = "$2" ] || fail "$1 holds $(cat "$1") instead of $2"; }
isnt() { [ ! -e "$1" ] || fail "$1 is still there"; }

for there in $(others); do
  for name in moved removed replaced kept dir/inside to/over; do is "$there/$name" "$name"; done
  for name in new new-dir new-name to/kept to/dir link; do isnt "$there/$name"; done
done

echo new >"$sub/new"
mkdir "$sub/new-dir"
mv "$sub/moved" "$sub/new-name"
rm "$sub/removed"
mv "$sub/to/over" "$sub/replaced"
mv "$sub/kept" "$sub/to/kept" # the same name in another directory
mv "$sub/dir" "$sub/to/dir"
ln "$sub/new" "$sub/link"

for there in $(others); do
  is "$there/new" new
  is "$there/link" new
  [ -d "$there/new-dir" ] || fail "$there/new-dir is not there"
  is "$there/new-name" moved
  is "$there/replaced" to/over
  is "$there/to/kept" kept
  is "$there/to/dir/inside" dir/inside
  for name in moved removed kept to/over dir dir/inside; do isnt "$there/$name"; done
done

# What is appended to the old name is a file of its own, and the new name's file has what is appended to that.
echo appended >>"$T/other/sub/moved"
echo more >>"$T/inner/new-name"
is "$T/lower/sub/moved" appended
is "$T/lower/sub/new-name" $'moved\nmore'
is "$sub/moved" appended

# Who has the file open, or is in the directory, stays with it.
(
  cd "$T/other/sub/to/dir"
  exec 5>>inside
  mv "$sub/to/dir" "$sub/away"
  mv "$sub/away/inside" "$sub/away/renamed"
  ls "$T/other/sub/to" "$T/other/sub/away" >/dev/null
  echo open >&5
  echo here >made
) || fail "in a directory that was moved"
is "$T/lower/sub/away/renamed" $'dir/inside\nopen'
is "$T/lower/sub/away/made" here
isnt "$T/other/sub/to/dir"
is "$T/other/sub/away/made" here

for where in inner other mnt; do tarn umount "$T/$where" || fail "umount of $where"; done
