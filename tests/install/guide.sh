#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# docs/guide.md: each command in it is typed and prints what the guide says, with the programs and the files as they are
# installed. A mount namespace of the test's own has the directories that the guide names; stand-ins do what apt and
# systemctl would: the installation is there, and the units' commands are started as they say. `make test-packages` does the
# same with Debian's own.
if [ "${TARN_TEST_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can have a mount namespace"; exit 77; }
  TARN_TEST_NAMESPACE=1 exec unshare --mount --propagation slave bash "$0" "$@"
fi
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/install.bash"

mkdir "$T/tmpfs"
mount -t tmpfs -o mode=755 own "$T/tmpfs"
mkdir "$T"/tmpfs/{etc,etc-work,srv,mnt,lib,run,bin}
mount -t overlay overlay -o "lowerdir=$ROOT/usr:/usr" /usr
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$T/tmpfs/etc,workdir=$T/tmpfs/etc-work" /etc
: >/etc/fstab
mkdir -p /etc/tarn /var/lib/tarn # the package and the unit make them
mount --bind "$T/tmpfs/srv" /srv
mount --bind "$T/tmpfs/mnt" /mnt
mount --bind "$T/tmpfs/lib" /var/lib/tarn
mount --bind "$T/tmpfs/run" /run

STAND_INS=$T/tmpfs/bin
cat >"$STAND_INS/apt" <<'STAND_IN'
#!/bin/sh
echo "apt $*"
STAND_IN
cat >"$STAND_INS/systemctl" <<'STAND_IN'
#!/bin/bash
set -eu
verb=$1 unit=${*: -1}
process() { cat /run/unit.pid; }
command_of() { sed -n 's/^ExecStart=//p' "/usr/lib/systemd/system/$1.service"; }
start() {
  [ -e /etc/tarn/mirrord.toml ]
  setsid $(command_of mirrord) </dev/null >>"$UNIT_LOG" 2>&1 9>&- &
  echo $! >/run/unit.pid
}
stop() {
  kill "-$1" "$(process)"
  while kill -0 "$(process)" 2>/dev/null; do sleep 0.05; done
}
case "$verb $unit" in
  "daemon-reload daemon-reload") ;;
  "enable mirrord" | "start mirrord") start ;;
  "stop mirrord") stop TERM ;;
  "restart mirrord") stop TERM; start ;;
  "kill mirrord") stop KILL; start ;;
  "enable mirrord-verify.timer") grep -q '^WantedBy=' "/usr/lib/systemd/system/$unit" ;;
  "start mirrord-verify") $(command_of mirrord-verify) >/dev/null ;;
  *) echo "the stand-in does not know: $*" >&2; exit 1 ;;
esac
STAND_IN
chmod 755 "$STAND_INS"/*

unset TARN_RUN_DIR TARN_STATE_DIR
export PATH="$STAND_INS:/usr/bin:/usr/sbin:/bin:/sbin" UNIT_LOG="$T/service.err"
cleanup_test() {
  [ ! -e /run/unit.pid ] || kill "$(cat /run/unit.pid)" 2>/dev/null
  umount -q -l /mnt/data
  mountpoint -q "$T/tmpfs" && umount -l /usr /etc /srv /mnt /var/lib/tarn /run "$T/tmpfs"
}
export TARN_RUN_DIR=/run/tarn # what lib.sh ends
env -u TARN_RUN_DIR python3 "$HERE/install/guide.py" "$HERE/../docs/guide.md" bash

python3 "$HERE/install/guide_messages.py" "$HERE/../docs/guide.md" "$HERE/../mirrord"

# All that the guide refers to is there.
DOCS=$HERE/../docs
grep -o '](\([a-z_]*\.md\)\?#[a-z-]*)' "$DOCS/guide.md" | tr -d '()]' | sort -u >"$T/links"
[ "$(wc -l <"$T/links")" -ge 5 ] || fail "the guide refers to nothing"
while IFS='#' read -r file heading; do
  sed -n 's/^#\+ //p' "$DOCS/${file:-guide.md}" | tr '[:upper:]' '[:lower:]' | tr -cd 'a-z0-9_ \n-' | tr ' ' '-' >"$T/headings"
  grep -qx -- "$heading" "$T/headings" || fail "the guide refers to ${file:-guide.md}#$heading, which is not there"
done <"$T/links"
