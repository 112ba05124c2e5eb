#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# How mounts come and go: several at once, busy ones, ones that somebody else unmounts, and none left behind by a
# tarnd that is killed.
. "$(dirname "$0")/../lib.sh"

mounted() { grep -q " $1 .* - fuse.tarn " /proc/self/mountinfo; }
not_mounted() { ! mounted "$1"; }
pid() { cat "$TARN_RUN_DIR/tarnd.pid"; }

mkdir "$T/lower2"
tarn mount "$T/lower" "$T/mnt"
mkdir "$T/mnt/inner"
tarn mount "$T/lower2" "$T/mnt/inner"
echo two >"$T/mnt/inner/f"
cmp "$T/mnt/inner/f" "$T/lower2/f"
sleep 1.2 # then the host asks again what the mount point is
cmp "$T/mnt/inner/f" "$T/lower2/f" || fail "a mount inside a mount has gone"
first=$(pid)
expect_error "busy" tarn umount "$T/mnt"
expect_error "mounted already" tarn mount "$T/lower2" "$T/mnt/inner"
tarn umount "$T/mnt/inner"
not_mounted "$T/mnt/inner" || fail "the inner mount is still there"
[ "$(pid)" = "$first" ] || fail "not one tarnd for all mounts"

# A file that is open keeps the mount, until it is unmounted lazily; what is open goes on working.
exec 7>"$T/mnt/open"
expect_error "busy" tarn umount "$T/mnt"
tarn umount --lazy "$T/mnt"
not_mounted "$T/mnt" || fail "a lazy unmount left the mount in place"
echo late >&7
exec 7>&-
[ "$(cat "$T/lower/open")" = late ] || fail "a write after a lazy unmount was lost"
wait_until 10 "the place is free again" tarn mount "$T/lower" "$T/mnt"

# Somebody else's umount is as good.
umount "$T/mnt"
wait_until 10 "the place is free again" tarn mount "$T/lower" "$T/mnt"

# The lower directory may hold the mount point, or be it.
tarn mount "$T/lower" "$T/lower"
echo x >"$T/lower/x"
cmp "$T/lower/x" "$T/mnt/x"
tarn umount "$T/lower"

# What a tarnd that was killed leaves refuses everything: nothing is written to the bare directory below. The next mount
# takes its place; so does whoever unmounts it.
dead() { mounted "$1" && ! stat "$1" 2>/dev/null; }
kill_tarnd() {
  kill -KILL "$(pid)"
  wait_until 10 "the mount refuses" dead "$T/mnt"
}
mkdir "$T/mnt/inside"
cd "$T/mnt/inside"
kill_tarnd
if touch "$T/mnt/unseen" 2>/dev/null; then fail "a file was made under a mount that is dead"; fi
if touch unseen 2>/dev/null; then fail "a file was made in a mount that is dead"; fi
cd "$T"
tarn mount "$T/lower" "$T/mnt"
[ "$(cat "$T/mnt/open")" = late ] || fail "the mount after the restart shows something else"
[ "$(grep -c " $T/mnt .* - fuse.tarn " /proc/self/mountinfo)" -eq 1 ] || fail "the dead mount is still there"
kill_tarnd
if [ "$(id -u)" -eq 0 ]; then umount "$T/mnt"; else fusermount3 -u "$T/mnt"; fi
[ -z "$(ls -A "$T/mnt")" ] || fail "something was written to the bare directory"
tarn mount "$T/lower2" "$T/mnt"
kill_tarnd
tarn mount "$T/lower" "$T/lower"
tarn umount "$T/mnt"
not_mounted "$T/mnt" || fail "the dead mount is not unmounted"
tarn umount "$T/lower"

# A second tarnd in one run directory, and a run directory that cannot be, are told on the terminal.
expect_error "runs already" tarnd --run-dir "$TARN_RUN_DIR"
expect_error "Not a directory" tarnd --run-dir "$T/lower/open/run"
