#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A daemon that does not read: senders wait up to their time-out and go on, the loss is logged and signalled, the
# daemon stays registered, and when it reads again it declares what is missing.
. "$(dirname "$0")/../lib.sh"

start_replication
echo before >"$T/mnt/before"
wait_caught_up

kill -STOP "$MIRRORD_PID"
dd if=/dev/urandom of="$T/mnt/large" bs=1M count=8 status=none
cmp "$T/mnt/large" "$T/lower/large"
tarn log | grep -q 'Failed send tarn netlink message to pid(.*); ret = -11, back to 0' ||
  fail "no line about the send that timed out"
kill -CONT "$MIRRORD_PID"
echo after >"$T/mnt/after"
wait_until 30 "the daemon is still served" cmp "$T/lower/after" "$T/replica/after"
wait_until 20 "the loss is declared" grep -qiE 'gap|lost' "$T/mirrord.err"
stop_mirrord_after_a_loss
