#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Builds the Debian packages of the committed tree, with uncommitted changes of known files, in build/packages.
set -euo pipefail
cd "$(dirname "$0")/.."

WORK=build/packages
rm -rf "$WORK"
mkdir -p "$WORK/tarn"
git ls-files -z | xargs -0 tar -cf - | tar -C "$WORK/tarn" -xf -
TARN_COMMIT=$(git describe --always --dirty --abbrev=12 '--exclude=*')
# The time stamps in the packages are the commit's: two builds of it give equal packages.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export TARN_COMMIT SOURCE_DATE_EPOCH
(cd "$WORK/tarn" && DEB_BUILD_OPTIONS="parallel=${JOBS:-$(nproc)}" dpkg-buildpackage -b -us -uc) >"$WORK/build.log" 2>&1 || {
  tail -n 40 "$WORK/build.log" >&2
  echo "deb: the build failed; all of it is in $WORK/build.log" >&2
  exit 1
}
lintian --fail-on error,warning "$WORK"/*.changes
ls "$WORK"/*.deb
