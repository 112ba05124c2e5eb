#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The service copies what was there before, follows what changes while it copies, and does not copy it again after an end.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

mkdir "$T/second"
chmod 700 "$T/lower" "$T/second" # as the service makes its targets
make_tree() {
  for d in $(seq "$2"); do
    mkdir -p "$1/d$d/deep"
    for f in $(seq 20); do printf '%s' "$d.$f" >"$1/d$d/f$f"; done
    ln "$1/d$d/f1" "$1/d$d/deep/link"
    ln -s ../f2 "$1/d$d/deep/symbolic"
    chmod 640 "$1/d$d/f3"
    touch -d '2001-02-03 04:05:06.123456789' "$1/d$d/f4" "$1/d$d/deep"
    truncate -s 1M "$1/d$d/f5"
  done
}
make_tree "$T/lower" 20
mkfifo "$T/lower/fifo"
echo stale >"$T/replica/not-in-the-source"
tarn mount "$T/lower" "$T/mnt"
configure replica second
start_service
# While it copies.
mkdir "$T/mnt/more"
make_tree "$T/mnt/more" 5
mv "$T/mnt/d1" "$T/mnt/renamed"
rm -rf "$T/mnt/d2"
equal replica
equal second
[ ! -e "$T/replica/not-in-the-source" ] || fail "what the source has not is still there"
wait_until 20 "the state is equal" state_is equal
for i in $(seq 50); do
  echo "$i" >>"$T/mnt/grows"
  mv "$T/mnt/renamed/f6" "$T/mnt/renamed/f7" 2>/dev/null || echo "$i" >"$T/mnt/renamed/f6"
done
equal replica
equal second
inode=$(stat -c %i "$T/replica/d3/f1")
stop_service

# Nothing changed: nothing is walked or copied.
start_service
equal replica
[ "$(stat -c %i "$T/replica/d3/f1")" = "$inode" ] || fail "copied again"
grep -q GAP "$T/service.err" && fail "a gap without a loss: $(grep GAP "$T/service.err")"

# Changed while none ran: a gap, and only that is healed.
stop_service
echo changed >>"$T/mnt/d3/f2"
rm "$T/mnt/d3/f3"
mkdir "$T/mnt/new" && echo 1 >"$T/mnt/new/1"
start_service
equal replica
equal second
grep -q GAP "$T/service.err" || fail "a loss without a gap"
stop_service
