#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# `tarn stop` ends the tarnd that answers, not the process whose number stands in a file, and says when it takes a mount
# from under programs.
. "$(dirname "$0")/../lib.sh"

tarn mount "$T/lower" "$T/mnt"
sleep 300 &
bystander=$!
echo $bystander >"$TARN_RUN_DIR/tarnd.pid"
out=$(tarn stop 2>&1) || fail "stop: $out"
[ -z "$out" ] || fail "stop said: $out"
kill -0 $bystander || fail "stop ended a bystander"
kill $bystander
if tarn status >/dev/null 2>&1; then fail "tarnd lives on"; fi

tarn mount "$T/lower" "$T/mnt"
exec 7>"$T/mnt/open"
out=$(tarn stop 2>&1) || fail "stop of a busy mount: $out"
case $out in *"programs use $T/mnt"*) ;; *) fail "nothing is said of the programs that use the mount: $out" ;; esac
exec 7>&- || true
mountpoint -q "$T/mnt" && fail "the mount is still there"

# All options are shown, whatever the lower directory is called.
mkdir "$T/a b"
tarn mount "$T/a b" "$T/mnt"
tarn status --json | python3 -c '
import json, sys
options = json.load(sys.stdin)["mounts"][0]["options"]
sys.exit(0 if options.endswith("dir=" + sys.argv[1]) else "the options are " + repr(options))' "$T/a b"
tarn stop
