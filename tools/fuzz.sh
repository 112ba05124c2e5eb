#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Runs each fuzzer of a build folder, starting from its committed corpus; what it learns stays in the build folder.
# Ends at the first finding, whose input is then in BUILD/fuzz/found.
# usage: fuzz.sh BUILD SECONDS [NAME...]
set -euo pipefail
build=$(cd "${1:?build folder}" && pwd)
seconds=${2:?seconds for each}
shift 2
cd "$(dirname "$0")/.."

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for source in fuzz/*_fuzz.cc; do
    name=${source#fuzz/}
    names+=("${name%_fuzz.cc}")
  done
fi

mkdir -p "$build/fuzz/found"
for name in "${names[@]}"; do
  learnt=$build/fuzz/learnt/$name
  log=$build/fuzz/$name.log
  mkdir -p "$learnt"
  if ! "$build/fuzz/${name}_fuzz" -max_total_time="$seconds" -max_len=4096 -timeout=20 -rss_limit_mb=2500 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz/found/$name-" "$learnt" "fuzz/corpus/$name" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz: $name: a finding, see $log and $build/fuzz/found" >&2
    exit 1
  fi
  echo "fuzz: $name: $(awk '/number_of_executed_units/ { print $2 }' "$log") executions, clean"
done
