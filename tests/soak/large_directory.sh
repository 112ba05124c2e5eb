#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A directory of a million names, a hundred thousand opens and more: tests/fs/many.sh, which a test run has with less.
SOAK_SCALE=${SOAK_SCALE:-1}
[ "$SOAK_SCALE" -gt 1 ] || { echo "skipped: fs/many is the same"; exit 77; }
FS_MANY=$((SOAK_SCALE * 100000)) exec bash "$(dirname "$0")/../fs/many.sh" "$1"
