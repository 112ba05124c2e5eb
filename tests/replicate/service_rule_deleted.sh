#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Somebody deletes the service's rule: 'mirrord wait' does not call a target equal that misses what was not captured.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

tarn mount "$T/lower" "$T/mnt"
configure replica
start_service
for i in 1 2 3; do
  echo "$i" >"$T/mnt/captured-$i"
  equal
  tarn rule del "$(field rule)" >/dev/null
  echo "$i" >"$T/mnt/not-captured-$i"
  equal
done
grep -q 'GAP: the module had no rule for the source until now' "$T/service.err" || fail "a loss without a gap"
stop_service
