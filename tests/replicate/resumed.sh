#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A mirrord that is started again knows at once, without waiting for the next change, whether something was changed
# while none ran, and brings it.
. "$(dirname "$0")/../lib.sh"

equal() {
  wait_caught_up
  compare_trees "$T/lower" "$T/replica"
}
clean() {
  equal
  ! grep GAP "$T/mirrord.err" || fail "$1: a gap without a loss"
}
# loss WHAT TEXT: the text was said, and nothing is missing all the same.
loss() {
  equal
  grep -q "$2" "$T/mirrord.err" || fail "$1: not declared: $(cat "$T/mirrord.err")"
  : >"$T/mirrord.err"
}
rule() { tarn rule list | awk '{ print $1 }'; }

echo there >"$T/lower/there"
tarn mount "$T/lower" "$T/mnt"
start_mirrord
echo one >"$T/mnt/f"
clean "the first start"
[ "$(rule | wc -l)" = 1 ] || fail "not one rule: $(tarn rule list)"
first=$(rule)
stop_mirrord

start_mirrord
clean "a second start, nothing changed meanwhile"
echo two >>"$T/mnt/f"
clean "a change after the second start"
[ "$(rule)" = "$first" ] || fail "another rule: $(tarn rule list)"
stop_mirrord

# Written while no mirrord runs, and nothing after its start.
echo missing >>"$T/mnt/f"
start_mirrord
loss "a change while none ran" "GAP: records [0-9]* to [0-9]* are missing"
stop_mirrord
start_mirrord
clean "a loss is declared once"

# Killed with all applied.
echo three >>"$T/mnt/f"
clean "before it is killed"
kill -KILL "$MIRRORD_PID"
wait "$MIRRORD_PID" || true
start_mirrord
clean "after it was killed"
stop_mirrord

# Another rule under the same name: what happened between the two is not known.
tarn rule del "$first"
echo between >>"$T/mnt/f"
tarn rule add "$first" --include "$T/lower" >/dev/null
start_mirrord
loss "a rule made anew" "GAP: the rule was deleted and added again"

# The same while it runs: not only when somebody changes something again.
tarn rule del "$first"
echo unseen >>"$T/mnt/f"
tarn rule add "$first" --include "$T/lower" >/dev/null
echo seen >>"$T/mnt/f"
loss "a rule made anew beside a mirrord" "GAP: the rule was deleted and added again"
tarn rule del "$first"
echo unseen >>"$T/mnt/f"
loss "a rule that is gone" "GAP: the module had no rule for the source until now"
# Its first record says the same once more.
echo seen >>"$T/mnt/f"
loss "a change after that" "GAP: the rule was deleted and added again"
stop_mirrord

# Without a mount nothing can be asked.
tarn umount "$T/mnt"
start_mirrord
loss "without a mount" "GAP: it is unknown what changed while mirrord was away"
tarn mount "$T/lower" "$T/mnt"
echo four >>"$T/mnt/f"
clean "with the mount again"
stop_mirrord

# The state is that of the replica that it was kept for, not of its path.
mv "$T/replica" "$T/old"
mkdir "$T/replica"
start_mirrord
loss "another replica in the same place" "an empty directory is in the target's place: copying all"
stop_mirrord
mv "$T/replica" "$T/new"
mv "$T/old" "$T/replica"
start_mirrord
expect_error "another directory than before, and not empty" mirrord wait --timeout 20
kill "$MIRRORD_PID"
if wait "$MIRRORD_PID"; then fail "it ends as if the replica were complete"; fi
MIRRORD_PID=
