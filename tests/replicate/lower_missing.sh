#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Mounting what cannot be mounted: one line that says what is wrong, nothing left mounted.
. "$(dirname "$0")/../lib.sh"

expect_error "$T/absent" tarn mount "$T/absent" "$T/mnt"
echo file >"$T/file"
expect_error "$T/file" tarn mount "$T/file" "$T/mnt"
expect_error "$T/no-such-point" tarn mount "$T/lower" "$T/no-such-point"
if mountpoint -q "$T/mnt"; then fail "something is mounted"; fi
# After a refusal a good mount works.
tarn mount "$T/lower" "$T/mnt"
echo here >"$T/lower/file"
[ "$(cat "$T/mnt/file")" = here ]
expect_error "$T/mnt" tarn mount "$T/lower" "$T/mnt"
tarn umount "$T/mnt"
expect_error "$T/mnt" tarn umount "$T/mnt"
