#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A tarnd of an ordinary user: mounted by fusermount3, with what the user may do below and no more, closed to everybody
# else, replicated by the user's own mirrord; and what he is told when the machine does not let him mount.
if [ "$(id -u)" -ne 0 ]; then
  echo "skipped: only root can be somebody else" >&2
  exit 77
fi
# A mount name space of its own, for a /dev/fuse that users may open.
[ -n "${TARN_AS_USER:-}" ] || TARN_AS_USER=1 exec unshare --mount --propagation slave bash "$0" "$@"
. "$(dirname "$0")/../lib.sh"

ME=65534 OTHER=12345
chmod 755 "$T"
mkdir "$T/dev" "$TARN_STATE_DIR"
chown -R $ME:$ME "$T/lower" "$T/mnt" "$T/replica" "$T/run" "$TARN_STATE_DIR"
as() {
  local uid=$1
  shift
  setpriv --reuid="$uid" --regid="$uid" --clear-groups "$@"
}
me() { as $ME "$@"; }
me tarn --version >/dev/null || { echo "skipped: other users cannot get at $BUILD" >&2; exit 77; }

cleanup_test() {
  umount -l "$T/mnt" 2>/dev/null
  umount /dev/fuse "$T/dev"
}
mount -t tmpfs -o mode=755,size=1m tarn-dev "$T/dev"
mknod "$T/dev/fuse" c "0x$(stat -c %t /dev/fuse)" "0x$(stat -c %T /dev/fuse)"
chmod 666 "$T/dev/fuse"
mount --bind "$T/dev/fuse" /dev/fuse

mounted() { grep " $T/mnt .* - fuse.tarn " /proc/self/mountinfo; }
not_mounted() { ! mounted >/dev/null; }
pid() { cat "$TARN_RUN_DIR/tarnd.pid"; }
is() { [ "$2" = "$3" ] || fail "$1: '$3' instead of '$2'"; }

# Where he may not mount he is told why, or where that stands.
chmod 600 "$T/dev/fuse"
expect_error "/dev/fuse: Permission denied" me tarn mount "$T/lower" "$T/mnt"
chmod 666 "$T/dev/fuse"
mkdir "$T/of-root"
expect_error "tarnd.log" me tarn mount "$T/lower" "$T/of-root"
grep -q "no write access to mountpoint $T/of-root" "$TARN_RUN_DIR/tarnd.log" || fail "the log does not say why"

me tarn mount "$T/lower" "$T/mnt"
for option in nosuid nodev "user_id=$ME"; do
  case $(mounted) in *"$option"*) ;; *) fail "mounted without $option: $(mounted)" ;; esac
done

# His mount is his alone, and so is its configuration; root's is only the latter.
for uid in 0 $OTHER; do
  if as "$uid" ls "$T/mnt" 2>/dev/null; then fail "user $uid may look into the mount"; fi
done
if as $OTHER tarn rule add --include "$T/lower" 2>/dev/null; then fail "another user may add a rule"; fi
if as $OTHER tarn umount "$T/mnt" 2>/dev/null; then fail "another user may unmount"; fi
tarn rule add --include "$T/lower" >/dev/null
[ "$(me tarn rule list | wc -l)" -gt 0 ] || fail "the user does not see the rule that root has added"

setpriv --reuid=$ME --regid=$ME --clear-groups mirrord --source "$T/lower" --replica "$T/replica" 2>"$T/mirrord.err" &
MIRRORD_PID=$!
wait_until 30 "mirrord is registered" eval '[ "$(registrations)" -gt 0 ]'
me mirrord wait --timeout 60 || fail "the first copy"
if as $OTHER mirrord wait 2>/dev/null; then fail "another user may ask mirrord"; fi

# What he may below, he may on the mount; what he may not there, he may not here.
echo secret >"$T/lower/secret"
chmod 600 "$T/lower/secret"
me bash -e -c 'cd "$1"; echo text >f; cat f >copy; mkdir d; mv f d; ln d/f hard; ln -s hard soft; chmod 640 hard
  printf more >>soft; truncate -s 3 copy; mkfifo fifo; touch -d 2001-02-03 copy; rm fifo' - "$T/mnt"
is "content" "$(printf 'text\nmore')" "$(cat "$T/lower/d/f")"
is "mode, owner, links" "640 $ME 2" "$(stat -c '%a %u %h' "$T/lower/hard")"
refused() {
  local what=$1 answer
  shift
  if answer=$(me "$@" 2>&1); then fail "he may $what"; fi
  case $answer in *"ermission denied"* | *"not permitted"*) ;; *) fail "$what: $answer" ;; esac
}
refused "read a file of root's" cat "$T/mnt/secret"
refused "write a file of root's" bash -c 'echo x >"$1"' - "$T/mnt/secret"
refused "chmod a file of root's" chmod 644 "$T/mnt/secret"
refused "give a file away" chown 0 "$T/mnt/copy"
refused "make a device" mknod "$T/mnt/device" c 1 3
is "root's file" "secret 600 0" "$(cat "$T/lower/secret") $(stat -c '%a %u' "$T/lower/secret")"

rm "$T/lower/secret"
wait_caught_up
compare_trees "$T/lower" "$T/replica"
no_gap
stop_mirrord

# What a killed tarnd leaves refuses, until the next mount takes its place.
me tarn umount "$T/mnt"
not_mounted || fail "it is still mounted"
me tarn mount "$T/lower" "$T/mnt"
kill -KILL "$(pid)"
wait_until 10 "the mount refuses" eval '! me stat "$T/mnt"'
not_mounted && fail "a tarnd that was killed left the bare directory"
me tarn mount "$T/lower" "$T/mnt"
is "after the restart" "$(printf 'text\nmore')" "$(me cat "$T/mnt/soft")"
me tarn umount "$T/mnt"
