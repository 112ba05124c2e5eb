#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# mirrord as it is built for systems without the library of streams and without a service manager: it needs neither, refuses
# a stream with one clear line, and keeps what it has.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
PROGRAM="$BUILD/tests/mirrord/mirrord_without_streams"

readelf -d "$PROGRAM" >"$T/libraries"
grep -q 'NEEDED.*libc' "$T/libraries" || fail "readelf shows no libraries: $(cat "$T/libraries")"
! grep -E 'NEEDED.*(nats|systemd)' "$T/libraries" || fail "it needs what is not there"

configure replica </dev/null
cat >>"$CONFIG" <<END
[[source.target]]
name = "elsewhere"
kind = "nats"
servers = ["nats://127.0.0.1:4222"]
stream = "data"
END
"$PROGRAM" check --config "$CONFIG" || fail "the configuration is good"
status=0
timeout 20 "$PROGRAM" run --config "$CONFIG" 2>"$T/refused.err" || status=$?
[ "$status" -eq 1 ] || fail "ended with $status: $(cat "$T/refused.err")"
[ "$(wc -l <"$T/refused.err")" -eq 1 ] || fail "not one line: $(cat "$T/refused.err")"
grep -qF 'data/elsewhere: this mirrord is built without streams' "$T/refused.err" || fail "it said: $(cat "$T/refused.err")"

# Without the stream it goes on with what the refusal has left.
configure replica </dev/null
mkdir -p "$T/lower/folder"
echo contents >"$T/lower/folder/file"
tarn mount "$T/lower" "$T/mnt"
ln -s "$PROGRAM" "$T/mirrord"
PATH="$T:$PATH"
hash -r
start_service
echo more >"$T/mnt/folder/more"
equal
stop_service
