#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Over a file system in which a directory cannot be opened again, a user who walks through more directories than there are
# descriptors is refused at some point, with a line in the log; root and the control channel go on.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }

DIRECTORIES=3000
LIMIT=2000
chmod 755 "$T"
mount -t ramfs -o mode=755 tarn-ramfs "$T/lower"
mkdir "$T/lower/many" "$T/lower2" "$T/mnt2"
(cd "$T/lower/many" && seq $DIRECTORIES | xargs mkdir)
cleanup_test() {
  umount -l "$T/mnt2" 2>/dev/null
  umount "$T/lower"
}
# The superuser would raise the limit: not without that capability.
(
  ulimit -n "$LIMIT"
  exec setpriv --bounding-set=-sys_resource --inh-caps=-sys_resource "$BUILD/tarn/tarn" mount "$T/lower" "$T/mnt"
) || fail "mounting"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")

if setpriv --reuid=65534 --regid=65534 --clear-groups bash -c 'cd "$1" && seq "$2" | xargs stat' - "$T/mnt/many" $DIRECTORIES \
  >"$T/seen" 2>"$T/refused"; then fail "a user had all $DIRECTORIES directories"; fi
grep -q "Too many open files in system" "$T/refused" || fail "refused with $(head -n 1 "$T/refused")"
[ "$(grep -c '^  File: ' "$T/seen")" -gt $((LIMIT / 4)) ] || fail "refused after $(grep -c '^  File: ' "$T/seen")"
[ "$(ls "/proc/$pid/fd" | wc -l)" -lt $((LIMIT * 7 / 8)) ] || fail "tarnd has $(ls "/proc/$pid/fd" | wc -l) descriptors open"
[ "$(grep -c 'have half of all descriptors' "$TARN_RUN_DIR/tarnd.log")" -ge 1 ] || fail "the log does not say so"
[ "$(wc -l <"$TARN_RUN_DIR/tarnd.log")" -lt 30 ] || fail "the log says it over and over"

tarn status >/dev/null || fail "tarn status"
tarn mount "$T/lower2" "$T/mnt2" || fail "a second mount"
echo text >"$T/mnt2/file"
mkdir "$T/mnt/many/of-root" || fail "root can make no directory"
[ "$(cat "$T/lower2/file")" = text ] || fail "the second mount"
