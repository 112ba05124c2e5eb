#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The daemon's socket: a packet is one message, as the module made it; for a daemon whose hello asks for it, packets
# hold several, padded to multiples of 4. The messages are the same.
. "$(dirname "$0")/../lib.sh"

tarn mount "$T/lower" "$T/mnt"
tarn rule add --include "$T/lower" >/dev/null

cat >"$T/read.py" <<'PYTHON'
import multiprocessing, os, subprocess, sys, time
sys.path.insert(0, sys.argv[1])
import tarn_wire as wire

FLAG, LONGEST, PAGE = 2, 65536, 16 + 4096


def messages_of(packet):
    while packet:
        size = (wire.NLMSGHDR.unpack_from(packet)[0] + 3) // 4 * 4
        assert 16 <= size <= len(packet), (size, len(packet))
        yield packet[:size]
        packet = packet[size:]


def registrations():
    return subprocess.run(["tarn", "log"], stdout=subprocess.PIPE, check=True).stdout.count(b"tarn_process_nl_helo")


def packets(arguments):
    flags, path = arguments
    with wire.connect("daemon") as s, open(path, "wb", buffering=0) as f:
        before = registrations()
        s.send(wire.NLMSGHDR.pack(16, 100, flags, 0, os.getpid()))
        while registrations() == before:
            time.sleep(0.01)
        # Nothing has been sent to this daemon yet: what the hello says counts from the first message on, which is a page.
        for size in (5000, 1 << 18, 3, 70001):
            f.write(os.urandom(size))
        got, count = [], 0
        s.settimeout(20)
        while True:  # until the last page of the last write
            got.append(s.recv(1 << 18))
            last = list(messages_of(got[-1]))[-1] if flags else got[-1]
            fields = wire.decode(last)
            if fields["name"] == "write" and fields["off"] + len(fields["data"]) == 5000 + (1 << 18) + 3 + 70001:
                break
        s.send(wire.message(101))
        return got


def essence(message):
    fields = wire.decode(message)
    return [fields.get(key) for key in ("name", "nlmsg_len", "off", "pagenr", "pages")]


# A process each: the module sends to the number of the process.
with multiprocessing.Pool(1, maxtasksperchild=1) as pool:
    single, together = pool.map(packets, [(0, sys.argv[2] + "/file1"), (FLAG, sys.argv[2] + "/file2")], chunksize=1)
assert all(len(p) == PAGE for p in single if wire.decode(p)["type"] == 9), "a page's buffer was cut"
assert max(map(len, together)) <= LONGEST, "too long"
assert len(together) < len(single) / 2, "%d packets, %d without" % (len(together), len(single))
taken_apart = [m for p in together for m in messages_of(p)]
assert [essence(m) for m in taken_apart] == [essence(p) for p in single]
assert all(m[wire.NLMSGHDR.unpack_from(m)[0]:].strip(b"\0") == b"" for m in taken_apart), "padding"
PYTHON
python3 "$T/read.py" "$HERE/replicate" "$T/mnt"
