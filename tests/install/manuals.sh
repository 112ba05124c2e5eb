#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Every program has a manual; no manual has a fault that mandoc or groff would tell, and each refers to manuals that exist.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/install.bash"

man=$ROOT/usr/share/man
for program in "$ROOT"/usr/bin/* "$ROOT"/usr/sbin/*; do
  name=${program##*/}
  case $name in mount.fuse.tarn | umount.fuse.tarn) name=mount.tarn ;; esac
  [ -e "$man/man1/$name.1" ] || [ -e "$man/man8/$name.8" ] || fail "$name has no manual"
done
[ -e "$man/man3/libtarn.3" ] || fail "the library has no manual"

# groff first, for it knows all; mandoc's advice on style is left to taste.
for page in "$man"/man*/*; do
  said=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings=all,w -E UTF-8 -l -Tutf8 "$page" 2>&1 >/dev/null || true)
  [ -z "$said" ] || fail "${page##*/}: $said"
  said=$(mandoc -T lint -W warning "$page" 2>&1 | grep -v 'outdated mandoc.db' || true)
  [ -z "$said" ] || fail "${page##*/}: $said"
  while read -r _ name section _; do
    [ -e "$man/man$section/$name.$section" ] && continue
    case $name in mount | umount | fstab | systemd | systemd.mount | systemd.service | fusermount3) continue ;; esac
    fail "${page##*/} refers to $name($section), which is no manual"
  done < <(grep '^\.Xr ' "$page")
done
printf '.Dd x\n.Nm x\n.Foo\n' >"$T/broken.8"
mandoc -T lint -W warning "$T/broken.8" >/dev/null 2>&1 && fail "mandoc finds no fault in a broken manual"
true
