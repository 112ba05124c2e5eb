#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# proof.py says whether locks were proven to the end of each step, and with how full tables.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-test.XXXXXX")
trap 'rm -rf "$T"' EXIT
failed=0

# expect TEXT: what proof.py says of the lines that it gets.
expect() {
  cat >"$T/results"
  local said
  said=$("$here/proof.py" "$T/results")
  [ "$said" = "guest: $1" ] || { echo "FAILED: expected \"$1\", got \"$said\"" >&2; failed=1; }
}

expect "locks are not proven: this kernel was built without CONFIG_PROVE_LOCKING" <<'LINES'
ok mapped.shared
done
LINES
expect "locks were proven to the end of all 2 steps, with at most 300 of 2048 lock classes, 900 of 8192 dependency chains" <<'LINES'
ok mapped.shared
proof mapped on lock-classes 200 2048 dependency-chains 900 8192
proof parity/ext2 on lock-classes 300 2048 dependency-chains 800 8192
done
LINES
expect "locks were NOT proven to the end of 1 of 3 steps (load_unload), with at most 300 of 2048 lock classes, 8192 of 8192 dependency chains" <<'LINES'
proof mapped on lock-classes 200 2048 dependency-chains 900 8192
proof load_unload off lock-classes 300 2048 dependency-chains 8192 8192
proof parity/ext2 on lock-classes 300 2048 dependency-chains 800 8192
LINES
exit $failed
