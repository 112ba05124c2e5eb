#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Rule records that are wrong: a wrong length, unknown codes, Base64 that is none. Each has its result, and the
# rules that were there stay.
. "$(dirname "$0")/../lib.sh"
wire() { python3 "$HERE/replicate/tarn_wire.py" "$@"; }
expect() { [ "$2" = "$3" ] || fail "$1: expected $2, got $3"; }

tarn mount "$T/lower" "$T/mnt"
uuid=$(tarn rule add --include "$T/lower")
before=$(tarn rule list)

expect "add, one byte short" -1004 "$(wire raw-set 177 16015)"
expect "add, one byte long" -1004 "$(wire raw-set 177 16017)"
expect "add, empty" -1004 "$(wire raw-set 177 0)"
expect "delete, one byte short" -1001 "$(wire raw-set 179 16015)"
expect "unknown set code" -1001 "$(wire raw-set 178 16)"
expect "unknown get code" -1001 "$(wire get 180 24)"
expect "code of nobody" -92 "$(wire raw-set 189 16)"
expect "list with a wrong count" -1005 "$(wire get 179 24)"
expect "delete of an unknown rule" -1003 "$(wire raw-set 179 16016)"
tarn log | grep -q 'do_add: size 16015 != 16016' || fail "no line about the wrong length"
expect "the rules" "$before" "$(tarn rule list)"

# A text that is not Base64 is an entry without a path: the module's meaning for it is the root directory, so
# that a damaged rule replicates too much rather than silently nothing.
expect "bad Base64" 0 "$(wire add 11111111111111111111111111111111 '***')"
tarn rule list | grep -qi 11111111-1111-1111-1111-111111111111 || fail "the rule with bad Base64 is not listed"
tarn rule del 11111111-1111-1111-1111-111111111111
expect_error "11111111-1111-1111-1111-111111111111" tarn rule del 11111111-1111-1111-1111-111111111111
expect_error "$uuid" tarn rule add "$uuid" --include "$T/lower"
expect "the rules" "$before" "$(tarn rule list)"
