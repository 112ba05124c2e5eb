#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Runs the tests of real programs for long, one after another, with the programs of each build folder given. What a
# test says is in BUILD/soak/NAME.log; the first one that fails ends the run.
# usage: SOAK_SCALE=N soak.sh BUILD...
set -euo pipefail
: "${SOAK_SCALE:?how many times the work of a test run}" "${1:?build folder}"
export SOAK_SCALE
tests=$(cd "$(dirname "$0")/../tests/soak" && pwd)

for build; do
  mkdir -p "$build/soak"
  for script in "$tests"/*.sh; do
    name=$(basename "$script" .sh)
    log=$build/soak/$name.log
    SECONDS=0
    status=0
    bash "$script" "$build" >"$log" 2>&1 || status=$?
    case $status in
      0) echo "soak: $build: $name: passed in $SECONDS s" ;;
      77) echo "soak: $build: $name: $(grep skipped "$log")" ;;
      *)
        tail -n 60 "$log" >&2
        echo "soak: $build: $name: failed, see $log" >&2
        exit 1
        ;;
    esac
  done
done
