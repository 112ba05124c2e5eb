#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A change is replicated, or its loss is declared; never a third thing. Several processes, some without rights, do at
# random everything that a mount allows, and on purpose what may break the promise. They pause now and then: the
# replica must be the lower directory, or mirrord or the module has named each difference. `promise.sh BUILD --help`
# tells the options; what a failed run leaves is in BUILD/soak/promise/.
#
# Without options it is short and one worker does the same each time: with several it still finds, once in a quarter of
# an hour, a difference that nothing declares, which a test of every run must not.
. "$(dirname "$0")/common.bash"
require python3
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }
OUTPUT="$BUILD/soak/promise"
OPTIONS=("${@:2}")
[ ${#OPTIONS[@]} -gt 0 ] || OPTIONS=(--workers 1 --seed 1 --seconds $((20 * SCALE)))

case " ${OPTIONS[*]} " in
  *" --help "*) PYTHONPATH="$HERE/soak" exec python3 -m promise --help ;;
esac

# What explains a failure outlives the test's folder.
cleanup_test() {
  for mount in second third; do mountpoint -q "$T/$mount" && umount -l "$T/$mount"; done
  [ -n "${FAILED_RUN:-}" ] || return 0
  rm -rf "$OUTPUT"
  mkdir -p "$OUTPUT"
  for file in "$T"/*.err "$T"/*.json "$T"/*.log "$TARN_RUN_DIR/tarnd.log" "$T"/journals/*; do
    if [ -e "$file" ]; then cp "$file" "$OUTPUT"; fi
  done
}

chmod 755 "$T"
mkdir "$T/lower/source" "$T/second" "$T/third"
mkdir -m 1777 "$T/journals"
chmod 777 "$T/lower/source"
tarn mount "$T/lower" "$T/mnt"
tarn mount "$T/lower" "$T/second"
tarn rule add --include "$T/lower/source" --exclude "$T/lower/source/excluded" \
  --exclude "$T/lower/source/nest-a/private" >/dev/null
before=$(helo_count)
setsid mirrord --source "$T/lower/source" --replica "$T/replica" --status-file "$STATUS_FILE" \
  2>>"$T/mirrord.err" &
MIRRORD_PID=$!
wait_until 10 "mirrord is registered" eval '[ "$(helo_count)" -gt '"$before"' ]'

FAILED_RUN=yes
status=0
PYTHONPATH="$HERE/soak" PYTHONDONTWRITEBYTECODE=1 nice -n 10 python3 -m promise \
  --directory "$T" --status-file "$STATUS_FILE" --mirrord-log "$T/mirrord.err" --journals "$T/journals" \
  --output "$OUTPUT" "${OPTIONS[@]}" || status=$?
if [ $status -ne 0 ]; then
  tarn log >"$T/kernel.log" 2>/dev/null || true
  fail "the promise was not kept"
fi
FAILED_RUN=
# It ends with 1 when it has declared something.
kill "$MIRRORD_PID"
wait "$MIRRORD_PID" || [ $? -eq 1 ] || fail "mirrord did not end as it should"
MIRRORD_PID=
tarn umount "$T/second"
tarn umount "$T/mnt"
