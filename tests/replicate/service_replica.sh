#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A replica on "another host", which shares nothing with the source but the server of the stream: a first copy, what follows,
# kill -9 of each process, a second replica, a source's host that is away, verify, repair and retire.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
PATH=$PATH:/usr/sbin
NATS_PID='' NATS_PORT=-1
declare -A REPLICA_PIDS=()
cleanup_test() {
  local pid
  for pid in ${REPLICA_PIDS[@]+"${REPLICA_PIDS[@]}"} $NATS_PID; do kill -KILL "$pid" 2>/dev/null; done
  return 0
}

# The server keeps its port, which it chose at the first start.
start_nats() {
  printf 'listen: "127.0.0.1:%s"\nhttp: "127.0.0.1:-1"\nports_file_dir: "%s"\njetstream { store_dir: "%s", max_file_store: 1GB }\n' \
    "$NATS_PORT" "$T/ports" "$T/nats" >"$T/nats.conf"
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
servers() { printf 'servers = ["nats://127.0.0.1:%s"]\nstream = "data"\n' "$NATS_PORT"; }

# What mirrord-replica.service gives it: another user, and the capabilities that the unit names.
UNIT=$HERE/../packaging/systemd/mirrord-replica.service.in
CAPS=$(sed -n 's/^AmbientCapabilities=//p' "$UNIT" | tr '[:upper:]' '[:lower:]' | sed 's/cap_/+/g; s/ /,/g')
as_in_the_unit() {
  exec setsid setpriv --reuid 12345 --regid 12345 --clear-groups --no-new-privs --bounding-set "-all,$CAPS" --inh-caps \
    "-all,$CAPS" --ambient-caps "-all,$CAPS" "$@"
}

# start_replica NAME: to $T/NAME.
start_replica() {
  [ -d "$T/$1" ] || { mkdir -m 700 "$T/$1" && chown 12345:12345 "$T/$1"; }
  {
    printf 'state = "%s"\n[replica]\nname = "%s"\ndirectory = "%s"\n' "$T/state-$1" "$1" "$T/$1"
    servers
  } >"$T/$1.toml"
  as_in_the_unit mirrord replica --config "$T/$1.toml" 2>>"$T/$1.err" &
  REPLICA_PIDS[$1]=$!
  wait_until 30 "the replica $1 answers" test -S "$T/state-$1/control.sock"
}
kill_replica() {
  kill -KILL "${REPLICA_PIDS[$1]}"
  wait "${REPLICA_PIDS[$1]}" 2>/dev/null || true
  unset "REPLICA_PIDS[$1]"
}
replica_verb() { mirrord "$2" --socket "$T/state-$1/control.sock" "${@:3}"; }
# replica_equal NAME: everything done so far is there.
waited() { replica_verb "$1" wait --timeout 60; }
replica_equal() {
  # Until it has heard of its source and followed the stream, there is nothing to wait for.
  wait_until 120 "$1 has all" waited "$1"
  python3 "$HERE/replicate/tree_compare.py" "$T/lower" "$T/$1" || fail "$1 differs"
}
no_gap_of() { if grep GAP "$T/$1.err"; then fail "a gap of $1"; fi; }
shown() { mirrord targets --socket "$SOCKET" | grep -F "$1" | grep -F "$2"; }

chmod 700 "$T/lower"
for d in $(seq 10); do
  mkdir "$T/lower/d$d"
  for f in $(seq 10); do printf '%s' "$d.$f" >"$T/lower/d$d/f$f"; done
  ln "$T/lower/d$d/f1" "$T/lower/d$d/link"
  ln -s f2 "$T/lower/d$d/symbolic"
  head -c 200K /dev/urandom >"$T/lower/d$d/large"
done
head -c 3M /dev/urandom >"$T/lower/huge"
mkdir "$T/lower/special"
mknod "$T/lower/special/device" c 1 3
mkfifo -m 622 "$T/lower/special/fifo"
for name in owned setuid capable closed; do echo "$name" >"$T/lower/special/$name"; done
chown 2000:3000 "$T/lower/special/owned" "$T/lower/special/closed"
chmod 6755 "$T/lower/special/setuid"
setcap cap_net_raw+ep "$T/lower/special/capable"
chmod 0 "$T/lower/special/closed"
mkdir "$T/lower/left-out"
echo no >"$T/lower/left-out/file"
start_nats
tarn mount "$T/lower" "$T/mnt"
{
  printf 'state = "%s"\n[control]\nsocket = "%s"\n' "$T/service" "$SOCKET"
  printf '[[source]]\nname = "data"\ndirectory = "%s"\nexclude = ["left-out"]\n' "$T/lower"
  echo 'copy-files-per-second = 60'
  printf '[[source.target]]\nkind = "nats"\nname = "far"\n'
  servers
} >"$CONFIG"
start_service
start_replica one
wait_until 60 "the first copy is made" waited one
[ ! -e "$T/one/left-out" ] || fail "the replica has what the source excludes"
rm -r "$T/lower/left-out" # the comparison knows no excludes
replica_equal one
wait_until 60 "the source's host shows the replica" shown data/far:one equal

# What follows, with nothing but the stream for records.
change() {
  echo "$1" >"$T/mnt/d1/f1"
  mv "$T/mnt/d2/f$1" "$T/mnt/d3/moved$1"
  rm "$T/mnt/d4/f$1"
  head -c 1500000 /dev/urandom >"$T/mnt/d5/new$1"
  mkdir -p "$T/mnt/deep$1/er"
  ln "$T/mnt/d5/new$1" "$T/mnt/deep$1/er/name"
  chmod 640 "$T/mnt/d6/f$1"
  chown 4000 "$T/mnt/d7/f$1"
}
change 1
replica_equal one
no_gap_of one

# Each process is killed, and changes go on; nobody declares a gap.
change 2
kill_replica one
change 3
start_replica one
replica_equal one
no_gap_of one
kill_nats
change 4
start_nats
replica_equal one
no_gap_of one
change 5
kill_service
start_service
change 6
replica_equal one
no_gap_of one

# A new replica gets all that is there, although the stream has forgotten the beginning. The walk of its first copy, which takes
# some seconds, is ended by a kill on both sides.
start_replica two
wait_until 30 "the first copy is under way" test -e "$T/two/d1"
kill_service
start_service
kill_replica two
start_replica two
replica_equal two
change 7
replica_equal two
replica_equal one
no_gap_of one

# What somebody has changed in a replica is found and mended.
echo bad >"$T/one/d7/f1"
rm "$T/one/d7/f2"
if replica_verb one verify >"$T/found"; then fail "verify finds nothing"; fi
grep -F d7/f1 "$T/found" >/dev/null || fail "verify does not tell of a changed file: $(cat "$T/found")"
replica_verb one repair >"$T/found" || fail "not repaired: $(cat "$T/found")"
replica_equal one
replica_verb one verify || fail "verify finds differences"

# One that does not come back is retired, and nothing is kept for it.
kill_replica two
verb retire data/far:two || fail "not retired"
if shown data/far:two ''; then fail "the retired replica is still shown"; fi
expect_error "no replica two" verb retire data/far:two
last=$(in_stream last_seq)
change 8
replica_equal one
no_gap_of one

# When it comes back all the same, the stream does not have what it lacks: it says so, and is compared.
forgotten() { [ "$(in_stream first_seq)" -gt $((last + 1)) ]; }
wait_until 60 "the stream has forgotten what the replica has" forgotten
start_replica two
replica_equal two
grep 'GAP: the stream lacks' "$T/two.err" >/dev/null || fail "a hole that nobody tells of"
wait_until 60 "it is known again" shown data/far:two equal
kill "${REPLICA_PIDS[two]}"
wait "${REPLICA_PIDS[two]}" || fail "the replica ended with $?: $(tail -n 3 "$T/two.err")"
unset 'REPLICA_PIDS[two]'

kill "${REPLICA_PIDS[one]}"
wait "${REPLICA_PIDS[one]}" || fail "the replica ended with $?: $(tail -n 3 "$T/one.err")"
unset 'REPLICA_PIDS[one]'
stop_service
