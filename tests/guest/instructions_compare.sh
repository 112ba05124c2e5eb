# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# The table of what was counted; in the document TARN_GUEST_COUNTS too, if that is set.
if grep -qx 'ok instructions.every_call' "$work/results"; then
  "$here/instructions.py" "$work/results" ${TARN_GUEST_COUNTS:+"$TARN_GUEST_COUNTS"}
fi
