#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The service is killed again and again at any moment: during a first copy, while nothing is changed, and under a mixed
# workload. After the last start both targets are equal, and no gap was declared that the numbers do not justify.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
SEED=${SEED:-$RANDOM}
RANDOM=$SEED
echo "SEED=$SEED repeats the moments"
WRITERS=()
cleanup_test() {
  [ ${#WRITERS[@]} -eq 0 ] || kill "${WRITERS[@]}" 2>/dev/null
  return 0
}
mkdir "$T/second"
chmod 700 "$T/lower" "$T/second"
for d in $(seq 40); do
  mkdir "$T/lower/d$d"
  for f in $(seq 40); do printf '%s' "$d.$f" >"$T/lower/d$d/f$f"; done
  ln "$T/lower/d$d/f1" "$T/lower/d$d/link"
  ln -s f2 "$T/lower/d$d/symbolic"
  head -c 200K /dev/urandom >"$T/lower/d$d/large"
done
tarn mount "$T/lower" "$T/mnt"
echo 'copy-files-per-second = 800' | configure replica second

# Lines of the source itself, not of its targets.
source_gaps() { grep -h 'mirrord: data: GAP: ' "$T/service.err" | sed 's/.*GAP: //'; }
nap() { sleep "$(printf '%d.%03d' $((RANDOM % $1 / 1000)) $((RANDOM % $1 % 1000)))"; }
# kill_within MILLISECONDS: starts it, and kills it at some moment after, perhaps before it answers.
kill_within() {
  setsid mirrord run --config "$CONFIG" 2>>"$T/service.err" &
  SERVICE_PID=$! MIRRORD_PID=$!
  nap "$1"
  kill -0 "$SERVICE_PID" || fail "the service ended by itself: $(tail -n 3 "$T/service.err")"
  kill_service
}

# The first copy, which takes two seconds and more. Nothing is changed, so nothing can be missing.
for _ in $(seq 4); do kill_within 2500; done
start_service
equal replica
equal second
[ -z "$(source_gaps)" ] || fail "a gap although nothing was changed: $(source_gaps)"

# Everything is equal, and nothing is changed.
for _ in $(seq 2); do
  kill_service
  kill_within 1500
  start_service
done
state_is equal || verb wait --timeout 60
[ -z "$(source_gaps)" ] || fail "a gap although nothing was changed: $(source_gaps)"
if grep "GAP" "$T/service.err"; then fail "a target misses something although nothing was changed"; fi

# Changed, applied by no or one target, and nothing is changed while the service is away.
echo one >"$T/mnt/d1/f1"
mv "$T/mnt/d2/f1" "$T/mnt/d2/renamed"
rm "$T/mnt/d3/f2"
verb wait data/replica --timeout 60
kill_service
start_service
equal replica
equal second
[ -z "$(source_gaps)" ] || fail "a gap although all had been received: $(source_gaps)"

# A mixed workload by several programs.
writer() {
  local i d f
  set +e # names go and come
  RANDOM=$((SEED + $1))
  trap 'exit 0' TERM
  for ((i = 0; ; i++)); do
    d="$T/mnt/d$((1 + RANDOM % 40))" f="w$1-$((RANDOM % 9))"
    case $((RANDOM % 12)) in
      0 | 1 | 2) echo "$i" >>"$d/$f" ;;
      3) head -c $((RANDOM * 4)) /dev/urandom >"$d/$f" ;;
      4) mv "$d/$f" "$T/mnt/d$((1 + RANDOM % 40))/$f" ;;
      5) rm -f "$d/$f" ;;
      6) ln "$d/$f" "$d/$f-link$((i % 5))" ;;
      7) ln -sfn "$i" "$d/symbolic-$1" ;;
      8) chmod $((RANDOM % 8))$((RANDOM % 8))$((RANDOM % 8)) "$d/f$((1 + RANDOM % 40))" ;;
      9) mkdir -p "$d/new-$1/deep" && echo "$i" >"$d/new-$1/deep/file" ;;
      10) mv "$d/new-$1" "$T/mnt/moved-$1-$((RANDOM % 4))" ;;
      11) rm -rf "$T/mnt/moved-$1-$((RANDOM % 4))" ;;
    esac
    touch -d "2020-01-01 00:00:$((i % 60))" "$d/f$((1 + RANDOM % 40))"
  done
}
for n in 1 2; do
  writer "$n" 2>/dev/null &
  WRITERS+=($!)
done
KILLS=6
for _ in $(seq $KILLS); do
  nap 1500
  kill_service
  nap 400
  start_service
done
nap 1500
kill "${WRITERS[@]}"
wait "${WRITERS[@]}" || true
WRITERS=()
equal replica
equal second
wait_until 20 "the state is equal" state_is equal

# A gap says which numbers are missing. They only grow, come once, have been given to a record, and there is no more than one
# hole for each end; more is only told of a record that was cut in two.
source_gaps >"$T/gaps"
python3 - "$T/gaps" "$(field captured)" $KILLS <<'PY' || fail "gaps that the numbers do not justify: $(cat "$T/gaps")"
import re, sys
last, holes, bad = 0, 0, []
for line in open(sys.argv[1]):
    line = line.strip()
    hole = re.fullmatch(r"records (\d+) to (\d+) are missing", line)
    cut = re.fullmatch(r"record (\d+) ends after \d+ of its pages", line)
    if hole:
        first, end = map(int, hole.groups())
        if not last < first <= end <= int(sys.argv[2]):
            bad.append(line)
        last, holes = end, holes + 1
    elif not cut or not last < int(cut[1]) <= int(sys.argv[2]):
        bad.append(line)
if holes > int(sys.argv[3]):
    bad.append("%d holes, %s ends" % (holes, sys.argv[3]))
print("\n".join(bad))
sys.exit(bool(bad))
PY
verb verify || fail "verify finds differences"
stop_service
