#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# docs/guide.md: each command in it is typed and prints what the guide says, with the programs and the files as they are
# installed. A mount namespace of the test's own has the directories that the guide names; stand-ins do what apt and
# systemctl would: the installation is there, and the units' commands are started as they say. `make test-packages` does the
# same with Debian's own.
if [ "${TARN_TEST_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can have a mount namespace"; exit 77; }
  TARN_TEST_NAMESPACE=1 exec unshare --mount --propagation slave --net bash "$0" "$@"
fi
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/install.bash"

mkdir "$T/tmpfs"
mount -t tmpfs -o mode=755 own "$T/tmpfs"
mkdir -p "$T"/tmpfs/{etc,etc-work,srv,mnt,lib/tarn,lib/tarn-replica,run,bin}
mount -t overlay overlay -o "lowerdir=$ROOT/usr:/usr" /usr
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$T/tmpfs/etc,workdir=$T/tmpfs/etc-work" /etc
: >/etc/fstab
mkdir -p /etc/tarn # the package makes it
if ! grep -q '^tarn-replica:' /etc/passwd; then
  echo 'tarn-replica:x:64001:64001::/:/usr/sbin/nologin' >>/etc/passwd
  echo 'tarn-replica:x:64001:' >>/etc/group
fi
grep -q '^nats:' /etc/passwd || echo 'nats:x:64002:65534::/:/usr/sbin/nologin' >>/etc/passwd
echo '127.0.0.1 localhost near far' >/etc/hosts
ip link set lo up
mount --bind "$T/tmpfs/srv" /srv
mount --bind "$T/tmpfs/mnt" /mnt
mount --bind "$T/tmpfs/lib" /var/lib
chown tarn-replica /var/lib/tarn-replica
chmod 700 /var/lib/tarn-replica
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
process() { cat "/run/$1.pid"; }
file_of() { echo "/usr/lib/systemd/system/$1.service"; }
command_of() { sed -n 's/^ExecStart=//p' "$(file_of "$1")"; }
# start UNIT [COMMAND...]: with a command that runs it
start() {
  local unit=$1
  shift
  setsid "$@" $(command_of "$unit") </dev/null >>"$UNIT_LOG" 2>&1 9>&- &
  echo $! >"/run/$unit.pid"
}
stop() { # UNIT SIGNAL
  kill "-$2" "$(process "$1")"
  while kill -0 "$(process "$1")" 2>/dev/null; do sleep 0.05; done
}
as_replica() {
  local capabilities
  capabilities=$(sed -n 's/^AmbientCapabilities=//p' "$(file_of mirrord-replica)" | tr 'A-Z ' 'a-z,' | sed 's/cap_/+/g')
  [ -e /etc/tarn/replica.toml ]
  start mirrord-replica setpriv --reuid tarn-replica --regid tarn-replica --clear-groups --inh-caps "$capabilities" \
    --ambient-caps "$capabilities"
}
case "$verb $unit" in
  "daemon-reload daemon-reload") ;;
  "enable mirrord" | "start mirrord") start mirrord ;;
  "stop mirrord") stop mirrord TERM ;;
  "restart mirrord") stop mirrord TERM; start mirrord ;;
  "kill mirrord") stop mirrord KILL; start mirrord ;;
  "restart nats-server") start nats-server setpriv --reuid nats --clear-groups ;;
  "stop nats-server") stop mirrord TERM; stop nats-server TERM ;; # both are named
  "enable mirrord-replica") as_replica ;;
  "stop mirrord-replica") stop mirrord-replica TERM ;;
  "enable mirrord-verify.timer") grep -q '^WantedBy=' "/usr/lib/systemd/system/$unit" ;;
  "start mirrord-verify") $(command_of mirrord-verify) >/dev/null ;;
  *) echo "the stand-in does not know: $*" >&2; exit 1 ;;
esac
STAND_IN
chmod 755 "$STAND_INS"/*

unset TARN_RUN_DIR TARN_STATE_DIR
export PATH="$STAND_INS:/usr/bin:/usr/sbin:/bin:/sbin" UNIT_LOG="$T/service.err"
cleanup_test() {
  local pid
  for pid in mirrord mirrord-replica nats-server; do
    [ ! -e "/run/$pid.pid" ] || kill "$(cat "/run/$pid.pid")" 2>/dev/null
  done
  umount -q -l /mnt/data
  mountpoint -q "$T/tmpfs" && umount -l /usr /etc /srv /mnt /var/lib /run "$T/tmpfs"
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
