#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# While programs write, the service is restarted and killed under a manager that keeps its channel: nothing is lost, so no gap.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

WRITERS=()
cleanup_test() {
  [ ${#WRITERS[@]} -eq 0 ] || kill -KILL "${WRITERS[@]}" 2>/dev/null
}
signal_writers() { kill "-$1" "${WRITERS[@]}"; }
starts() { cat "$T/manager/ready" 2>/dev/null || echo 0; }
started_again() { [ "$(starts)" -gt "$1" ] && connected; }
# end_service SIGNAL: and waits until the next one has connected. Meanwhile the programs go on writing.
end_service() {
  local before
  before=$(starts)
  kill "-$1" "$(cat "$T/manager/pid")"
  [ "$1" != KILL ] || signal_writers CONT
  wait_until 60 "the service is started again" started_again "$before"
}

tarn mount "$T/lower" "$T/mnt"
configure replica
mkdir "$T/manager"
[ -z "${NO_STORE:-}" ] || touch "$T/manager/no-store" # to see the test fail
setsid python3 "$HERE/replicate/service_manager.py" "$T/manager" 0.3 mirrord run --config "$CONFIG" 2>>"$T/service.err" &
MIRRORD_PID=$! # lib.sh stops it at the end
wait_until 30 "the service is connected" connected
: >"$T/mnt/first"
equal

for w in 1 2 3; do
  mkdir "$T/mnt/w$w"
  setsid python3 - "$T/mnt/w$w" <<'EOF' &
import itertools, os, sys, time
os.chdir(sys.argv[1])
for n in itertools.count():
    with open(f"f{n % 50}", "a" if n % 7 else "w") as file:
        file.write(f"{n}\n" * (n % 5 * 200))
    if n % 3 == 0:
        os.rename(f"f{n % 50}", f"g{n % 50}")
    elif n % 50 == 49:
        os.mkdir(f"d{n}")
        os.rename(f"f{n % 50}", f"d{n}/f")
    time.sleep(0.02)
EOF
  WRITERS+=($!)
done

for _ in $(seq 10); do
  end_service TERM
  sleep 0.2
done
grep GAP "$T/service.err" && fail "a restart has left a gap"
for _ in $(seq 5); do
  # What a killed process has read and not logged is lost, so it is killed when there is no such thing.
  signal_writers STOP
  verb wait --timeout 120 || fail "not equal: $(service_status)"
  end_service KILL
  sleep 0.2
done
grep GAP "$T/service.err" && fail "what was written after the service was killed is missing"
[ "$(starts)" = 16 ] || fail "the service was started $(starts) times"
[ "$(field gaps | sort -u)" = 0 ] || fail "gaps: $(service_status)"
[ "$(field captured)" -gt 1000 ] || fail "only $(field captured) changes were made"

# Its last thread may still hold files when the first one is a zombie.
only_a_zombie() {
  local threads=("/proc/$1/task"/*)
  [ ${#threads[@]} = 1 ] && grep -q '^State:.*Z' "/proc/$1/status"
}
# While it is being restarted nobody else becomes the daemon.
pid=$(cat "$T/manager/pid")
kill -STOP "$MIRRORD_PID"
kill -KILL "$pid"
wait_until 10 "the service is dead" only_a_zombie "$pid"
if mirrord --source "$T/lower" --replica "$T/replica" 2>"$T/other.err"; then fail "another daemon was let in"; fi
grep -q 'is the daemon already' "$T/other.err" || fail "refused otherwise: $(cat "$T/other.err")"
before=$(starts)
kill -CONT "$MIRRORD_PID"
wait_until 60 "the service is started again" started_again "$before"

signal_writers KILL
WRITERS=()
equal
stop_mirrord
# A stop is none of this: the manager keeps nothing, and another may come, with a copy of its own to make.
start_mirrord
wait_caught_up
compare_trees "$T/lower" "$T/replica"
stop_mirrord
