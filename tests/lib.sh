# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash
# Shell side of the end-to-end tests; sourced as `. "$(dirname "$0")/../lib.sh"` with the build folder as $1.
#
# Gives each test a private folder ($T, removed at the end) with lower/, mnt/, replica/ and a run directory of
# its own, so that tests run side by side. Whatever a test starts is stopped when it ends, however it ends.

set -euo pipefail
BUILD=$(cd "${1:?build folder}" && pwd)
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export PATH="$BUILD/tarn:$BUILD/tarnd:$BUILD/mirrord:$PATH"

T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-test.XXXXXX")
mkdir "$T/lower" "$T/mnt" "$T/replica" "$T/run"
chmod 700 "$T/replica" # mirrord makes it so, with a note
export TARN_RUN_DIR="$T/run" TARN_STATE_DIR="$T/state"
: >"$T/mirrord.err"
MIRRORD_PID=

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# A file system on this machine is what these tests are about: its absence is a failure, not a skip.
[ -e /dev/fuse ] || fail "/dev/fuse is missing: end-to-end tests need FUSE"

finish() {
  local status=$?
  set +e
  if [ $status -ne 0 ]; then
    echo "--- kernel log" >&2
    timeout 5 tarn log >&2 2>/dev/null
    for f in "$T"/*.err "$TARN_RUN_DIR/tarnd.log"; do [ -s "$f" ] && { echo "--- $f" >&2; tail -n 40 "$f" >&2; }; done
  fi
  [ -n "$MIRRORD_PID" ] && kill "$MIRRORD_PID" 2>/dev/null && kill -CONT "$MIRRORD_PID" && wait "$MIRRORD_PID" 2>/dev/null
  stop_tarnd || status=1
  cleanup_test
  # Not mountpoint(1): a mount that a killed tarnd has left refuses to be looked at.
  grep -q " $T/mnt " /proc/self/mountinfo && umount -l "$T/mnt"
  rm -rf "$T"
  exit $status
}
trap finish EXIT

# Overridden by tests that have more to undo.
cleanup_test() { :; }

# Stops tarnd as an administrator would and insists on a clean end: it unmounts, and its kernel finds no leak.
stop_tarnd() {
  local pid
  pid=$(cat "$TARN_RUN_DIR/tarnd.pid" 2>/dev/null) || return 0
  kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 600); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  if kill -0 "$pid" 2>/dev/null; then
    kill -9 "$pid"
    echo "FAILED: tarnd did not end on SIGTERM" >&2
    return 1
  fi
  if [ -e "$TARN_RUN_DIR/control" ]; then
    echo "FAILED: tarnd did not end cleanly" >&2
    return 1
  fi
  if grep -E 'things behind|cannot unload|Sanitizer|runtime error' "$TARN_RUN_DIR/tarnd.log" >&2; then
    echo "FAILED: tarnd complained at its end" >&2
    return 1
  fi
}

# start_mirrord [option...]: runs mirrord from lower/ to replica/ and waits until it is registered. As a service it has a
# session of its own: a host that shares the processor out by sessions would count it among the tests.
start_mirrord() {
  local before
  before=$(registrations)
  setsid mirrord --source "$T/lower" --replica "$T/replica" "$@" 2>>"$T/mirrord.err" &
  MIRRORD_PID=$!
  wait_until 30 "mirrord is registered" eval '[ "$(registrations)" -gt '"$before"' ]'
}

# How often one has come to be registered, its rule set.
registrations() { grep -c 'mirrord: registered' "$T/mirrord.err" || true; }

# start_replication [option of mirrord...]: lower/ mounted on mnt/ and replicated to replica/.
start_replication() {
  tarn mount "$T/lower" "$T/mnt"
  start_mirrord "$@"
}

helo_count() { tarn log | grep -c 'tarn_process_nl_helo' || true; }

stop_mirrord() {
  kill "$MIRRORD_PID"
  wait "$MIRRORD_PID" || fail "mirrord ended with $?: $(tail -n 3 "$T/mirrord.err")"
  MIRRORD_PID=
}

# The same of one that has missed records: it says so, and the replica gets what was in them.
stop_mirrord_after_a_loss() {
  wait_until 30 "the loss is declared" grep -q GAP "$T/mirrord.err"
  wait_caught_up
  compare_trees "$T/lower" "$T/replica"
  stop_mirrord
}

# wait_until SECONDS WHAT COMMAND...: at least a minute, for machines that have much else to do.
wait_until() {
  local deadline=$((SECONDS + ($1 < 60 ? 60 : $1))) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || fail "timed out: $what"
    sleep 0.02
  done
}

# Waits until the replica holds everything done so far.
wait_caught_up() {
  mirrord wait --timeout "${1:-60}" || fail "the replica has not caught up: $(tail -n 3 "$T/mirrord.err")"
}

# Nothing was lost on the way.
no_gap() { if grep GAP "$T/mirrord.err"; then fail "a gap"; fi; }

compare_trees() { python3 "$HERE/replicate/tree_compare.py" "$@" || fail "the trees differ"; }

# expect_error TEXT COMMAND...: the command must fail with exactly one line on stderr that holds TEXT.
expect_error() {
  local text=$1 out
  shift
  if out=$("$@" 2>&1 >/dev/null); then fail "no error from: $*"; fi
  [ "$(printf '%s\n' "$out" | wc -l)" -eq 1 ] || fail "not one line from $*: $out"
  case $out in *"$text"*) ;; *) fail "$*: expected '$text', got '$out'" ;; esac
}
