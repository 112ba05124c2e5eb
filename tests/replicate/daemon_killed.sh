#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A daemon that is killed: writers go on undisturbed, the module forgets it at the first failed send, and the
# next daemon is served. What was changed without a daemon comes with no record: the new daemon sees the hole, and copies.
. "$(dirname "$0")/../lib.sh"

start_replication
echo one >"$T/mnt/one"
wait_caught_up

kill -9 "$MIRRORD_PID"
wait "$MIRRORD_PID" 2>/dev/null || true
MIRRORD_PID=
echo two >"$T/mnt/two"
[ "$(cat "$T/lower/two")" = two ]
# What was sent before the channel's end was seen is lost with the channel.
is_forgotten() {
  echo more >>"$T/mnt/two"
  tarn log | grep -q 'Failed send tarn netlink message to pid(.*); ret = -111, process not existed, back to 0'
}
wait_until 20 "the daemon that is gone is forgotten" is_forgotten
echo three >"$T/mnt/three"

start_mirrord
echo four >"$T/mnt/four"
wait_until 20 "the new daemon is served" cmp "$T/lower/four" "$T/replica/four"
stop_mirrord_after_a_loss
