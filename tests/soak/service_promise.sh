#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The service loses nothing and heals itself: while several processes change the source in every way, mirrord and tarnd
# are killed, disks are full, targets vanish and are replaced, rules are deleted. After each fault, what `mirrord wait`
# calls equal is equal. `service_promise.sh BUILD --help` tells the options; a failed run leaves its trees in
# BUILD/soak/service/ or $SOAK_OUTPUT. Without options it is short and does the same each time, as far as processes do.
. "$(dirname "$0")/common.bash"
require python3
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount" >&2; exit 77; }
OUTPUT="${SOAK_OUTPUT:-$BUILD/soak/service}"
OPTIONS=("${@:2}")
[ ${#OPTIONS[@]} -gt 0 ] || OPTIONS=(--seed 1 --faults $((8 * SCALE)))
export PYTHONPATH="$HERE/soak" PYTHONDONTWRITEBYTECODE=1
case " ${OPTIONS[*]} " in
  *" --help "*) exec python3 -m service --directory "$T" --help ;;
esac

# The programs see a clock that can be set. A sanitizer's library has to come before any other.
SHIM="$BUILD/tests/libsoak_clock.so"
[ -e "$SHIM" ] || fail "$SHIM is missing: build the target soak_clock"
SOAK_PRELOAD="$(ldd "$BUILD/mirrord/mirrord" | awk '$1 ~ /^lib[at]san/ { print $3 ":" }')$SHIM"
export SOAK_PRELOAD

FAILED_RUN=
cleanup_test() {
  if [ -n "$FAILED_RUN" ]; then
    rm -rf "$OUTPUT"
    mkdir -p "$OUTPUT"
    for kept in lower service.err mirrord.toml state-disk run/tarnd.log journals manager; do cp -a "$T/$kept" "$OUTPUT"; done
    for disk in "$T"/disk-*; do cp -a "$disk" "$OUTPUT"; done
    echo "the trees are in $OUTPUT" >&2
  fi
  # Nothing may be mounted below the folder when it is removed.
  awk '{ print $5 }' /proc/self/mountinfo | grep "^$T/" | sort -r | while read -r mount; do umount -l "$mount"; done
}

chmod 755 "$T"
mkdir "$T/lower/source"
mkdir -m 1777 "$T/journals"
chmod 777 "$T/lower/source"
FAILED_RUN=yes
nice -n 10 python3 -m service --directory "$T" "${OPTIONS[@]}" || fail "the promise was not kept"
FAILED_RUN=
tarn umount "$T/mnt"
