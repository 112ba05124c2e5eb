#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What the mount below forbids is forbidden on ours: set-user-id programs, devices, running programs at all. What it
# allows is allowed.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount that" >&2; exit 77; }

cleanup_test() {
  umount -l "$T/mnt" "$T/lower/inside" 2>/dev/null
  umount -l "$T/lower"
}
options_of() { awk -v place="$T/mnt" '$5 == place {print $6}' /proc/self/mountinfo; }
# as_below OPTION WANTED...: mounts over a file system with that option; the mount's options must hold WANTED, or not.
as_below() {
  local option=$1 wanted=$2
  mount -t tmpfs -o "size=1m,$option" tarn-lower "$T/lower"
  tarn mount "$T/lower" "$T/mnt"
  case ",$(options_of)," in
    *",no${option#no},"*) [ "$wanted" = refused ] || fail "$option below: $(options_of)" ;;
    *) [ "$wanted" = allowed ] || fail "$option below: $(options_of)" ;;
  esac
}
leave() {
  tarn umount "$T/mnt"
  umount -l "$T/lower"
}

for option in suid dev exec; do
  as_below $option allowed
  leave
  as_below no$option refused
  leave
done

# What is mounted inside shows through as well.
for option in suid dev; do
  mkdir -p "$T/lower/inside"
  mount -t tmpfs -o "size=1m,no$option" tarn-inside "$T/lower/inside"
  tarn mount "$T/lower" "$T/mnt"
  case ",$(options_of)," in *",no$option,"*) ;; *) fail "no$option inside: $(options_of)" ;; esac
  tarn umount "$T/mnt"
  umount -l "$T/lower/inside"
done
as_below nodev refused
mknod -m 666 "$T/mnt/null" c 1 3
if cat "$T/mnt/null" 2>/dev/null; then fail "a device can be opened"; fi
leave
as_below dev allowed
mknod -m 666 "$T/mnt/null" c 1 3
cat "$T/mnt/null" || fail "a device cannot be opened"
leave
as_below nosuid refused
install -m 4755 "$(command -v id)" "$T/mnt/id"
[ "$(setpriv --reuid=12345 --clear-groups "$T/mnt/id" -u)" = 12345 ] || fail "a set-user-id program has its owner's rights"
leave
as_below suid allowed
chmod 755 "$T"
install -m 4755 "$(command -v id)" "$T/mnt/id"
[ "$(setpriv --reuid=12345 --clear-groups "$T/mnt/id" -u)" = 0 ] || fail "a set-user-id program has not its owner's rights"
