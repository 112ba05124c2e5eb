# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash
# For tests of replicas on "other hosts", after service.bash: a server of the stream, and replicas that share nothing else with
# the source.
PATH=$PATH:/usr/sbin
NATS_PID='' NATS_PORT=-1
declare -A REPLICA_PIDS=()
cleanup_test() {
  local pid
  for pid in ${REPLICA_PIDS[@]+"${REPLICA_PIDS[@]}"} $NATS_PID; do kill -KILL "$pid" 2>/dev/null; done
  return 0
}

# start_nats [LINE...]: with these lines in its configuration. It keeps its port, which it chose at the first start.
start_nats() {
  printf 'listen: "127.0.0.1:%s"\nhttp: "127.0.0.1:-1"\nports_file_dir: "%s"\njetstream { store_dir: "%s", max_file_store: 1GB }\n' \
    "$NATS_PORT" "$T/ports" "$T/nats" >"$T/nats.conf"
  [ $# -eq 0 ] || printf '%s\n' "$@" >>"$T/nats.conf"
  mkdir -p "$T/ports"
  rm -f "$T/ports"/*
  setsid nats-server -c "$T/nats.conf" >>"$T/nats.log" 2>&1 &
  NATS_PID=$!
  wait_until 30 "the server listens" test -s "$T/ports/nats-server_$NATS_PID.ports"
  NATS_PORT=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["nats"][0].rsplit(":", 1)[1])' \
    "$T/ports/nats-server_$NATS_PID.ports")
}
kill_nats() {
  kill -KILL "$NATS_PID"
  wait "$NATS_PID" 2>/dev/null || true
  NATS_PID=''
}
# in_stream first_seq|last_seq: the number of the first message that the server still has, or of the last one.
in_stream() {
  python3 - "$T/ports/nats-server_$NATS_PID.ports" "$1" <<'PY'
import json, sys, urllib.request
url = json.load(open(sys.argv[1]))["monitoring"][0] + "/jsz?streams=true"
account = json.load(urllib.request.urlopen(url))["account_details"][0]
print(account["stream_detail"][0]["state"][sys.argv[2]])
PY
}
# servers NAME: how one of that name reaches the stream, for its configuration. Overridden by tests with certificates.
servers() { printf 'servers = ["nats://127.0.0.1:%s"]\nstream = "data"\n' "$NATS_PORT"; }

# What mirrord-replica.service gives it: another user, and the capabilities that the unit names.
UNIT=$HERE/../packaging/systemd/mirrord-replica.service.in
CAPS=$(sed -n 's/^AmbientCapabilities=//p' "$UNIT" | tr '[:upper:]' '[:lower:]' | sed 's/cap_/+/g; s/ /,/g')
as_in_the_unit() {
  exec setsid setpriv --reuid 12345 --regid 12345 --clear-groups --no-new-privs --bounding-set "-all,$CAPS" --inh-caps \
    "-all,$CAPS" --ambient-caps "-all,$CAPS" "$@"
}

# start_replica NAME: to $T/NAME, and waits until it answers on its socket.
start_replica() {
  begin_replica "$1"
  wait_until 30 "the replica $1 answers" test -S "$T/state-$1/control.sock"
}
begin_replica() {
  [ -d "$T/$1" ] || { mkdir -m 700 "$T/$1" && chown 12345:12345 "$T/$1"; }
  {
    printf 'state = "%s"\n[replica]\nname = "%s"\ndirectory = "%s"\n' "$T/state-$1" "$1" "$T/$1"
    servers "$1"
  } >"$T/$1.toml"
  as_in_the_unit mirrord replica --config "$T/$1.toml" 2>>"$T/$1.err" &
  REPLICA_PIDS[$1]=$!
}
kill_replica() {
  kill -KILL "${REPLICA_PIDS[$1]}"
  wait "${REPLICA_PIDS[$1]}" 2>/dev/null || true
  unset "REPLICA_PIDS[$1]"
}
replica_verb() { mirrord "$2" --socket "$T/state-$1/control.sock" "${@:3}"; }
waited() { replica_verb "$1" wait --timeout 60; }
# replica_equal NAME: everything done so far is there.
replica_equal() {
  # Until it has heard of its source and followed the stream, there is nothing to wait for.
  wait_until 120 "$1 has all" waited "$1"
  python3 "$HERE/replicate/tree_compare.py" "$T/lower" "$T/$1" || fail "$1 differs"
}
no_gap_of() { if grep GAP "$T/$1.err"; then fail "a gap of $1"; fi; }
# shown REPLICA STATE: by the source's host.
shown() { mirrord targets --socket "$SOCKET" | grep -F "$1" | grep -F "$2"; }
# stop_replicas NAME...: in order; each has to end well.
stop_replicas() {
  local name
  for name; do
    kill "${REPLICA_PIDS[$name]}"
    wait "${REPLICA_PIDS[$name]}" || fail "the replica $name ended with $?: $(tail -n 3 "$T/$name.err")"
    unset "REPLICA_PIDS[$name]"
  done
}
