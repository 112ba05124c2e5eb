#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Where the host keeps nothing, what somebody does directly in the lower directory is seen through the mount at once, also where it takes a name away
# from a directory that was visited before or that a process stands in.
. "$(dirname "$0")/../lib.sh"

lower=$T/lower mnt=$T/mnt
tarn mount --cache 0 "$lower" "$mnt"
mkdir "$lower/d"
echo first >"$lower/d/f"
[ "$(cat "$mnt/d/f")" = first ]
cd "$mnt/d"

mv "$lower/d" "$lower/old"
[ ! -e "$mnt/d" ]
mkdir "$lower/d"
echo second >"$lower/d/f"
[ "$(cat "$mnt/d/f")" = second ]
[ "$(cat "$mnt/old/f")" = first ]
[ "$(stat -c %i "$mnt/d")" = "$(stat -c %i "$lower/d")" ]
# Where the process stands nothing has changed.
[ "$(cat f)" = first ]
echo third >f
[ "$(cat "$lower/old/f")" = third ]
cd /

rm -r "$lower/d" "$lower/old"
[ ! -e "$mnt/d" ]
echo file >"$lower/d"
[ "$(cat "$mnt/d")" = file ]
mkdir "$mnt/old"
[ -d "$lower/old" ]
