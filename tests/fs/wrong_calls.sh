#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# tarnd that is called wrongly says so in one line, and long mount tables are shown whole.
. "$(dirname "$0")/../lib.sh"

wrong() { expect_error "$1: 'tarnd --help'" tarnd "${@:2}"; }
wrong "wrong option --nonsense" --nonsense
wrong "wrong option -x" -f -x
wrong "-r needs a directory" --run-dir
wrong "the run directory has no name" --run-dir ""
wrong "unexpected argument $T/mnt" "$T/mnt"
if tarnd --nonsense 2>/dev/null; then fail "a wrong option was taken"; fi

# More than one answer of tarnd holds, with lines longer than a page: a blank takes four bytes there.
deep=$T/mnt
for _ in $(seq 14); do deep+=/$(printf '%240s' ''); done
mkdir -p "$deep"
for n in $(seq 12); do
  mkdir "$deep/$n"
  tarn mount "$T/lower" "$deep/$n"
done
tarn status >"$T/status"
for n in $(seq 12); do
  grep -qF "mount: $T/lower at \"$deep/$n\"" "$T/status" || fail "mount $n is not shown"
done
for n in $(seq 12); do tarn umount "$deep/$n"; done
