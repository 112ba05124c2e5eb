#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The Debian packages of build/packages in a Debian 12 of their own, that systemd runs in a container: an older version is
# installed, used, and upgraded while a program writes; the machine is booted anew; all of docs/guide.md is typed, which
# removes them at its end; nothing is left but data. Needs root, and Debian's archive.
set -euo pipefail
HERE=$(cd "$(dirname "$0")/.." && pwd)
PACKAGES=$HERE/build/packages
T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-packages.XXXXXX")
ROOT=$T/root
container=
leader=

say() { printf 'packages: %s\n' "$*"; }
fail() {
  say "FAILED: $*" >&2
  [ -z "$leader" ] || in_root journalctl --no-pager -n 60 -u mirrord -u tarnd -u mirrord-verify -u mnt-data.mount >&2 || true
  exit 1
}
# In a call of its own: the container's processes must not survive, and its root not be removed while they run.
power_off() {
  [ -n "$container" ] || return 0
  in_root systemctl --no-block poweroff || kill "$container"
  wait "$container" || true
  container='' leader=''
}
finish() {
  local status=$?
  set +e
  power_off
  rm -rf --one-file-system "$T"
  exit $status
}
trap finish EXIT

in_root() { nsenter --all --target "$leader" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"; }
wait_until() {
  local deadline=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || fail "timed out: $what"
    sleep 0.2
  done
}

# The process that is number 1 in the container, which is below the one that was started.
find_leader() {
  leader=$(ps -e -o pid=,ppid=,comm= | awk -v top="$container" '{ parent[$1] = $2; name[$1] = $3 }
    END { for (p in parent) if (name[p] == "systemd") for (q = parent[p]; q > 1; q = parent[q]) if (q == top) print p }' |
    head -n 1)
  [ -n "$leader" ] && in_root systemctl is-system-running | grep -E 'running|degraded'
}
boot() {
  systemd-nspawn --quiet --directory="$ROOT" --machine=tarn-packages --register=no --keep-unit --private-network \
    --bind=/dev/fuse --boot </dev/null >>"$T/boot.log" 2>&1 &
  container=$!
  wait_until 90 "the container has started: $(tail -n 3 "$T/boot.log")" find_leader
}

# older PACKAGE: the same with a lower version.
older() {
  local folder
  folder=$T/old-$(basename "$1" .deb)
  dpkg-deb -R "$1" "$folder"
  sed -i -E 's/^Version: .*/Version: 0.0.1/; s/\btarn \(= [^)]*\)/tarn (= 0.0.1)/' "$folder/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$folder" "$ROOT/root/old/" >/dev/null
}
# What is in the file system, without the package manager's own notes and what any service leaves.
list_files() {
  local folder others=()
  for folder in /proc /sys /dev /run /tmp /root /srv /mnt /var/cache /var/log /var/tmp /var/lib/dpkg /var/lib/apt; do
    others+=(-path "$folder" -prune -o)
  done
  in_root find / -xdev "${others[@]}" -print | sed '/^.var.lib.systemd.\(random-seed\|catalog\|timers.stamp-[^m]\)/d' | LC_ALL=C sort
}
status_of() { in_root mirrord status --json | python3 -c "import json, sys; print(json.load(sys.stdin)$1)"; }

[ "$(id -u)" -eq 0 ] || { say "only root can start a container" >&2; exit 1; }
debs=("$PACKAGES"/tarn_*.deb "$PACKAGES"/mirrord_*.deb)
[ -e "${debs[0]}" ] && [ -e "${debs[1]}" ] || { say "there are no packages: make deb" >&2; exit 1; }
needed=$(for deb in "${debs[@]}"; do dpkg-deb -f "$deb" Depends; done | tr ',' '\n' | sed -E 's/^ *([^ |(]+).*/\1/' |
  grep -v '^tarn$' | sort -u | paste -s -d ,)

say "a Debian 12 with systemd and $needed"
mmdebstrap --quiet --variant=apt --include="systemd,systemd-sysv,dbus,procps,nats-server,openssl,$needed" bookworm "$ROOT" >"$T/mmdebstrap.log" 2>&1 ||
  { tail -n 20 "$T/mmdebstrap.log" >&2; exit 1; }
# A root for containers leaves documents out; the sample of the configuration is one.
rm -f "$ROOT"/etc/dpkg/dpkg.cfg.d/*
echo '127.0.0.1 near far' >>"$ROOT/etc/hosts" # the guide's two hosts
mkdir "$ROOT/root/old" "$ROOT/root/new"
cp "${debs[@]}" "$ROOT/root/new"
for deb in "${debs[@]}"; do older "$deb"; done
boot
list_files >"$T/before"

install_from() {
  in_root sh -c "cd /root/$1 && DEBIAN_FRONTEND=noninteractive apt-get install -y ./*.deb" >"$T/apt.log" 2>&1 ||
    fail "apt: $(cat "$T/apt.log")"
}
say "the older version: installed, mounted, running"
install_from old
in_root sh -ec "
  mkdir -p /srv/data /mnt/data /srv/copy
  echo '/srv/data /mnt/data tarn defaults,nofail 0 0' >>/etc/fstab
  systemctl daemon-reload
  mount /mnt/data
  sed 's|/mnt/backup/data|/srv/copy|' /usr/share/doc/mirrord/examples/mirrord.toml >/etc/tarn/mirrord.toml
  systemctl start mirrord
  mirrord wait"
[ "$(in_root systemctl is-enabled mirrord-verify.timer || true)" = disabled ] || fail "the timer is enabled"
[ "$(in_root systemctl is-enabled mirrord)" = enabled ] || fail "the service is not enabled"
in_root systemctl is-active tarnd >/dev/null || fail "tarnd is not its unit's"

say "an upgrade while a program writes"
cat >"$ROOT/root/write.sh" <<'WRITE'
set -e
n=0
while [ ! -e /root/stop ]; do
  n=$((n + 1))
  echo "$n" >"/mnt/data/a$((n % 300))"
  mv "/mnt/data/a$((n % 300))" "/mnt/data/b$((n % 200))"
done
echo "$n" >/root/written
WRITE
in_root sh /root/write.sh >"$T/write.log" 2>&1 &
writer=$!
wait_until 20 "the program writes" test -e "$ROOT/srv/data/b100"
tarnd_before=$(in_root cat /run/tarn/tarnd.pid) mirrord_before=$(status_of '["pid"]')
install_from new
sleep 2
touch "$ROOT/root/stop"
wait $writer || fail "the program that writes: $(cat "$T/write.log")"
[ "$(in_root cat /run/tarn/tarnd.pid)" = "$tarnd_before" ] || fail "tarnd was ended by the upgrade"
in_root mirrord wait || fail "the new version does not catch up"
[ "$(status_of '["pid"]')" != "$mirrord_before" ] || fail "mirrord was not restarted by the upgrade"
[ "$(status_of '["sources"][0]["gaps"]')" = 0 ] || fail "the upgrade left a gap"
in_root mirrord verify || fail "the copy is not equal after the upgrade"
in_root diff -r /srv/data /srv/copy || fail "the copy differs after the upgrade"
say "$(cat "$ROOT/root/written") files written and renamed meanwhile: no gap, no lost mount, the copy is equal"

say "booted anew"
power_off
boot
wait_until 20 "the mount is made at the start" in_root findmnt -t fuse.tarn /mnt/data
wait_until 20 "the service runs after the start" in_root mirrord wait
in_root sh -c 'echo after >/mnt/data/after && mirrord wait && cmp /srv/data/after /srv/copy/after && mirrord verify' ||
  fail "the copy is not equal after the start"
in_root systemd-analyze security --no-pager tarnd mirrord mirrord-verify 2>/dev/null | grep '→' || true

say "removed, and the guide from its beginning"
in_root sh -ec "
  systemctl enable --now mirrord-verify.timer 2>/dev/null
  apt-get purge -y tarn mirrord >/dev/null 2>&1
  ! pidof tarnd mirrord
  umount -q /mnt/data || true
  : >/etc/fstab
  rm -rf /srv/data /srv/copy /mnt/data"
python3 "$HERE/tests/install/guide.py" "$HERE/docs/guide.md" nsenter --all --target "$leader" \
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 sh -c 'cd /root/new && exec bash' || fail "the guide"

list_files >"$T/after"
diff "$T/before" "$T/after" >"$T/left" || fail "left behind after the removal: $(cat "$T/left")"
in_root test ! -e /run/tarn || fail "the run directory is left behind"
in_root systemctl --failed --no-legend | grep -E 'tarn|mirrord' && fail "a unit has failed"
say "nothing is left but data"
