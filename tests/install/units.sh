#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The units are what systemd understands, with programs that are there, and what is said of them in tarnd.service holds.
. "$(dirname "$0")/../lib.sh"
command -v systemd-analyze >/dev/null || { echo "skipped: there is no systemd-analyze"; exit 77; }
. "$(dirname "$0")/install.bash"

units=$ROOT/usr/lib/systemd/system
for unit in tarnd.service mirrord.service mirrord-replica.service mirrord-verify.service mirrord-verify.timer \
  mirrord-replica-verify.service mirrord-replica-verify.timer; do
  # Manuals that are not installed here are no fault of the unit.
  said=$(systemd-analyze verify --man=no "$units/$unit" 2>&1 | grep -F "$unit" || true)
  [ -z "$said" ] || fail "$said"
  # Every setting is one that systemd knows, and a misspelled one would be found.
  sed 's/^\(Type\|Persistent\)=/Tpye=/' "$units/$unit" >"$T/broken-$unit"
  said=$(systemd-analyze verify --man=no "$T/broken-$unit" 2>&1 || true)
  case $said in *Tpye*) ;; *) fail "systemd-analyze finds no fault in a broken unit: $said" ;; esac
done
setting() { sed -n "s/^$2=//p" "$units/$1"; }

# tarnd.service is started as it says: it is ready when the process ends, and its process id is where the unit looks for it.
read -ra command < <(setting tarnd.service ExecStart)
[ "${command[0]}" = "$ROOT/usr/sbin/tarnd" ] || fail "the unit starts ${command[0]}"
[ "$(setting tarnd.service PIDFile)" = "${command[2]}/tarnd.pid" ] || fail "the unit looks for another process id"
"${command[0]}" --run-dir "$TARN_RUN_DIR"
kill -0 "$(cat "$TARN_RUN_DIR/tarnd.pid")" || fail "tarnd does not run when its starter has ended"
tarn status >/dev/null || fail "tarnd does not serve when its starter has ended"

# At shutdown it stays until all mounts are gone, and a stop does not end the guardian before tarnd.
if grep -Eq '^Conflicts=.*shutdown|^DefaultDependencies=yes' "$units/tarnd.service"; then fail "tarnd ends before its mounts"; fi
[ "$(setting tarnd.service DefaultDependencies)" = no ]
[ "$(setting tarnd.service KillMode)" = process ]

# What mirrord can bear: nothing that gives it other mounts than the machine has, or keeps it from making what a replica has.
if grep -E '^(Protect|Private|ReadOnly|ReadWrite|Inaccessible|RestrictSUIDSGID|RootDirectory|DynamicUser)' "$units/mirrord.service"; then
  fail "mirrord.service takes away what replication needs"
fi
[ "$(setting mirrord.service FileDescriptorStoreMax)" -ge 1 ] || fail "the channel is not kept across a restart"

# A replica's process is no root, and has what it needs to make what a replica has.
[ "$(setting mirrord-replica.service User)" = tarn-replica ] || fail "the replica's service runs as somebody else"
[ "$(setting mirrord-replica.service AmbientCapabilities)" = "$(setting mirrord-replica.service CapabilityBoundingSet)" ] ||
  fail "the replica's service may get what it does not have"
if grep -E '^(PrivateDevices|ProtectClock|RestrictSUIDSGID|DynamicUser)' "$units/mirrord-replica.service"; then
  fail "mirrord-replica.service takes away what replication needs"
fi
grep -q '^u tarn-replica ' "$ROOT/usr/lib/sysusers.d/tarn-replica.conf" || fail "nobody makes the replica's user"

# A comparison is started by nobody but its timer, and that by nobody but an administrator.
for name in mirrord-verify mirrord-replica-verify; do
  if grep -q '^\[Install\]' "$units/$name.service"; then fail "$name is started without its timer"; fi
  [ "$(setting $name.timer WantedBy)" = timers.target ] || fail "$name.timer cannot be enabled"
  grep -q "no-enable --no-start .*$name.timer" "$HERE/../debian/rules" || fail "the package enables $name.timer"
  systemd-analyze calendar "$(setting $name.timer OnCalendar)" >/dev/null || fail "$name.timer names no time"
done
# The replica's socket lies in a directory that nobody but its user enters, and this one has no capability either.
[ "$(setting mirrord-replica-verify.service User)" = "$(setting mirrord-replica.service User)" ] || fail "it cannot ask the replica"

# A replica's host needs no tarn: the package only recommends it.
control=$HERE/../debian/control
package() { sed -n "/^Package: $1\$/,/^\$/p" "$control"; }
if package mirrord | grep -E '^Depends:.*\btarn\b'; then fail "mirrord cannot be installed without tarn"; fi
package mirrord | grep -q '^Recommends: tarn (= ' || fail "mirrord does not bring tarn of its own version along"
for user in mirrord-replica.service mirrord-replica-verify.service; do
  sed -n "s/^u \([^ ]*\) .*/\1/p" "$ROOT/usr/lib/sysusers.d/tarn-replica.conf" | grep -qx "$(setting $user User)" ||
    fail "nobody makes the user of $user"
done

[ "$(systemd-tmpfiles --create --root="$T/tmpfiles" "$ROOT/usr/lib/tmpfiles.d/tarn.conf" 2>&1)" = "" ] || fail "tmpfiles.d is wrong"
[ "$(stat -c %a "$T/tmpfiles/run/tarn")" = 755 ] || fail "the run directory is not made"
