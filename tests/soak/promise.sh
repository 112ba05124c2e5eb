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
. "$(dirname "$0")/../replicate/service.bash"
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
cat >"$CONFIG" <<EOF
[[source]]
name = "data"
directory = "$T/lower/source"
exclude = ["excluded", "nest-a/private"]
[[source.target]]
name = "replica"
directory = "$T/replica"
EOF
start_service

FAILED_RUN=yes
status=0
PYTHONPATH="$HERE/soak" PYTHONDONTWRITEBYTECODE=1 nice -n 10 python3 -m promise \
  --directory "$T" --socket "$SOCKET" --pid "$SERVICE_PID" --mirrord-log "$T/service.err" --journals "$T/journals" \
  --output "$OUTPUT" "${OPTIONS[@]}" || status=$?
if [ $status -ne 0 ]; then
  tarn log >"$T/kernel.log" 2>/dev/null || true
  fail "the promise was not kept"
fi
FAILED_RUN=
stop_service
tarn umount "$T/second"
tarn umount "$T/mnt"
