# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash
# Sourced after ../lib.sh by tests of what `make install` installs: $ROOT is an installation with the prefix $ROOT/usr, for
# this test alone.

ROOT=$T/root
cmake --install "$BUILD" --prefix "$ROOT/usr" >"$T/install.log" 2>&1 || fail "it does not install: $(tail -n 5 "$T/install.log")"
export PATH="$ROOT/usr/bin:$ROOT/usr/sbin:$PATH"
