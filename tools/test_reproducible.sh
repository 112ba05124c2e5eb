#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The Debian packages of the commit are built twice, and must be equal to the byte: in two folders, at two times, with
# another umask, locale, time zone and number of jobs, of files that are older. Where they are not, says which files in them
# differ.
set -euo pipefail
HERE=$(cd "$(dirname "$0")/.." && pwd)
T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-reproducible.XXXXXX")
trap 'rm -rf "$T"' EXIT

say() { printf 'reproducible: %s\n' "$*"; }

# build FOLDER [NAME=VALUE...]: the packages of the clone in FOLDER, built with these variables. A cache of the compiler's
# results would make builds equal that are not.
build() {
  local folder=$1
  shift
  say "building in $folder with umask $(umask), $*"
  env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER CCACHE_DISABLE=1 "$@" "$folder/tools/deb.sh" >"$folder.log" 2>&1 ||
    { cat "$folder.log" >&2; exit 1; }
}

# unpack DEB FOLDER: what is in it, and the list with modes, owners and times.
unpack() {
  mkdir -p "$2"
  dpkg-deb -R "$1" "$2/files"
  dpkg-deb -c "$1" >"$2/list"
}

second=$T/elsewhere/and/deeper/second
git clone -q "$HERE" "$T/first"
(umask 077 && git clone -q "$T/first" "$second")
find "$second" -name .git -prune -o -type f -exec touch -d 2001-02-03 {} +
build "$T/first" LC_ALL=C TZ=UTC JOBS="$(nproc)"
(umask 077 && build "$second" LC_ALL=C.UTF-8 TZ=Pacific/Apia JOBS=$(($(nproc) + 1)))

differ=0 count=0
for deb in "$T/first/build/packages"/*.deb; do
  other=$second/build/packages/$(basename "$deb")
  count=$((count + 1))
  cmp -s "$deb" "$other" && continue
  differ=$((differ + 1))
  say "$(basename "$deb") differs:"
  unpack "$deb" "$T/one"
  unpack "$other" "$T/two"
  diff -r "$T/one" "$T/two" | head -n 20 || true
  rm -rf "$T/one" "$T/two"
done
[ "$count" -gt 0 ] || { say "there are no packages" >&2; exit 1; }
[ "$differ" -eq 0 ] || { say "$differ of $count packages differ" >&2; exit 1; }
say "$count packages are equal"
