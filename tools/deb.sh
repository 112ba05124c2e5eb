#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Builds the Debian packages of the committed tree, with uncommitted changes of known files, in build/packages. With the
# argument arm64: by cross compilation in build/packages-arm64, in a Debian 12 of its own that has the compiler and the
# libraries of the other machine, where qemu runs the cases of the kernel and of the module for it, too. That takes root.
set -euo pipefail
cd "$(dirname "$0")/.."

ARCH=${1:-}
WORK=build/packages${ARCH:+-$ARCH}
JOBS=${JOBS:-$(nproc)}
rm -rf "$WORK"
mkdir -p "$WORK/tarn"
git ls-files -z | xargs -0 tar -cf - | tar -C "$WORK/tarn" -xf -
TARN_COMMIT=$(git describe --always --dirty --abbrev=12 '--exclude=*')
# The time stamps in the packages are the commit's: two builds of it give equal packages.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export TARN_COMMIT SOURCE_DATE_EPOCH DEB_BUILD_OPTIONS="parallel=$JOBS"

build_here() { (cd "$WORK/tarn" && dpkg-buildpackage -b -us -uc); }

build_arm64() {
  [ "$(id -u)" -eq 0 ] || { echo "deb: only root can build for $ARCH: a root directory is made for it" >&2; return 1; }
  local root status=0
  root=$(mktemp -d "${TMPDIR:-/tmp}/tarn-deb.XXXXXX")
  mmdebstrap --variant=apt --architectures=amd64,arm64 --include=build-essential,crossbuild-essential-arm64,qemu-user-static \
    bookworm "$root" && in_root_arm64 "$root" || status=1
  rm -rf --one-file-system "$root"
  return $status
}

# No process of it is left when unshare(1) ends, and no mount.
in_root_arm64() {
  mkdir "$1/build"
  cp -a "$WORK/tarn" "$1/build"
  cp /etc/resolv.conf "$1/etc"
  unshare --mount --propagation slave --pid --fork --kill-child --mount-proc="$1/proc" chroot "$1" bash -eux -c '
    cd /build/tarn
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get build-dep -y -qq --no-install-recommends -aarm64 .
    dpkg-buildpackage -aarm64 -b -us -uc
    export QEMU_LD_PREFIX=/
    cmake -DCMAKE_CROSSCOMPILING_EMULATOR=/usr/bin/qemu-aarch64-static build/deb
    cmake --build build/deb -j '"$JOBS"' --target ukern_test module_test
    for cases in ukern_test module_test; do qemu-aarch64-static "build/deb/tests/$cases" --gtest_brief=1; done' || return 1
  find "$1/build" -maxdepth 1 -type f -exec cp -t "$WORK" {} +
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
