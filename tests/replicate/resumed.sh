#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A mirrord that is started again knows at once, without waiting for the next change, whether something was changed
# while none ran.
. "$(dirname "$0")/../lib.sh"

RULE=01234567-89AB-CDEF-0123-456789ABCDEF
add_rule() { tarn rule add $RULE --include "$T/lower" >/dev/null; }
start() {
  rm -f "$T/status" # the last one says that it has ended
  start_mirrord --status-file "$T/status"
  wait_until 10 "there is a status file" test -e "$T/status"
}
catch_up() { mirrord --catch-up --status-file "$T/status" --timeout 30; }
clean() {
  catch_up || fail "$1: $(tail -n 3 "$T/mirrord.err")"
  cmp "$T/lower/f" "$T/replica/f" || fail "$1: the replica is another"
}
loss() {
  if catch_up; then fail "$1: caught up although something is missing"; fi
  grep -q "$2" "$T/mirrord.err" || fail "$1: not declared: $(cat "$T/mirrord.err")"
  : >"$T/mirrord.err"
}

tarn mount "$T/lower" "$T/mnt"
add_rule
start
echo one >"$T/mnt/f"
clean "the first start"
stop_mirrord

start
clean "a second start, nothing changed meanwhile"
echo two >>"$T/mnt/f"
clean "a change after the second start"
stop_mirrord
[ ! -s "$T/mirrord.err" ] || fail "complaints without a loss: $(cat "$T/mirrord.err")"

# Written while no mirrord runs, and nothing after its start.
echo missing >>"$T/mnt/f"
start
loss "a change while none ran" "GAP: records [0-9]* to [0-9]* are missing"
stop_mirrord_after_a_loss
cp -p "$T/lower/f" "$T/replica/f"
start
clean "a loss is declared once"
stop_mirrord

# Killed with all applied, and kept a second later.
start
echo three >>"$T/mnt/f"
clean "before it is killed"
kill -KILL "$MIRRORD_PID"
wait "$MIRRORD_PID" || true
start
clean "after it was killed"
stop_mirrord

# Another rule under the same name: what happened between the two is not known.
tarn rule del $RULE
add_rule
start
loss "a rule made anew" "GAP: was deleted and added again"
stop_mirrord_after_a_loss

# The same while it runs: not only when somebody changes something again.
start
clean "before the rule is deleted"
tarn rule del $RULE
echo unseen >>"$T/mnt/f"
add_rule
loss "a rule made anew beside a mirrord" "GAP: was deleted and added again"
stop_mirrord_after_a_loss
cp -p "$T/lower/f" "$T/replica/f"

# Without a mount nothing can be asked; the next record tells.
tarn umount "$T/mnt"
start
loss "without a mount" "it is unknown whether changes since the last run are missing"
tarn mount "$T/lower" "$T/mnt"
echo four >>"$T/mnt/f"
clean "with the mount again"
stop_mirrord

# The state is that of the replica that it was kept for, not of its path.
mv "$T/replica" "$T/old"
mkdir "$T/replica"
start
loss "another replica in the same place" "GAP: begins with record"
stop_mirrord_after_a_loss
