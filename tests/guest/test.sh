#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# test.sh BUILD: the guest's tests as one test of ctest. They need a kernel that the project does not have:
# TARN_GUEST_KERNEL names its image, TARN_GUEST_KDIR the tree that it was built in. Without these they are skipped.
set -euo pipefail
if [ -z "${TARN_GUEST_KERNEL:-}" ] || [ -z "${TARN_GUEST_KDIR:-}" ]; then
  echo "skipped: TARN_GUEST_KERNEL and TARN_GUEST_KDIR name no Linux 2.6.18" >&2
  exit 77
fi
exec "$(dirname "$0")/run" --kernel "$TARN_GUEST_KERNEL" --kdir "$TARN_GUEST_KDIR"
