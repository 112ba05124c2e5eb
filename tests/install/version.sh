#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The version stands in one place, and every program says it, with the commit and the build; the change log begins with it.
set -euo pipefail
BUILD=$(cd "${1:?build folder}" && pwd)
cd "$(dirname "$0")/../.."
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

version=$(sed -n 's/^project(tarn VERSION \([^ ]*\) .*/\1/p' CMakeLists.txt)
commit=$(sed -n 's/^#define TARN_COMMIT "\(.*\)"$/\1/p' "$BUILD/base/commit.h")
if [ -e .git ]; then
  git -c safe.directory="$PWD" cat-file -e "${commit%-dirty}^{commit}" || fail "'$commit' is no commit of this repository"
fi
for program in tarn/tarn tarnd/tarnd mirrord/mirrord packaging/mount/mount.tarn packaging/mount/umount.fuse.tarn; do
  said=$("$BUILD/$program" --version)
  case $said in
    "${program##*/} $version (commit ${commit:?}, "*" build by "*")") ;;
    *) fail "$program says '$said', not version $version and commit $commit" ;;
  esac
done

newest=$(sed -n 's/^## \([^ ]*\).*/\1/p' CHANGELOG.md | head -n 1)
[ "$newest" = "$version" ] || fail "CHANGELOG.md begins with $newest, not with $version"
