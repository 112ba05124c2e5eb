# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash
# For tests of the service, after lib.sh: a source lower/ (mounted on mnt/) with targets below $T.
CONFIG="$T/mirrord.toml"
SOCKET="$T/run/mirrord.sock"
SERVICE_PID=""

# configure TARGET...: the source "data" with these targets, $T/TARGET; more lines on stdin go to the source.
configure() {
  local target
  {
    printf 'state = "%s"\n[control]\nsocket = "%s"\n' "$T/service" "$SOCKET"
    printf '[[source]]\nname = "data"\ndirectory = "%s"\n' "$T/lower"
    [ -t 0 ] || cat
    for target in "$@"; do
      printf '[[source.target]]\nname = "%s"\ndirectory = "%s"\n' "$target" "$T/$target"
    done
  } >"$CONFIG"
}

# start_service: and waits until it answers and is registered.
start_service() {
  setsid mirrord run --config "$CONFIG" 2>>"$T/service.err" &
  SERVICE_PID=$!
  # shellcheck disable=SC2034 # lib.sh stops it at the end
  MIRRORD_PID=$SERVICE_PID
  wait_until 30 "the service is connected" connected
}
connected() { service_status | grep '"connected": *true' >/dev/null; }
# Its exit status tells problems, which tests cause.
service_status() { mirrord status --json --socket "$SOCKET" || true; }
verb() { mirrord "$@" --socket "$SOCKET"; }
kill_service() {
  kill -KILL "$SERVICE_PID"
  wait "$SERVICE_PID" 2>/dev/null || true
  # shellcheck disable=SC2034
  SERVICE_PID='' MIRRORD_PID=''
}
stop_service() {
  kill "$SERVICE_PID"
  wait "$SERVICE_PID" || fail "the service ended with $?: $(tail -n 3 "$T/service.err")"
  # shellcheck disable=SC2034
  SERVICE_PID='' MIRRORD_PID=''
}

# equal [TARGET]: everything done so far is there.
equal() {
  verb wait --timeout 120 || fail "not equal: $(service_status)"
  python3 "$HERE/replicate/tree_compare.py" "$T/lower" "$T/${1:-replica}" || fail "${1:-replica} differs"
}
# field NAME: the values of a field of the status, one a line.
field() {
  service_status | python3 -c '
import json, sys
def walk(node):
    if isinstance(node, dict):
        for key, value in node.items():
            if key == sys.argv[1] and not isinstance(value, (dict, list)):
                print(value)
            walk(value)
    elif isinstance(node, list):
        for value in node:
            walk(value)
walk(json.load(sys.stdin))' "$1"
}
state_is() { field state | grep -x "$1" >/dev/null; }
