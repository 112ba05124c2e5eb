#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Replicas behind a stream, on this machine: a cluster of three servers, a source, and two replicas that share nothing with it but the
# servers. While programs write, the server that leads the stream and a replica are killed with -9 and started again; both replicas
# must end equal by the service's own comparison and by another one. SERVERS=1: with one server, FILES=... : how many files of
# /usr/include, KEEP=1: leaves everything running.
set -euo pipefail

BUILD=$(cd "${1:?build folder}" && pwd)
HERE=$(cd "$(dirname "$0")/.." && pwd)
SERVERS=${SERVERS:-3} FILES=${FILES:-3000} KEEP=${KEEP:-0}
export PATH="$BUILD/tarn:$BUILD/tarnd:$BUILD/mirrord:$PATH:/usr/sbin"
command -v nats-server >/dev/null || { echo "demo: nats-server is missing: make deps" >&2; exit 1; }

T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-demo.XXXXXX")
export TARN_RUN_DIR="$T/run" TARN_STATE_DIR="$T/state"
mkdir "$T/data" "$T/mnt" "$T/run" "$T/servers"
CLUSTER=$HERE/tests/harness/nats_cluster.py
declare -A pids=() # of the processes: server1, ..., source, one, two

say() { printf '%s\n' "$*"; }
die() { say "demo: $*" >&2; exit 1; }
seconds_since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'; }
# until_done SECONDS WHAT COMMAND...
until_done() {
  local deadline=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || die "timed out: $what"
    sleep 0.1
  done
}

finish() {
  local status=$?
  set +e
  if [ "$KEEP" = 1 ] && [ $status -eq 0 ]; then
    cat <<TEXT

Everything is still running. Try, in another terminal:
  export TARN_RUN_DIR=$TARN_RUN_DIR TARN_STATE_DIR=$TARN_STATE_DIR PATH=$BUILD/tarn:$BUILD/mirrord:\$PATH
  echo hello >$T/mnt/hello.txt; mirrord wait --config $T/one.toml; cat $T/one/hello.txt
  mirrord status --config $T/mirrord.toml; mirrord verify --config $T/two.toml
and to end it:
  kill ${pids[*]}; tarn stop; rm -rf $T
TEXT
    return
  fi
  if [ $status -ne 0 ]; then
    say "demo: failed; the end of the messages:" >&2
    tail -n 20 "$T"/*.err >&2
    tail -n 5 "$T"/servers/*/log >&2
  fi
  local pid
  for pid in ${pids[@]+"${pids[@]}"}; do kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
  pid=$(cat "$TARN_RUN_DIR/tarnd.pid" 2>/dev/null)
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null
    for _ in $(seq 200); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    kill -0 "$pid" 2>/dev/null && { say "demo: tarnd did not end" >&2; kill -9 "$pid"; status=1; }
  fi
  grep -q " $T/mnt " /proc/self/mountinfo && umount -l "$T/mnt"
  rm -rf "$T"
  exit $status
}
trap finish EXIT

# start NAME COMMAND...: in the background.
start() {
  local name=$1
  shift
  "$@" 2>>"$T/$name.err" </dev/null &
  pids[$name]=$!
}
kill_now() {
  kill -9 "${pids[$1]}"
  wait "${pids[$1]}" 2>/dev/null || true
}
start_server() { start "server$1" python3 "$CLUSTER" run "$T/servers" "$1"; }
start_source() { start source mirrord run --config "$T/mirrord.toml"; }
start_replica() { start "$1" mirrord replica --config "$T/$1.toml"; }
leader() { python3 "$CLUSTER" leader "$T/servers" data; }
another_leads() {
  local now
  now=$(leader) && [ "$now" != "$led" ]
}
# A replica that has not heard of its source yet, or is cut off from the servers, says so at once.
replica_waits() { mirrord wait --config "$T/$1.toml" --timeout 120; }
both_equal() {
  local replica
  for replica in one two; do until_done 180 "the replica $replica has all" replica_waits "$replica"; done
}

configure() {
  local servers replica
  python3 "$CLUSTER" make "$T/servers" "$SERVERS"
  servers="servers = $(python3 "$CLUSTER" urls "$T/servers")"
  cat >"$T/mirrord.toml" <<TEXT
state = "$T/service"
[control]
socket = "$T/run/mirrord.sock"
[[source]]
name = "data"
directory = "$T/data"
  [[source.target]]
  kind = "nats"
  name = "far"
  $servers
  stream = "data"
  replicas = $SERVERS
TEXT
  for replica in one two; do
    mkdir -m 700 "$T/$replica"
    cat >"$T/$replica.toml" <<TEXT
state = "$T/state-$replica"
[replica]
name = "$replica"
directory = "$T/$replica"
$servers
stream = "data"
TEXT
  done
}

# Files of the machine's own, some of each folder.
fill() {
  (cd /usr/include && find . -type f -size -200k | sort | awk -v n="$FILES" '{ line[NR] = $0 }
    END { step = NR > n ? NR / n : 1; for (i = 1; i <= NR; i += step) print line[int(i)] }') >"$T/files"
  [ -s "$T/files" ] || die "there are no files in /usr/include"
  tar -C /usr/include -cf - -T "$T/files" | tar -C "$T/data" -xf -
}
# Every other file is overwritten in part, appended to, renamed or removed, and copied into a new folder.
workload() {
  local file n=0
  mkdir "$T/mnt/new"
  while read -r file; do
    n=$((n + 1))
    case $((n % 10)) in
      0) dd if=/dev/urandom of="$T/mnt/$file" bs=3000 count=2 conv=notrunc status=none ;;
      2) head -c 10000 /dev/urandom >>"$T/mnt/$file" ;;
      4) mv "$T/mnt/$file" "$T/mnt/$file.renamed" ;;
      6) rm "$T/mnt/$file" ;;
      8) cp "$T/mnt/$file" "$T/mnt/new/$n" ;;
    esac
  done <"$T/files"
}

configure
for number in $(seq "$SERVERS"); do start_server "$number"; done
say "$SERVERS servers run on the loopback: $(python3 "$CLUSTER" urls "$T/servers")"
fill
say "a source of $(find "$T/data" -type f | wc -l) files, $(du -sm "$T/data" | cut -f1) MB; mounting it through tarn at $T/mnt"
tarn mount "$T/data" "$T/mnt"
started=$(date +%s.%N)
start_source
until_done 120 "the stream has a leader" leader
say "mirrord run: it sends its log to the stream \"data\", of which server $(leader) is the leader"
start_replica one
start_replica two
both_equal
say "mirrord replica, twice: both first copies are made after $(seconds_since "$started") s"

say "programs change what $(wc -l <"$T/files") names lead to"
(workload) >"$T/workload.err" 2>&1 &
pids[workload]=$!
sleep 0.5
led=$(leader) || die "nobody leads the stream"
kill_now "server$led"
say "server $led, which led the stream, is killed with -9"
kill_now one
say "the replica \"one\" is killed with -9"
wait "${pids[workload]}" || die "the workload failed: $(cat "$T/workload.err")"
unset 'pids[workload]'
if [ "$SERVERS" -gt 1 ]; then
  until_done 60 "another server leads" another_leads
  say "server $(leader) leads now; the replica \"two\" follows without the other one"
  until_done 180 "the replica two has all" replica_waits two
fi
start_server "$led"
start_replica one
say "both are started again"
started=$(date +%s.%N)
both_equal
say "mirrord wait, on both: all of it is there $(seconds_since "$started") s later"
for replica in one two; do
  mirrord verify --config "$T/$replica.toml" | sed "s/^/mirrord verify, on the host of $replica: /"
  python3 "$HERE/tests/replicate/tree_compare.py" "$T/data" "$T/$replica"
done
if grep -h GAP "$T/source.err" "$T/one.err" "$T/two.err"; then die "something was lost"; fi
say "mirrord targets, on the source's host:"
mirrord targets --config "$T/mirrord.toml" | sed 's/^/  /'

if [ "$KEEP" != 1 ]; then
  for name in one two source; do
    kill "${pids[$name]}"
    wait "${pids[$name]}" || die "$name ended with an error"
    unset "pids[$name]"
  done
  tarn umount "$T/mnt"
fi
say "demo: both replicas are identical, and nothing was lost on the way"
