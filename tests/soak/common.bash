# SPDX-License-Identifier: GPL-2.0
# What the tests of real programs share; sourced as `. "$(dirname "$0")/common.bash"` with the build folder as $1.
#
# Each of these scripts starts with start_soak (a mount, a rule for all of it, mirrord), runs one program on $T/mnt
# and ends with end_soak, which holds what must be true whatever the program did. SOAK_SCALE says how much work to do:
# 1, which takes seconds, is part of every test run; `make soak` takes more.

. "$(dirname "${BASH_SOURCE[0]}")/../lib.sh"
SCALE=${SOAK_SCALE:-1}
STATUS_FILE="$T/mirrord.json"
CATCH_UP_SECONDS=240

require() {
  for program; do
    command -v "$program" >/dev/null || fail "$program is not installed: run 'make deps'"
  done
}

# Sources of a real project to work on, this one's: a copy of them in $T/sources.
take_sources() {
  mkdir "$T/sources"
  tar -C "$HERE/.." --exclude=./build --exclude=./.git -cf - . | tar -C "$T/sources" -xf -
}

start_soak() {
  start_replication --status-file "$STATUS_FILE"
  TARND_PID=$(cat "$TARN_RUN_DIR/tarnd.pid")
  DESCRIPTORS=$(count_descriptors)
}

# Every inode that tarnd's kernel holds on to has a descriptor of the host's, so their number says what it keeps.
count_descriptors() { find "/proc/$TARND_PID/fd" -type l 2>/dev/null | wc -l; }

# catch_up: what programs have written through memory mappings goes down first, then the replica gets everything. It
# fails on any gap in the numbers, any lost message and any record that could not be applied.
catch_up() {
  sync -f "$T/mnt"
  mirrord --catch-up --status-file "$STATUS_FILE" --timeout $CATCH_UP_SECONDS ||
    fail "the replica did not catch up: $(tail -n 5 "$T/mirrord.err")"
}

# compare_replica KINDS: with `times`, modification times too, for programs that set them on everything they make;
# with `no-times` without: a write changes the time of its file, which is no change of its own in the stream.
compare_replica() {
  if [ "$1" = no-times ]; then
    (cd "$T/lower" && find . -mindepth 1 -printf '%P\0') >"$T/no-mtime"
  else
    : >"$T/no-mtime"
  fi
  compare_trees "$T/lower" "$T/replica" --no-mtime-of "$T/no-mtime" --without-special --without-link-owners
}

# run_beside COMMAND...: starts it in the background, in a session of its own, whose number is $SESSION. What is left
# of it when the test ends is killed. Dozens of programs that want the processor yield to tarnd and mirrord: on
# a machine full of other tests these might get none for a second, and a message that nobody takes for so long is lost.
SESSION=
run_beside() {
  setsid nice -n 10 "$@" >"$T/beside.out" 2>"$T/beside.err" </dev/null &
  SESSION=$!
}

kill_beside() {
  [ -n "$SESSION" ] || return 0
  pkill -KILL --session "$SESSION" || true
  wait "$SESSION" 2>/dev/null || true
  SESSION=
}
cleanup_test() { kill_beside; }

# Asks all processes of the session to stop. True when each of their threads has: none is inside a call.
session_is_stopped() {
  pkill -STOP --session "$SESSION"
  ps -eLo sid=,stat= | awk -v session="$SESSION" '$1 == session && $2 !~ /^[TZX]/ { exit 1 }'
}

# Compares the replica while the programs of the session are stopped in the middle of their work.
compare_midway() {
  wait_until 60 "the programs have stopped" session_is_stopped
  catch_up
  compare_replica no-times
  pkill -CONT --session "$SESSION"
}

# What became of the session.
wait_beside() { wait "$SESSION" || fail "a program failed: $(head -n 5 "$T/beside.err" "$T/beside.out")"; }

# soak_beside SCRIPT: runs it to its end, stops it now and then to compare, and ends the test.
soak_beside() {
  run_beside bash "$1"
  for _ in $(seq "$SCALE"); do
    sleep 2
    compare_midway
  done
  wait_beside
  end_soak no-times
}

# The lines that a mount, a rule and a daemon leave in the kernel log; any other is a complaint.
EXPECTED_LINES='Register tarn filesystem success|Create tarn_nl netlink socket success'
EXPECTED_LINES+='|Register (prule|dir) sockopt success|tarn_thd_trans: start|tarn_process_nl_helo: daemon_pid = [0-9]+'

check_log() {
  local lines
  lines=$(tarn log | grep -vE "^[^<]*<4> ($EXPECTED_LINES)\$" || true)
  [ -z "$lines" ] || fail "lines in the kernel log that should not be there: $lines"
}

# check_numbers [UUID]: of all rules; that one is among them.
check_numbers() {
  python3 - "$STATUS_FILE" "${1:-}" <<'PY' || fail "the numbers of the records are not without gaps"
import json, sys
status = json.load(open(sys.argv[1]))
wrong = ["%s %s" % (status[key], key) for key in ("lost", "malformed", "problems") if status[key]]
for rule in status["rules"]:
    wrong += ["%s %s" % (rule[key], key) for key in ("gaps", "duplicates", "failures", "stopped") if rule[key]]
    if not 0 < rule["last_wseq"] <= rule["messages"]:
        wrong.append("%d messages up to number %d" % (rule["messages"], rule["last_wseq"]))
    print("rule %s: %d records, %.1f MB" % (rule["uuid"], rule["last_wseq"], rule["bytes"] / 1e6))
if not any(rule["uuid"] == sys.argv[2] for rule in status["rules"]) and (sys.argv[2] or not status["rules"]):
    wrong.append("no record of the rule")
if wrong:
    sys.exit(", ".join(wrong))
PY
}

memory_is_back() { [ "$(count_descriptors)" -le $((DESCRIPTORS + 8)) ]; }

# end_soak KINDS: the replica is identical, nothing was lost or complained about, and when everything is removed
# nothing of it stays in memory.
end_soak() {
  catch_up
  compare_replica "$1"
  find "$T/mnt" -mindepth 1 -delete
  catch_up
  check_numbers
  check_log
  [ -z "$(find "$T/lower" "$T/replica" -mindepth 1 -print -quit)" ] || fail "something was not removed"
  wait_until 20 "tarnd has forgotten what was removed" memory_is_back
  [ "$(cat "$TARN_RUN_DIR/tarnd.pid")" = "$TARND_PID" ] || fail "tarnd is not the one that was started"
  stop_mirrord
  tarn umount "$T/mnt"
}
