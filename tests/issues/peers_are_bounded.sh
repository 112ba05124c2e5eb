#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Users who may not configure tarnd cost it a few connections each and no memory to speak of, whatever they ask for, and
# write neither into its log nor into that of its kernel; names in the log are printable.
. "$(dirname "$0")/../lib.sh"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }
chmod 755 "$T"
chmod 1777 "$T/lower"
tarn mount "$T/lower" "$T/mnt"
pid=$(cat "$TARN_RUN_DIR/tarnd.pid")
peak() { awk '/VmHWM/ {print int($2 / 1024)}' "/proc/$pid/status"; }
before=$(peak)
lines=$(tarn log | wc -l)

setpriv --reuid=65534 --regid=65534 --clear-groups env PATH=/usr/bin:/bin python3 - "$TARN_RUN_DIR" <<'PY' || fail "a peer without privileges"
import os
import socket
import struct
import sys

GETSOCKOPT, HELLO = 2, 100
held, answers = [], []
os.chdir(sys.argv[1])
for name in "control", "daemon":
    for _ in range(40):
        peer = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        peer.connect(name)
        held.append(peer)
# Each asks for more than the machine has, before any answer is looked at.
for peer in held[:40]:
    try:
        peer.send(struct.pack("<IiQII", GETSOCKOPT, 177, 200 << 20, 0, 0))
    except OSError:
        pass
for peer in held[:40]:
    try:
        answers.append(peer.recv(100))
    except OSError:
        answers.append(b"")
served = [answer for answer in answers if answer]
if not 1 <= len(served) <= 8:
    sys.exit("%d connections were served" % len(served))
if any(struct.unpack_from("<iIQ", answer) != (-1, 0, 0) for answer in served):
    sys.exit("not refused: %r" % served)
for peer in held[40:]:
    try:
        for _ in range(2000):
            peer.send(struct.pack("<IHHII", 16, HELLO, 0, 0, os.getpid()))
    except OSError:
        pass
PY
[ "$(tarn log | wc -l)" -eq "$lines" ] || fail "the kernel's log has $(tarn log | tail -n 1)"
[ ! -s "$TARN_RUN_DIR/tarnd.log" ] || fail "tarnd.log has $(head -n 1 "$TARN_RUN_DIR/tarnd.log")"
[ $(($(peak) - before)) -lt 100 ] || fail "tarnd took $(($(peak) - before)) MiB"
tarn status >/dev/null || fail "root is not served"

tarn dir add "$T/lower" >/dev/null
tarn dir daemon /usr/sbin/mirrord
name=$'x\n<4>tarn_process_nl_helo: daemon_pid = 1\e[2J'
setpriv --reuid=65534 --regid=65534 --clear-groups bash -c 'mkdir "$1" && ! mv "$1" "$2" 2>/dev/null' - "$T/mnt/$name" "$T/mnt/y" ||
  fail "the rename was not refused"
[ "$(helo_count)" -eq 1 ] || fail "a name has made a line of its own"
tarn log | grep -qF 'x\012<4>tarn_process_nl_helo: daemon_pid = 1\033[2J' || fail "the name is not there: $(tarn log | tail -n 2)"
