#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A replica on "another host", which shares nothing with the source but the server of the stream: a first copy, what follows,
# kill -9 of each process, a second replica, a source's host that is away, verify, repair and retire.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
. "$(dirname "$0")/replica.bash"

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
  servers source
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
# What a killed process has read and not logged yet is a gap.
verb wait --timeout 60 || fail "not in the stream"
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
# One that is away in the middle of its first copy holds nobody back.
change 9
replica_equal one
no_gap_of one
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
# On the source's host there is nothing to compare.
verb verify >"$T/found" || fail "verify ends with $? on the source's host"
grep -F 'no target is on this host' "$T/found" >/dev/null || fail "verify says nothing: $(cat "$T/found")"
expect_error "on other hosts" verb verify data/far:one

# One that does not come back is retired, and nothing is kept for it.
kill_replica two
verb retire data/far:two || fail "not retired"
if shown data/far:two ''; then fail "the retired replica is still shown"; fi
expect_error "no replica two" verb retire data/far:two
last=$(in_stream last_seq)
change 8
replica_equal one
no_gap_of one

# When it comes back all the same, the stream does not have what it lacks: it says so, and gets it from the source's log.
forgotten() { [ "$(in_stream first_seq)" -gt $((last + 1)) ]; }
wait_until 60 "the stream has forgotten what the replica has" forgotten
start_replica two
replica_equal two
grep 'the stream lacks the entries .*: asking' "$T/two.err" >/dev/null || fail "a hole that nobody tells of"
if grep 'GAP: the stream lacks' "$T/two.err"; then fail "a gap, though the source's log has all"; fi
wait_until 60 "it is known again" shown data/far:two equal
stop_replicas two one
stop_service
