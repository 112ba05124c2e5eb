#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A C++ project, this one, is configured and built on the mount. What is built runs from there; a second build finds
# nothing to do and one after a header has changed only what depends on it, which is a matter of exact times.
. "$(dirname "$0")/common.bash"
require cmake ninja tar c++

TARGETS=(tarn_module)
[ "$SCALE" -lt 5 ] || TARGETS+=(base64_replay tarn mirrord tarnd)
export CCACHE_DISABLE=1

build() { ninja -C "$T/mnt/build" "${TARGETS[@]}" >"$T/build.err" 2>&1 || fail "the build failed"; }
steps() { grep -c '^\[[0-9]*/' "$T/build.err" || true; }

take_sources
start_soak
cp -a "$T/sources" "$T/mnt/project"
cmake -G Ninja -S "$T/mnt/project" -B "$T/mnt/build" >"$T/configure.err" 2>&1 || fail "cmake failed"
build
whole=$(steps)
[ "$whole" -gt 15 ] || fail "hardly anything was built: $whole steps"
build
grep -q 'ninja: no work to do' "$T/build.err" || fail "what was built is built again: $(steps) steps"
touch "$T/mnt/project/module/base64.h"
build
part=$(steps)
[ "$part" -gt 0 ] && [ "$part" -lt "$whole" ] || fail "$part of $whole steps after a change of one header"
if [ "$SCALE" -ge 5 ]; then
  "$T/mnt/build/fuzz/base64_replay" "$T/mnt/project/fuzz/corpus/base64" >/dev/null || fail "what was built does not work"
  # It comes from no repository.
  version() { "$1" --version | cut -d ' ' -f 1-2; }
  [ "$(version "$T/mnt/build/tarn/tarn")" = "$(version tarn)" ] || fail "what was built is another program"
fi
end_soak
