#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Builds the Debian packages of the committed tree, with uncommitted changes of known files, in build/packages. With the
# argument arm64: by cross compilation in build/packages-arm64, in a Debian 12 of its own that has the compiler and the
# libraries of the other machine, and where qemu runs those unit tests that start no programs. That takes root.
set -euo pipefail
cd "$(dirname "$0")/.."

ARCH=${1:-}
WORK=build/packages${ARCH:+-$ARCH}
JOBS=${JOBS:-$(nproc)}
rm -rf "$WORK"
mkdir -p "$WORK/tarn"
TARN_COMMIT=$(git describe --always --dirty --abbrev=12 '--exclude=*')
# The time stamps in the packages are the commit's, also where a file is older: two builds of it give equal packages.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
git ls-files -z | xargs -0 tar --mtime="@$SOURCE_DATE_EPOCH" -cf - | tar -C "$WORK/tarn" -xf -
export TARN_COMMIT SOURCE_DATE_EPOCH DEB_BUILD_OPTIONS="parallel=$JOBS"

build_here() { (cd "$WORK/tarn" && dpkg-buildpackage -b -us -uc); }

build_arm64() {
  [ "$(id -u)" -eq 0 ] || { echo "deb: only root can build for $ARCH: a root directory is made for it" >&2; return 1; }
  ROOT=$(mktemp -d "${TMPDIR:-/tmp}/tarn-deb.XXXXXX")
  trap 'rm -rf --one-file-system "$ROOT"' EXIT
  mmdebstrap --variant=apt --architectures=amd64,arm64 --include=build-essential,crossbuild-essential-arm64,qemu-user-static \
    bookworm "$ROOT" &&
    mkdir "$ROOT/build" && cp -a "$WORK/tarn" "$ROOT/build" && cp /etc/resolv.conf "$ROOT/etc" &&
    in_root_arm64 && find "$ROOT/build" -maxdepth 1 -type f -exec cp -t "$WORK" {} +
}

# No process of it is left when unshare(1) ends, and no mount. qemu 7.2 has no pwritev2(2), which one case is about.
in_root_arm64() {
  unshare --mount --propagation slave --pid --fork --kill-child --mount-proc="$ROOT/proc" chroot "$ROOT" env -u CMAKE_C_COMPILER_LAUNCHER \
    -u CMAKE_CXX_COMPILER_LAUNCHER PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root JOBS="$JOBS" bash -eux -c '
    cd /build/tarn
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get build-dep -y -qq --no-install-recommends -aarm64 .
    dpkg-buildpackage -aarm64 -b -us -uc
    export QEMU_LD_PREFIX=/
    cmake -DCMAKE_CROSSCOMPILING_EMULATOR=/usr/bin/qemu-aarch64-static build/deb
    tests="tests/ukern_test tests/module_test tests/oracle/oracle_test tests/tarnd/tarnd_test"
    tests="$tests tests/mirrord/mirrord_config_test tests/mirrord/mirrord_log_test"
    cmake --build build/deb -j "$JOBS" --target $tests
    export GTEST_BRIEF=1 GTEST_FILTER=-hostfs.appending_lands_at_the_hosts_end
    for test in $tests; do qemu-aarch64-static "build/deb/$test"; done'
}

build=build_here
[ -z "$ARCH" ] || build=build_$ARCH
$build >"$WORK/build.log" 2>&1 || {
  tail -n 40 "$WORK/build.log" >&2
  echo "deb: the build failed; all of it is in $WORK/build.log" >&2
  exit 1
}
lintian --fail-on error,warning "$WORK"/*.changes
ls "$WORK"/*.deb
