#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# One change stream from end to end on this machine: a directory mounted through tarn, a rule, a daemon, a real
# workload, and a replica that must be identical. KEEP=1 leaves everything running.
set -euo pipefail

BUILD=$(cd "${1:?build folder}" && pwd)
HERE=$(cd "$(dirname "$0")/.." && pwd)
KEEP=${KEEP:-0}
SOURCE=/usr/include
export PATH="$BUILD/tarn:$BUILD/tarnd:$BUILD/mirrord:$PATH"

T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-demo.XXXXXX")
export TARN_RUN_DIR="$T/run" TARN_STATE_DIR="$T/state"
mkdir "$T/lower" "$T/mnt" "$T/replica" "$T/run"
mirrord_pid=

say() { printf '%s\n' "$*"; }

finish() {
  local status=$?
  set +e
  if [ "$KEEP" = 1 ] && [ $status -eq 0 ]; then
    cat <<TEXT

Everything is still running. Try, in another terminal:
  export TARN_RUN_DIR=$TARN_RUN_DIR PATH=$BUILD/tarn:\$PATH
  echo hello >$T/mnt/hello.txt; cat $T/replica/hello.txt
  tarn status; tarn rule list; tarn log --follow
and to end it:
  kill $mirrord_pid; tarn stop; rm -rf $T
TEXT
    return
  fi
  if [ $status -ne 0 ]; then
    say "demo: failed; the end of the kernel log and of mirrord's messages:" >&2
    timeout 5 tarn log 2>/dev/null | tail -n 20 >&2
    tail -n 20 "$T/mirrord.err" >&2
  fi
  [ -n "$mirrord_pid" ] && kill "$mirrord_pid" 2>/dev/null && wait "$mirrord_pid" 2>/dev/null
  local pid
  pid=$(cat "$TARN_RUN_DIR/tarnd.pid" 2>/dev/null)
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null
    for _ in $(seq 200); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    kill -0 "$pid" 2>/dev/null && { say "demo: tarnd did not end" >&2; kill -9 "$pid"; status=1; }
  fi
  mountpoint -q "$T/mnt" && umount -l "$T/mnt"
  rm -rf "$T"
  exit $status
}
trap finish EXIT

say "mounting $T/lower through tarn at $T/mnt"
tarn mount "$T/lower" "$T/mnt"
uuid=$(tarn rule add --include "$T/lower")
say "rule $uuid replicates $T/lower"
mirrord --source "$T/lower" --replica "$T/replica" --status-file "$T/mirrord.json" >"$T/mirrord.err" 2>&1 </dev/null &
mirrord_pid=$!
for _ in $(seq 200); do
  tarn log | grep -q tarn_process_nl_helo && break
  sleep 0.05
done
tarn log | grep -q tarn_process_nl_helo || { say "demo: mirrord did not register" >&2; exit 1; }

started=$(date +%s.%N)
say "copying $SOURCE (links followed, attributes preserved)"
if ! cp -RL --preserve=mode,ownership,timestamps "$SOURCE/." "$T/mnt" 2>"$T/cp.err"; then
  # Links of the machine's own that lead nowhere are the one thing that may fail to copy.
  [ -n "$(find -L "$SOURCE" -type l -print -quit)" ] || { cat "$T/cp.err" >&2; exit 1; }
fi
files=$(find "$T/mnt" -type f | wc -l)

say "overwriting and appending to some of the $files files"
find "$T/mnt" -type f -name '*.h' -printf '%P\n' | sort >"$T/headers"
awk 'NR % 40 == 1' "$T/headers" >"$T/overwritten"
awk 'NR % 40 == 2' "$T/headers" >"$T/appended"
while read -r f; do
  dd if=/dev/urandom of="$T/mnt/$f" bs=3000 count=2 conv=notrunc status=none
done <"$T/overwritten"
while read -r f; do
  head -c 10000 /dev/urandom >>"$T/mnt/$f"
done <"$T/appended"
cat "$T/overwritten" "$T/appended" | tr '\n' '\0' >"$T/touched"
written=$(date +%s.%N)

mirrord --catch-up --status-file "$T/mirrord.json" --timeout 300
caught_up=$(date +%s.%N)
say "$(wc -l <"$T/overwritten") files overwritten in part, $(wc -l <"$T/appended") appended to"
python3 - "$T/mirrord.json" "$started" "$written" "$caught_up" <<'PY'
import json, sys
status = json.load(open(sys.argv[1]))
started, written, caught_up = map(float, sys.argv[2:])
print("%d records with %.1f MB of data in %.1f s (%.0f records/s); replica complete %.2f s after the last write"
      % (status["messages"], status["bytes"] / 1e6, written - started,
         status["messages"] / (caught_up - started), caught_up - written))
PY
say "comparing the lower directory with the replica"
python3 "$HERE/tests/replicate/tree_compare.py" "$T/lower" "$T/replica" --no-mtime-of "$T/touched"

if [ "$KEEP" != 1 ]; then
  kill "$mirrord_pid"
  wait "$mirrord_pid" || { say "demo: mirrord reported failures" >&2; exit 1; }
  mirrord_pid=
  tarn umount "$T/mnt"
fi
say "demo: the replica is identical"
