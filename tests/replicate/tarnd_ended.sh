#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# tarnd ends while a daemon is behind: the daemon still gets all that was changed, says that the channel has ended,
# and ends. One that does not read at all does not keep tarnd.
. "$(dirname "$0")/../lib.sh"

start_replication
echo before >"$T/mnt/before"
wait_caught_up

# More than the host's socket holds, less than the queue of the daemon's socket.
kill -STOP "$MIRRORD_PID"
head -c 800000 /dev/urandom >"$T/mnt/late"
TARND_PID=$(cat "$TARN_RUN_DIR/tarnd.pid")
kill "$TARND_PID"
wait_until 10 "tarnd has unmounted" eval '! mountpoint -q "$T/mnt"'
kill -CONT "$MIRRORD_PID"
status=0
wait "$MIRRORD_PID" || status=$?
MIRRORD_PID=
[ $status -eq 3 ] || fail "mirrord ended with $status"
cmp "$T/lower/late" "$T/replica/late"
grep -q 'tarnd has ended' "$T/mirrord.err" || fail "not a word about the end"
! grep -qiE 'gap|lost|malformed' "$T/mirrord.err" || fail "something was lost: $(cat "$T/mirrord.err")"
wait_until 10 "tarnd has ended" eval '! kill -0 "$TARND_PID"'

start_replication
kill -STOP "$MIRRORD_PID"
head -c 800000 /dev/urandom >"$T/mnt/later"
stop_tarnd
kill -CONT "$MIRRORD_PID"
wait "$MIRRORD_PID" || true
MIRRORD_PID=
