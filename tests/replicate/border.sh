#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What no record tells whole: renames and links across a rule's border, special files, refused changes, a replica that
# others may enter. The replica is identical, and nothing is counted as a problem.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"

chmod 755 "$T/replica"
mkdir -p "$T/lower/tmp/tree/deep" "$T/replica"
echo outside >"$T/lower/tmp/tree/deep/f"
ln "$T/lower/tmp/tree/deep/f" "$T/lower/tmp/tree/g"
mkfifo "$T/lower/tmp/tree/p"
tarn mount "$T/lower" "$T/mnt"
configure replica <<<'exclude = ["tmp"]'
start_service
cd "$T/mnt"

echo draft >tmp/f
mv tmp/f f
mv tmp/tree tree
echo more >>tree/g
ln tmp/../f second
echo out >gone
mkdir -p away/below
echo out >away/below/f
mv gone tmp/gone
mv away tmp/away

mkfifo pipe
chmod 600 pipe
python3 -c 'import os, socket; socket.socket(socket.AF_UNIX).bind("agent"); os.chmod("agent", 0o640)'
echo regular >replaced
mkfifo new && mv new replaced
mkdir kept && mkfifo kept/p
if rmdir kept 2>/dev/null; then fail "a directory with a FIFO in it was removed"; fi
echo later >kept/f
chmod 644 kept/p
touch -d '1965-04-03 02:01:00.123456 UTC' f
ln -s nowhere link
[ "$(id -u)" -ne 0 ] || chown -h 12:34 link
touch 'name (deleted)'
echo data >'name (deleted)'

# A descriptor of a file that is renamed over: its bytes are nobody's.
echo one >abc
echo two >over
exec 7>>abc
mv over abc
echo nameless >&7
exec 7>&-
# One of two names goes while the file is open: it has the other.
echo first >name1
ln name1 name2
exec 7>>name1
rm name1
echo second >&7
exec 7>&-
cd "$T"

verb wait --timeout 60 || fail "$(tail -n 3 "$T/service.err")"
[ "$(field gaps | sort -u)" = 0 ] || fail "a gap: $(service_status)"
[ "$(field failures)" = 0 ] || fail "something failed: $(service_status)"
mv "$T/lower/tmp" "$T/excluded"
compare_trees "$T/lower" "$T/replica"
mv "$T/excluded" "$T/lower/tmp"
[ "$(stat -c %a "$T/replica")" = 700 ] || findmnt -no OPTIONS -T "$T/replica" | grep -q nosuid ||
  fail "others may enter the replica"
stop_service
tarn umount "$T/mnt"
