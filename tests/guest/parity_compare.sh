# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# Compares the transcripts of the guest, case by case: prints "ok", "FAILED" or "skipped" lines.
grep '^transcript ' "$work/results" | awk -v dir="$work" '{
  file = dir "/" $2 "." $3 "." $4
  line = $0
  for (i = 0; i < 4; i++) sub(/^[^ ]* ?/, "", line)
  print line >file
}' || true
for plain in "$work"/*.*.plain; do
  [ -e "$plain" ] || continue
  mount=${plain%.plain}.mount
  pair=$(basename "$plain" .plain)
  kind=${pair%%.*} name=${pair#*.}
  if grep -qx 'exit status 77' "$plain"; then
    echo "skipped parity/$kind/$name"
  elif [ -e "$mount" ] && said=$(python3 "$top/tests/fs/parity/compare.py" --case "$name" --kind "$kind" --runs-in kernel \
    --differences "$top/tests/fs/parity/differences.txt" "$plain" "$mount" 2>&1); then
    echo "ok parity/$kind/$name"
  else
    printf '%s\n' "${said:-$name: it was not run on the mount}" | sed 's/^/  /'
    echo "FAILED parity/$kind/$name"
  fi
done
