#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Directories are renamed while nobody listens: a rename changes no time of what is below it, and all of it is healed.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

make_tree() {
  mkdir -p "$1/deep/deeper"
  for f in 1 2 3; do
    echo "$2 $f" >"$1/$f"
    echo "$2 $f" >"$1/deep/$f"
    echo "$2 $f" >"$1/deep/deeper/$f"
  done
}
tarn mount "$T/lower" "$T/mnt"
configure replica
for d in one two three four; do make_tree "$T/mnt/$d" $d; done
ln "$T/mnt/four/deep/deeper/1" "$T/mnt/linked"
start_service
equal
stop_service
sleep 65 # more than records may come late, with the slack that coarse file times are given

mv "$T/mnt/one" "$T/mnt/elsewhere"
mv "$T/mnt/two" "$T/mnt/one"
mkdir "$T/mnt/parent"
mv "$T/mnt/three" "$T/mnt/parent/three"
mv "$T/mnt/four" "$T/mnt/three"
start_service
equal
grep -q GAP "$T/service.err" || fail "a loss without a gap"
grep -q 'one 1' "$T/replica/elsewhere/deep/deeper/1" || fail "another file"
[ "$(stat -c %h "$T/replica/linked")" -eq 2 ] || fail "the hard link is not one any more"
stop_service
