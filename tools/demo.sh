#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The replication service from end to end on this machine: a tree that was there before is copied, a real workload
# changes it through the mount, the service is killed in the middle and started again, and the copy must be identical
# by the service's own comparison and by an independent one. KEEP=1 leaves everything running.
set -euo pipefail

BUILD=$(cd "${1:?build folder}" && pwd)
HERE=$(cd "$(dirname "$0")/.." && pwd)
KEEP=${KEEP:-0}
SOURCE=/usr/include
export PATH="$BUILD/tarn:$BUILD/tarnd:$BUILD/mirrord:$PATH"

T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-demo.XXXXXX")
export TARN_RUN_DIR="$T/run" TARN_STATE_DIR="$T/state"
mkdir "$T/data" "$T/mnt" "$T/copy" "$T/run"
chmod 700 "$T/copy" # the service would make it so, with a note
CONFIG="$T/mirrord.toml"
service_pid='' workload_pid=''

say() { printf '%s\n' "$*"; }
service() { mirrord "$@" --config "$CONFIG"; }
seconds_since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'; }
# status FIELD...: of the source, of the target, or of the service.
status() {
  { service status --json || true; } | python3 -c '
import json, sys
service = json.load(sys.stdin)
source = service["sources"][0]
for name in sys.argv[1:]:
    where = [place for place in (source["targets"][0], source, service) if name in place][0]
    print(where[name], end=" ")' "$@"
}

finish() {
  local status=$?
  set +e
  if [ "$KEEP" = 1 ] && [ $status -eq 0 ]; then
    cat <<TEXT

Everything is still running. Try, in another terminal:
  export TARN_RUN_DIR=$TARN_RUN_DIR TARN_STATE_DIR=$TARN_STATE_DIR PATH=$BUILD/tarn:$BUILD/mirrord:\$PATH
  echo hello >$T/mnt/hello.txt; mirrord wait --config $CONFIG; cat $T/copy/hello.txt
  mirrord status --config $CONFIG; tarn rule list; tarn log --follow
and to end it:
  kill $service_pid; tarn stop; rm -rf $T
TEXT
    return
  fi
  if [ $status -ne 0 ]; then
    say "demo: failed; the end of the kernel log and of the service's messages:" >&2
    timeout 5 tarn log 2>/dev/null | tail -n 20 >&2
    tail -n 20 "$T"/*.err >&2
  fi
  [ -n "$workload_pid" ] && kill "$workload_pid" 2>/dev/null && wait "$workload_pid" 2>/dev/null
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
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

start_service() {
  mirrord run --config "$CONFIG" 2>>"$T/service.err" </dev/null &
  service_pid=$!
  for _ in $(seq 400); do
    case $(status connected 2>/dev/null) in True*) return ;; esac
    kill -0 "$service_pid" 2>/dev/null || break
    sleep 0.05
  done
  say "demo: the service is not connected to the module" >&2
  exit 1
}

# Links of the machine's own that lead nowhere are the one thing that may fail to copy.
copy_tree() {
  cp -RL --preserve=mode,ownership,timestamps "$SOURCE/." "$1" 2>"$T/cp.err" && return
  [ -n "$(find -L "$SOURCE" -type l -print -quit)" ] || { cat "$T/cp.err" >&2; return 1; }
}

# Another copy of the tree through the mount, then some files of both are overwritten, appended to, renamed and removed.
workload() {
  mkdir "$T/mnt/new"
  copy_tree "$T/mnt/new"
  local f
  while read -r f; do
    dd if=/dev/urandom of="$T/mnt/$f" bs=3000 count=2 conv=notrunc status=none
  done <"$T/overwritten"
  while read -r f; do head -c 10000 /dev/urandom >>"$T/mnt/$f"; done <"$T/appended"
  while read -r f; do mv "$T/mnt/$f" "$T/mnt/$f.renamed"; done <"$T/renamed"
  while read -r f; do rm "$T/mnt/$f"; done <"$T/removed"
}

say "a tree that is there before: $SOURCE (links followed) copied to $T/data"
copy_tree "$T/data"
say "$(find "$T/data" -type f | wc -l) files, $(du -sm "$T/data" | cut -f1) MB; mounting it through tarn at $T/mnt"
tarn mount "$T/data" "$T/mnt"
cat >"$CONFIG" <<TEXT
state = "$T/service"
[control]
socket = "$T/run/mirrord.sock"
[[source]]
name = "data"
directory = "$T/data"
  [[source.target]]
  name = "copy"
  directory = "$T/copy"
TEXT
say "the configuration:"
sed 's/^/  /' "$CONFIG"
mirrord check --config "$CONFIG"

started=$(date +%s.%N)
say "mirrord run: the first copy begins"
start_service
service wait
say "mirrord wait: the first copy is complete after $(seconds_since "$started") s"

find "$T/data" -type f -name '*.h' -printf '%P\n' | sort | awk '{ print; print "new/" $0 }' >"$T/headers"
for part in overwritten appended renamed removed; do
  awk -v part="$part" 'BEGIN { n["overwritten"] = 1; n["appended"] = 2; n["renamed"] = 3; n["removed"] = 5 }
    NR % 80 == n[part]' "$T/headers" >"$T/$part"
done
say "a workload begins: the tree copied once more, through the mount; $(wc -l <"$T/overwritten") files overwritten" \
  "in part, $(wc -l <"$T/appended") appended to, $(wc -l <"$T/renamed") renamed, $(wc -l <"$T/removed") removed"
started=$(date +%s.%N)
(set +e; workload >"$T/workload.err" 2>&1) &
workload_pid=$!
sleep 1.5
kill -0 "$workload_pid" 2>/dev/null || { say "demo: the workload ended too soon" >&2; exit 1; }
kill -9 "$service_pid"
wait "$service_pid" 2>/dev/null || true
say "mirrord is killed with -9 while the workload goes on"
sleep 0.5
start_service
say "mirrord run: it is started again, and reads on in its log"
wait "$workload_pid" || { say "demo: the workload failed" >&2; cat "$T/workload.err" >&2; exit 1; }
workload_pid=
say "the workload is done after $(seconds_since "$started") s"
written=$(date +%s.%N)
service wait
say "mirrord wait: all of it is in the copy $(seconds_since "$written") s after the last change"
say "mirrord status:"
service status | sed 's/^/  /'
say "what the service said of changes that did not reach it, all of which it has copied from the source since:"
grep -h 'mirrord: data: GAP' "$T/service.err" | sed 's/^/  /' || say "  nothing"
say "mirrord verify:"
service verify | sed 's/^/  /'
say "comparing both trees with another program"
python3 "$HERE/tests/replicate/tree_compare.py" "$T/data" "$T/copy"

if [ "$KEEP" != 1 ]; then
  kill "$service_pid"
  wait "$service_pid" || { say "demo: mirrord ended with an error" >&2; exit 1; }
  service_pid=
  tarn umount "$T/mnt"
fi
say "demo: the copy is identical"
