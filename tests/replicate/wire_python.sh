#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Every kind of change is made on a mount while an independent reader listens on the channel; what it decodes is,
# field by field, what was done.
. "$(dirname "$0")/../lib.sh"

UUID=01234567-89AB-CDEF-1032-547698BADCFE
tarn mount "$T/lower" "$T/mnt"
tarn rule add "$UUID" --include "$T/lower" --exclude "$T/lower/left-out" >/dev/null
python3 "$HERE/replicate/wire_changes.py" "$T/lower" "$T/mnt" "$T/messages" "$UUID" 2>"$T/changes.err" ||
  fail "the messages do not say what was done"
tarn umount "$T/mnt"
