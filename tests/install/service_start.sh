#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Where systemd runs, who mounts first as root has it start tarnd.service, whatever program mounts. A stand-in for
# systemctl is asked, in a mount namespace where /run is the test's.
if [ "${TARN_TEST_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can have a mount namespace"; exit 77; }
  TARN_TEST_NAMESPACE=1 exec unshare --mount --propagation slave bash "$0" "$@"
fi
. "$(dirname "$0")/../lib.sh"

mount -t tmpfs run /run
mkdir -p /run/systemd/system "$T/bin"
cat >"$T/bin/systemctl" <<'STAND_IN'
#!/bin/sh
echo "$*" >>"$ASKED"
[ "$ANSWER" -ne 0 ] || tarnd --run-dir /run/tarn
exit "$ANSWER"
STAND_IN
chmod 755 "$T/bin/systemctl"
export PATH="$BUILD/packaging/mount:$T/bin:$PATH" ASKED="$T/asked" ANSWER=0
other_run_dir=$TARN_RUN_DIR
cleanup_test() { export TARN_RUN_DIR=$other_run_dir; }
# A mount that fails when tarnd runs already.
expect_failure() {
  mount --bind /dev/null /dev/fuse
  expect_error "cannot mount on $T/mnt" "$@" "$T/lower" "$T/mnt"
  umount /dev/fuse
}
asked() { [ "$(cat "$ASKED" 2>/dev/null)" = "$1" ] || fail "systemctl was asked: $(cat "$ASKED")"; }

# Not for another run directory.
tarn mount "$T/lower" "$T/mnt"
asked ""
tarn stop
unset TARN_RUN_DIR

# Not when tarnd is there already; what it started is not ended when the mount fails.
tarn_mount() { tarn mount "$@"; }
for mount in tarn_mount mount.tarn; do
  : >"$ASKED"
  expect_failure $mount
  asked "start tarnd.service"
  $mount "$T/lower" "$T/mnt"
  asked "start tarnd.service"
  tarn stop
done

# A unit that does not start is named, with where its reason stands; it is not gone around.
: >"$ASKED"
ANSWER=1 expect_error "tarnd.service did not start: see 'journalctl --unit tarnd.service'" mount.tarn "$T/lower" "$T/mnt"
asked "start tarnd.service"
[ ! -e /run/tarn/control ] || fail "tarnd runs although its unit did not start"

# Without the unit tarnd is started as where there is no systemd, and ended when the mount fails.
export ANSWER=5
expect_failure tarn mount
[ ! -e /run/tarn/control ] || fail "tarnd was not ended"
tarn mount "$T/lower" "$T/mnt"
tarn stop
export TARN_RUN_DIR=$other_run_dir
