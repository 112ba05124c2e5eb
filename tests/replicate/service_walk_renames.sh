#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Directories and files get from where a walk has not been yet to where it was, and directories that went unseen are
# made again behind it: during a first copy and during a healing.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

COUNT=20
for i in $(seq $COUNT); do
  mkdir -p "$T/lower/d$i/x/deep" "$T/lower/d$i/gone/with"
  for f in 1 2 3; do echo "$i.$f" | tee "$T/lower/d$i/$f" "$T/lower/d$i/x/$f" >"$T/lower/d$i/x/deep/$f"; done
  echo "$i" | tee "$T/lower/d$i/link" >"$T/lower/d$i/file"
done
tarn mount "$T/lower" "$T/mnt"
echo 'copy-files-per-second = 30' | configure replica

# Before a walk, both are "None".
under_way() {
  [ -n "$(field progress | awk '$1 + 0 > 0.2')" ] && [ -n "$(field bytes_per_second | awk '$1 + 0 > 0')" ]
}
# Whatever the order of the walk is, some of these leave what it has not seen for what it has.
exchange() { # FROM TO: their endings
  local other
  wait_until 60 "the walk is under way and tells its rate" under_way
  for i in $(seq $COUNT); do
    other="$T/mnt/d$((COUNT + 1 - i))"
    mv "$T/mnt/d$i/x$1" "$other/x$2"
    mv "$T/mnt/d$i/file$1" "$other/file$2"
    ln "$T/mnt/d$i/link$1" "$other/link$2"
    rm "$T/mnt/d$i/link$1"
    mkdir -p "$T/mnt/d$i/gone"
  done
}
start_service
exchange "" -a
equal
stop_service

# The same sizes as before.
find "$T/mnt" -type f | while read -r f; do
  tr 0-9 5-90-4 <"$f" >"$T/text"
  cat "$T/text" >"$f"
done
rm -r "$T"/mnt/d*/gone
start_service
exchange -a -b
equal
grep -q GAP "$T/service.err" || fail "a loss without a gap"
stop_service
