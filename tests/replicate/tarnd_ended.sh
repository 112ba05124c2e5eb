#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# tarnd ends while a daemon is behind: the daemon still gets all that was changed, says that the channel has ended, and
# goes on when there is a tarnd again. One that does not read at all does not keep tarnd.
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
wait_until 20 "mirrord says that tarnd has ended" grep -q 'tarnd has ended' "$T/mirrord.err"
wait_until 20 "what tarnd has sent is applied" cmp "$T/lower/late" "$T/replica/late"
! grep -qiE 'gap|lost|malformed' "$T/mirrord.err" || fail "something was lost: $(cat "$T/mirrord.err")"
wait_until 10 "tarnd has ended" eval '! kill -0 "$TARND_PID"'
expect_error "tarnd" mirrord wait --timeout 20

# The next tarnd has no rule until mirrord has added it.
echo unseen >"$T/lower/unseen"
tarn mount "$T/lower" "$T/mnt"
wait_until 20 "mirrord is registered again" eval '[ "$(registrations)" = 2 ]'
wait_caught_up
compare_trees "$T/lower" "$T/replica"
kill -STOP "$MIRRORD_PID"
head -c 800000 /dev/urandom >"$T/mnt/later"
stop_tarnd
kill -CONT "$MIRRORD_PID"
kill "$MIRRORD_PID"
wait "$MIRRORD_PID" || true
MIRRORD_PID=
cmp "$T/lower/later" "$T/replica/later"
