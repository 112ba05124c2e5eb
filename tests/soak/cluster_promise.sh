#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Replicas behind a stream lose nothing and heal themselves: while several processes change the source in every way, servers of the
# stream are killed (the leader too), cut off, slow, lose their storage or get an old copy of it back; mirrord, tarnd and replicas are
# killed. Each host is a network namespace, and talks TLS. After each fault, what `mirrord wait` calls equal is equal, and a gap
# is declared only where something may have been lost. `cluster_promise.sh BUILD --help` tells the options; a failed run leaves its trees
# in BUILD/soak/cluster/ or $SOAK_OUTPUT. Without options it is short, with one server, and picks the same faults each time.
. "$(dirname "$0")/common.bash"
require python3 openssl ip tc nsenter
PATH=$PATH:/usr/sbin
require nats-server
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can mount" >&2; exit 77; }
OUTPUT="${SOAK_OUTPUT:-$BUILD/soak/cluster}"
OPTIONS=("${@:2}")
[ ${#OPTIONS[@]} -gt 0 ] || OPTIONS=(--seed 1 --faults $((6 * SCALE)) --servers "$([ "$SCALE" -gt 1 ] && echo 3 || echo 1)")
export PYTHONPATH="$HERE/soak:$HERE/harness" PYTHONDONTWRITEBYTECODE=1
case " ${OPTIONS[*]} " in
  *" --help "*) exec python3 -m cluster --directory "$T" --help ;;
esac

# What the programs see of clocks and where a sanitizer's library comes from: see service_promise.sh.
SHIM="$BUILD/tests/libsoak_clock.so"
[ -e "$SHIM" ] || fail "$SHIM is missing: build the target soak_clock"
SOAK_SANITIZER="$(ldd "$BUILD/mirrord/mirrord" | awk '$1 ~ /^lib[at]san/ { print $3 }')"
SOAK_PRELOAD="${SOAK_SANITIZER:+$SOAK_SANITIZER:}$SHIM"
export SOAK_PRELOAD SOAK_SANITIZER

FAILED_RUN=
cleanup_test() {
  local name
  if [ -n "$FAILED_RUN" ]; then
    rm -rf "$OUTPUT"
    mkdir -p "$OUTPUT"
    for kept in lower service.err t1.err t2.err mirrord.toml state-disk state-t1 state-t2 servers run/tarnd.log journals; do
      (cd "$T" && cp -a "$kept" "$OUTPUT")
    done
    for disk in "$T"/disk-*; do cp -a "$disk" "$OUTPUT"; done
    echo "the trees are in $OUTPUT" >&2
  fi
  ip netns list | awk -v begin="$(basename "$T")-" 'index($1, begin) == 1 { print $1 }' |
    while read -r name; do ip netns del "$name"; done
  # Nothing may be mounted below the folder when it is removed.
  awk '{ print $5 }' /proc/self/mountinfo | grep "^$T/" | sort -r | while read -r name; do umount -l "$name"; done
}

chmod 755 "$T"
mkdir "$T/lower/source"
mkdir -m 1777 "$T/journals"
chmod 777 "$T/lower/source"
FAILED_RUN=yes
nice -n 10 python3 -m cluster --directory "$T" "${OPTIONS[@]}" || fail "the promise was not kept"
FAILED_RUN=
tarn umount "$T/mnt"
