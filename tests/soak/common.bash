# SPDX-License-Identifier: GPL-2.0
# What the tests of real programs share; sourced as `. "$(dirname "$0")/common.bash"` with the build folder as $1.
#
# Each of these scripts starts with start_soak (a mount, and mirrord for all of it), runs one program on $T/mnt
# and ends with end_soak, which holds what must be true whatever the program did. SOAK_SCALE says how much work to do:
# 1, which takes seconds, is part of every test run; `make soak` takes more.

. "$(dirname "${BASH_SOURCE[0]}")/../lib.sh"
SCALE=${SOAK_SCALE:-1}
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
  start_replication
  wait_caught_up
  TARND_PID=$(cat "$TARN_RUN_DIR/tarnd.pid")
  DESCRIPTORS=$(count_descriptors)
}

# Every inode that tarnd's kernel holds on to has a descriptor of the host's, so their number says what it keeps.
count_descriptors() { find "/proc/$TARND_PID/fd" -type l 2>/dev/null | wc -l; }

# catch_up: what programs have written through memory mappings goes down first, then the replica gets everything. It
# fails on any gap in the numbers, and on any record that could not be applied: what is healed then is not what the
# records say.
catch_up() {
  sync -f "$T/mnt"
  wait_caught_up $CATCH_UP_SECONDS
  check_numbers
}

# compare_replica [no-times]: with `no-times` without modification times: no record tells of that of a directory in which
# a special file was made, and without a mark none is taken from the source.
compare_replica() {
  : >"$T/no-mtime"
  [ "${1:-}" != no-times ] || (cd "$T/lower" && find . -mindepth 1 -printf '%P\0') >"$T/no-mtime"
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

# compare_midway [no-times]: compares the replica while the programs of the session are stopped in the middle of their work.
compare_midway() {
  wait_until 60 "the programs have stopped" session_is_stopped
  catch_up
  compare_replica "$@"
  pkill -CONT --session "$SESSION"
}

# What became of the session.
wait_beside() { wait "$SESSION" || fail "a program failed: $(head -n 5 "$T/beside.err" "$T/beside.out")"; }

# soak_beside SCRIPT [no-times]: runs it to its end, stops it now and then to compare, and ends the test.
soak_beside() {
  run_beside bash "$1"
  shift
  for _ in $(seq "$SCALE"); do
    sleep 2
    compare_midway "$@"
  done
  wait_beside
  end_soak "$@"
}

# The lines that a mount, a rule and a daemon leave in the kernel log; any other is a complaint.
EXPECTED_LINES='Register tarn filesystem success|Create tarn_nl netlink socket success'
EXPECTED_LINES+='|Register (prule|dir) sockopt success|tarn_thd_trans: start|tarn_process_nl_helo: daemon_pid = [0-9]+'

check_log() {
  local lines
  lines=$(tarn log | grep -vE "^[^<]*<4> ($EXPECTED_LINES)\$" || true)
  [ -z "$lines" ] || fail "lines in the kernel log that should not be there: $lines"
}

# All records have come, in order, and each was applied.
check_numbers() {
  mirrord status --json >"$T/status.json" || true # problems are looked at here
  python3 - "$T/status.json" <<'PY' || fail "not all records came and were applied: $(tail -n 5 "$T/mirrord.err")"
import json, sys
source, = json.load(open(sys.argv[1]))["sources"]
target, = source["targets"]
wrong = ["%s %s" % (source[key], key) for key in ("gaps", "stopped") if source[key]]
wrong += ["%s %s of the target" % (target[key], key) for key in ("gaps", "failures", "skipped") if target[key]]
if not 0 < source["captured"] <= source["logged"]:
    wrong.append("%d messages up to number %d" % (source["logged"], source["captured"]))
print("%d records, %d messages" % (source["captured"], source["logged"]))
if wrong:
    sys.exit(", ".join(wrong))
PY
  if grep -E 'malformed|too long' "$T/mirrord.err"; then fail "a message was none"; fi
}

memory_is_back() { [ "$(count_descriptors)" -le $((DESCRIPTORS + 8)) ]; }

# end_soak [no-times]: the replica is identical, nothing was lost or complained about, and when everything is removed
# nothing of it stays in memory.
end_soak() {
  catch_up
  compare_replica "$@"
  find "$T/mnt" -mindepth 1 -delete
  catch_up
  check_log
  [ -z "$(find "$T/lower" "$T/replica" -mindepth 1 -print -quit)" ] || fail "something was not removed"
  wait_until 20 "tarnd has forgotten what was removed" memory_is_back
  [ "$(cat "$TARN_RUN_DIR/tarnd.pid")" = "$TARND_PID" ] || fail "tarnd is not the one that was started"
  stop_mirrord
  tarn umount "$T/mnt"
}
