#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# mount(8), umount(8) and fstab with what they call in /sbin. The test has a mount namespace of its own, where /etc/fstab
# and /sbin show its files; the machine's own are not touched.
if [ "${TARN_TEST_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can have a mount namespace"; exit 77; }
  TARN_TEST_NAMESPACE=1 exec unshare --mount --propagation slave bash "$0" "$@"
fi
. "$(dirname "$0")/../lib.sh"

mkdir "$T/sbin"
cp -P "$BUILD"/packaging/mount/{mount.tarn,mount.fuse.tarn,umount.fuse.tarn} "$T/sbin"
ln -s "$BUILD/tarnd/tarnd" "$T/sbin" # mount(8) passes no PATH on
mount -t overlay overlay -o "lowerdir=$T/sbin:$(readlink -f /sbin)" "$(readlink -f /sbin)"
: >"$T/fstab"
mount --bind "$T/fstab" /etc/fstab

cleanup_test() { umount -q "$T/below" /dev/fuse "$T/dev"; }

# umount(8) keeps notes there.
mount -t tmpfs run /run

type_of() { sed -n "s|.* $1 .* - \([^ ]*\) .*|\1|p" /proc/self/mountinfo; }
not_mounted() { [ -z "$(type_of "$1")" ]; }
# expect_status STATUS TEXT COMMAND...: its exit status, and one line on stderr that holds TEXT.
expect_status() {
  local wanted=$1 text=$2 status=0
  shift 2
  "$@" >/dev/null 2>&1 || status=$?
  [ "$status" -eq "$wanted" ] || fail "$*: exit status $status, not $wanted"
  expect_error "$text" "$@"
}

# The command, and what it starts.
mount -t tarn "$T/lower" "$T/mnt"
[ "$(type_of "$T/mnt")" = fuse.tarn ] || fail "the mount has the type '$(type_of "$T/mnt")'"
echo hello >"$T/mnt/file"
cmp "$T/mnt/file" "$T/lower/file"

# What is mounted is not mounted anew with other options, and stays as it is.
expect_status 1 "cannot remount $T/mnt" mount -o remount "$T/mnt"
expect_status 1 "cannot remount" mount -t tarn -o remount,rw "$T/lower" "$T/mnt"
cmp "$T/mnt/file" "$T/lower/file"

# A mount in use is not unmounted, unless lazily.
exec 7>"$T/mnt/open"
expect_status 32 "busy" umount "$T/mnt"
umount -l "$T/mnt"
not_mounted "$T/mnt" || fail "a lazy unmount left the mount in place"
exec 7>&-

# When umount(8) returns, the lower file system is free.
mkdir "$T/below"
for _ in $(seq 20); do
  mount -t tmpfs below "$T/below"
  mkdir "$T/below/dir"
  mount -t tarn "$T/below/dir" "$T/mnt"
  echo x >"$T/mnt/f"
  umount "$T/mnt"
  umount "$T/below" || fail "tarnd holds the lower file system after umount"
done
[ ! -s /run/mount/utab ] || fail "notes are left behind: $(cat /run/mount/utab)"

# What is refused is named, with the exit status that mount(8) documents, and nothing is mounted.
for option in ro noexec nosuid nodev noatime sync; do
  expect_status 1 "option $option is not possible" mount -t tarn -o "$option" "$T/lower" "$T/mnt"
done
expect_status 1 "no mount option weird=1" mount -t tarn -o rw,weird=1 "$T/lower" "$T/mnt"
for cache in "" x -1 1e3 3601 "1 " inf 0x1 1.2.3; do
  expect_status 1 "number of seconds" mount -t tarn -o "cache=$cache" "$T/lower" "$T/mnt"
done
expect_status 32 "does not exist" mount -t tarn "$T/missing" "$T/mnt"
expect_status 32 "not a directory" mount -t tarn "$T/lower/file" "$T/mnt"
expect_status 1 "type ext4 is not tarn's" mount.tarn "$T/lower" "$T/mnt" -t ext4
expect_status 1 "namespace" mount.tarn "$T/lower" "$T/mnt" -N /proc/self/ns/mnt
expect_status 1 "--weird is not known" mount.tarn "$T/lower" "$T/mnt" --weird
expect_status 1 "MOUNTPOINT" mount.tarn "$T/lower"
expect_status 1 "namespace" umount.fuse.tarn "$T/mnt" -N /proc/self/ns/mnt
expect_status 32 "Invalid argument" umount.fuse.tarn "$T/mnt"
not_mounted "$T/mnt" || fail "a refused mount was made"
mount -s -t tarn -o weird=1 "$T/lower" "$T/mnt" # sloppy
umount -n -v "$T/mnt" >/dev/null
not_mounted "$T/mnt" || fail "it is still mounted"

# A fake mount looks at everything, and starts nothing.
tarn stop
mount -f -t tarn "$T/lower" "$T/mnt"
expect_status 32 "does not exist" mount -f -t tarn "$T/missing" "$T/mnt"
not_mounted "$T/mnt" || fail "a fake mount was made"
[ ! -e "$TARN_RUN_DIR/control" ] || fail "a fake mount started tarnd"

# Lines of fstab, with blanks in names and all options that are for others; the cache time is the one of the line.
mkdir "$T/with space" "$T/at once" "$T/late"
touch "$T/with space/there"
options=defaults,nofail,_netdev,noauto,comment=a,x-systemd.requires=tarnd.service,x-systemd.mount-timeout=5s,x-gvfs-hide
cat >"$T/fstab" <<TABLE
# a comment
$T/lower $T/mnt tarn defaults 0 0
${T}/with\\040space ${T}/at\\040once tarn $options,cache=0 0 0
${T}/with\\040space $T/late tarn defaults,cache=600 0 0
TABLE
mount -a
[ "$(type_of "$T/mnt")$(type_of "$T/late")" = fuse.tarnfuse.tarn ] || fail "mount -a did not mount all lines"
mount -a # what is there stays
[ "$(grep -c " $T/.* - fuse.tarn " /proc/self/mountinfo)" -eq 2 ] || fail "mount -a mounted twice, or a line with noauto"
mount "$T/at once"
[ -e "$T/at once/there" ] || fail "the mount with a blank in its name shows something else"
[ ! -e "$T/at once/new" ] && [ ! -e "$T/late/new" ]
touch "$T/with space/new"
[ -e "$T/at once/new" ] || fail "cache=0 is not heeded"
[ ! -e "$T/late/new" ] || fail "cache=600 is not heeded"
umount "$T/at once"
umount "$T/late"
umount "$T/mnt"

# As systemd calls them, from what it makes of the table.
generator=/usr/lib/systemd/system-generators/systemd-fstab-generator
if [ -x "$generator" ]; then
  mkdir "$T/units"
  "$generator" "$T/units" "$T/units" "$T/units"
  unit="$T/units/$(systemd-escape --path --suffix=mount "$T/late")"
  grep -qx "Type=tarn" "$unit" || fail "the unit has another type: $(cat "$unit")"
  of_unit() { sed -n "s/^$1=//p" "$unit"; }
  mount "$(of_unit What | sed 's/\\x20/ /g')" "$(of_unit Where)" -t "$(of_unit Type)" -o "$(of_unit Options)"
  [ -e "$T/late/there" ] || fail "the unit's mount shows something else"
  umount "$T/late" -c
  not_mounted "$T/late" || fail "systemd's umount did not unmount"
fi

# The dead mount of a killed tarnd: it can be unmounted, with and without force, and be mounted again.
dead() { ! stat "$T/mnt" 2>/dev/null; }
for how in "" -f -l; do
  mount "$T/mnt"
  kill -KILL "$(cat "$TARN_RUN_DIR/tarnd.pid")"
  wait_until 10 "the mount refuses" dead
  umount ${how:+"$how"} "$T/mnt"
  not_mounted "$T/mnt" || fail "umount $how left the dead mount"
done
# One that is killed while it is asked.
for _ in 1 2 3; do
  mount "$T/mnt"
  kill -STOP "$(cat "$TARN_RUN_DIR/tarnd.pid")"
  umount.fuse.tarn "$T/mnt" &
  asking=$!
  sleep 0.2
  kill -KILL "$(cat "$TARN_RUN_DIR/tarnd.pid")"
  wait "$asking" || fail "umount failed when tarnd was killed"
  not_mounted "$T/mnt" || fail "umount left the mount of a tarnd that was killed meanwhile"
done
mount "$T/mnt"
kill -KILL "$(cat "$TARN_RUN_DIR/tarnd.pid")"
wait_until 10 "the mount refuses" dead
mount -t tarn "$T/lower" "$T/mnt"
cmp "$T/mnt/file" "$T/lower/file"
umount "$T/mnt"

# A mount of a tarnd that serves another run directory.
(TARN_RUN_DIR=$T/run2 tarn mount "$T/lower" "$T/mnt")
umount "$T/mnt"
not_mounted "$T/mnt" || fail "the mount of the other tarnd is still there"
TARN_RUN_DIR=$T/run2 tarn stop

# An ordinary user's own mount, with what fstab's "user" adds.
chmod 755 "$T"
mkdir "$T/dev"
mount -t tmpfs -o mode=755,size=1m dev "$T/dev"
mknod -m 666 "$T/dev/fuse" c "0x$(stat -c %t /dev/fuse)" "0x$(stat -c %T /dev/fuse)"
mount --bind "$T/dev/fuse" /dev/fuse
install -d -o 65534 -g 65534 "$T/user" "$T/user/lower" "$T/user/mnt"
as_user() { setpriv --reuid 65534 --regid 65534 --clear-groups env TARN_RUN_DIR="$T/user/run" PATH="$PATH" "$@"; }
as_user mount.tarn "$T/user/lower" "$T/user/mnt" -o rw,nosuid,nodev,user=nobody
[ "$(type_of "$T/user/mnt")" = fuse.tarn ] || fail "an ordinary user's mount is not there"
as_user umount.fuse.tarn "$T/user/mnt"
not_mounted "$T/user/mnt" || fail "an ordinary user's mount is still there"
as_user tarn stop

# With the module in the kernel, mount(8) does it all, and gets what it was given.
tarn stop
mkdir "$T/fake"
cat >"$T/fake/mount" <<'FAKE'
#!/bin/sh
printf '%s\n' "$@" >"$FAKE_LOG"
FAKE
chmod 755 "$T/fake/mount"
sed 's/$//; $a nodev\ttarn' /proc/filesystems >"$T/filesystems"
mount --bind "$T/filesystems" /proc/filesystems
(
  unset TARN_RUN_DIR
  FAKE_LOG=$T/log PATH=$T/fake:$PATH /sbin/mount.tarn "$T/lower" "$T/mnt" -s -n -o ro,weird -o noatime
)
printf '%s\n' -i -t tarn -n -s -o ro,weird,noatime -- "$T/lower" "$T/mnt" | cmp - "$T/log" ||
  fail "mount(8) was called with: $(tr '\n' ' ' <"$T/log")"
umount /proc/filesystems
