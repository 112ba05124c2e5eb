#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# libtarn as it is installed: the example is built with nothing but pkg-config and follows changes, in their order.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/install.bash"

pc=$(find "$ROOT/usr" -name tarn.pc)
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH
version=$(sed -n 's/^project(tarn VERSION \([^ ]*\) .*/\1/p' "$HERE/../CMakeLists.txt")
[ "$(pkg-config --modversion tarn)" = "$version" ] || fail "pkg-config says version $(pkg-config --modversion tarn)"

# The library was built with sanitizers, if the tests are.
sanitize=$(sed -n 's/^TARN_SANITIZE:STRING=//p' "$BUILD/CMakeCache.txt")
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
cp -r "$ROOT/usr/share/doc/libtarn-dev/examples" "$T/example"
CXXFLAGS="${sanitize:+-fsanitize=$sanitize}" make -C "$T/example" CXX="$compiler" >"$T/make.log" 2>&1 ||
  fail "the example does not build: $(tail -n 20 "$T/make.log")"

tarn mount "$T/lower" "$T/mnt"
tarn rule add --include "$T/lower" >/dev/null
"$T/example/follow_changes" >"$T/changes" 2>"$T/example.err" &
MIRRORD_PID=$!
wait_until 20 "the example is registered" grep -q registered "$T/changes"
mkdir "$T/mnt/a"
printf hello >"$T/mnt/a/b"
mv "$T/mnt/a/b" "$T/mnt/c"
rm "$T/mnt/c"
wait_until 20 "the example has seen the last change" grep -q "unlink $T/lower/c" "$T/changes"
kill "$MIRRORD_PID"
wait "$MIRRORD_PID" || fail "the example ended with $?: $(cat "$T/example.err")"
MIRRORD_PID=
sed -n 's/^[0-9]*: //p' "$T/changes" | grep -v '^setattr' >"$T/seen"
printf '%s\n' "mkdir $T/lower/a" "create $T/lower/a/b" "write $T/lower/a/b, 5 bytes at 0" \
  "rename $T/lower/a/b to $T/lower/c" "unlink $T/lower/c" | diff - "$T/seen" >&2 || fail "the example saw other changes"
# Its numbers are without a gap.
sed -n 's/^\([0-9]*\): .*/\1/p' "$T/changes" | diff - <(seq "$(grep -c '^[0-9]*: ' "$T/changes")") >&2 || fail "numbers are missing"
