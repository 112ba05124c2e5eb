#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Another user's process may use the mount but not configure the module: its socket options get -1, its hello is
# dropped without a line in the log and it sees no record, its mounts are refused; nothing has changed afterwards.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }
cp "$HERE/replicate/tarn_wire.py" "$T/"
chmod 755 "$T"
mkdir "$T/out"
chmod 1777 "$T/lower" "$T/out"
other() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
wire() { other /usr/bin/env python3 "$T/tarn_wire.py" "$@"; }
expect() { [ "$2" = "$3" ] || fail "$1: expected $2, got $3"; }

start_replication
before=$(tarn rule list)

for code in 177 179 182 190 191 192 193; do expect "set $code" -1 "$(wire raw-set $code 16016)"; done
for code in 177 178 179; do expect "get $code" -1 "$(wire get $code 24)"; done
wire dump "$T/out/seen" 1 >/dev/null
other touch "$T/mnt/by-another-user"
wait_caught_up
[ ! -s "$T/out/seen" ] || fail "an unprivileged process was sent records"
expect "hellos" 1 "$(helo_count)"
if tarn log | grep -q 'unprivileged process'; then fail "others may write lines into the log"; fi
mkdir "$T/other-lower" "$T/other-mnt"
chown 65534:65534 "$T/other-lower" "$T/other-mnt"
if other env PATH="$PATH" tarn mount "$T/other-lower" "$T/other-mnt" 2>"$T/refused.txt"; then fail "another user could mount"; fi
expect "lines of the refusal" 1 "$(wc -l <"$T/refused.txt")"
if other env PATH="$PATH" tarn umount "$T/mnt" 2>/dev/null; then fail "another user could unmount"; fi
expect "the rules" "$before" "$(tarn rule list)"
[ "$(stat -c %u "$T/lower/by-another-user")" = 65534 ]
[ "$(stat -c %u "$T/replica/by-another-user")" = 65534 ]
stop_mirrord
