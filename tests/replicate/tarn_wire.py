#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""An independent reader of the wire format and the two channels, for tests: nothing here shares code with the
module or with libtarn, only docs/wire_format.md.

As a program:
  tarn_wire.py add UUID-HEX WORKDIR-TEXT      rule add with that very text; prints the module's result
  tarn_wire.py raw-set CODE LENGTH            socket option CODE with LENGTH zero bytes; prints the result
  tarn_wire.py get CODE LENGTH                reads option CODE with a LENGTH-byte buffer; prints the result
  tarn_wire.py send TYPE PAYLOAD-HEX [LEN]    sends one netlink message; LEN overrides nlmsg_len
  tarn_wire.py dump FILE [SECONDS]            registers as the daemon, appends each message received to FILE
                                              (4-byte length, bytes) until nothing comes for SECONDS
  tarn_wire.py decode FILE                    prints each message of such a file as one line
"""
import os
import socket
import struct
import sys

NLMSGHDR = struct.Struct("=IHHII")
HEAD = struct.Struct("=16sQIBBHI")  # uuid, ts, wseq, op, os, cp, seq: bytes 0..35
NAMES = {0: "create", 1: "mkdir", 2: "unlink", 3: "rmdir", 5: "symlink", 6: "link", 7: "rename",
         8: "setattr", 9: "write"}


def run_dir():
    if "TARN_RUN_DIR" in os.environ:
        return os.environ["TARN_RUN_DIR"]
    if os.getuid() == 0:
        return "/run/tarn"
    base = os.environ.get("XDG_RUNTIME_DIR")
    return base + "/tarn" if base else "/tmp/tarn-%d" % os.getuid()


def connect(name):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    s.connect(os.path.join(run_dir(), name))
    return s


def control(op, arg=0, room=0, data=b""):
    """One request on the control channel: (result, total, bytes of the first reply)."""
    with connect("control") as s:
        s.send(struct.pack("=IiQII", op, arg, room, len(data), 0) + data)
        reply = s.recv(1 << 17)
    result, length, total = struct.unpack_from("=iIQ", reply)
    return result, total, reply[16:16 + length]


def set_option(code, data):
    return control(1, code, 0, data)[0]


def get_option(code, data, room):
    return control(2, code, room, data)


def rule(uuid, workdir):
    return uuid + workdir.ljust(16000, b"\0")


def message(kind, payload=b"", length=None):
    return NLMSGHDR.pack(16 + len(payload) if length is None else length, kind, 0, 0, os.getpid()) + payload


class Malformed(Exception):
    pass


def text(field):
    if not field.endswith(b"\0") or b"\0" in field[:-1]:
        raise Malformed("a string of %d bytes is not NUL-terminated" % len(field))
    return field[:-1]


def decode(datagram):
    """A dictionary of every field of one message of the module."""
    if len(datagram) < 16:
        raise Malformed("no header")
    length, kind, flags, seq, pid = NLMSGHDR.unpack_from(datagram)
    if not 16 <= length <= len(datagram):
        raise Malformed("nlmsg_len %d in %d bytes" % (length, len(datagram)))
    out = {"type": kind, "flags": flags, "nlmsg_seq": seq, "nlmsg_pid": pid, "nlmsg_len": length}
    body = datagram[16:length]
    if kind == 12:
        if len(body) != 16:
            raise Malformed("stop notice of %d bytes" % len(body))
        return {**out, "name": "stop-rule", "uuid": body.hex()}
    if kind not in (9, 10):
        return {**out, "name": "type-%d" % kind, "body": body.hex()}
    if len(body) < 44:
        raise Malformed("record of %d bytes" % len(body))
    uuid, ts, wseq, op, os_, _, _ = HEAD.unpack_from(body)
    out.update(uuid=uuid.hex(), ts=ts, wseq=wseq, op=op, os=os_, name=NAMES.get(op, "op-%d" % op))
    return {**out, **record(op, kind, body)}


def record(op, kind, body):
    if op in (0, 1, 2, 3, 5, 6, 7):
        dlen1, dlen2, mode = struct.unpack_from("=HHI", body, 36)
        if len(body) != 44 + dlen1 + dlen2:
            raise Malformed("name record of %d bytes says %d + %d" % (len(body), dlen1, dlen2))
        out = {"path": text(body[44:44 + dlen1]), "mode": mode}
        if dlen2:
            out["second"] = text(body[44 + dlen1:])
        return out
    if op == 8:
        dlen1, dlen2 = struct.unpack_from("=II", body, 36)
        if dlen1 != 12 or len(body) != 88 + dlen1 + dlen2:
            raise Malformed("attribute record of %d bytes says %d + %d" % (len(body), dlen1, dlen2))
        valid, mode, size, atime, mtime, ctime, alen, _ = struct.unpack_from("=iiQqqqhh", body, 44)
        shadow, uid, gid = struct.unpack_from("=III", body, 88)
        if alen != 56 or shadow != mode & 0xffffffff:
            raise Malformed("attribute block: len %d, shadow %o of %o" % (alen, shadow, mode))
        return {"valid": valid, "mode": mode, "size": size, "atime": atime, "mtime": mtime, "ctime": ctime,
                "uid": uid, "gid": gid, "path": text(body[100:])}
    if op == 9:
        wtype, dlen1, dlen2, off, pagenr, pages = struct.unpack_from("=HHIQII", body, 36)
        if len(body) != 60 + dlen1 + dlen2 or dlen1 % 8 or wtype != (1 if kind == 10 else 2):
            raise Malformed("write of %d bytes says %d + %d, type %d" % (len(body), dlen1, dlen2, wtype))
        out = {"wtype": wtype, "off": off, "pagenr": pagenr, "pages": pages, "data": body[60 + dlen1:]}
        if dlen1:
            out["path"] = body[60:60 + dlen1].split(b"\0")[0]
            if (len(out["path"]) + 1 + 7) // 8 * 8 != dlen1:
                raise Malformed("path of %d bytes in a field of %d" % (len(out["path"]), dlen1))
        elif pagenr == 0:
            raise Malformed("first page without a path")
        return out
    raise Malformed("operation %d" % op)


def dump(path, idle):
    with connect("daemon") as s, open(path, "ab") as f:
        s.send(message(100))
        print("registered", flush=True)
        s.settimeout(idle)
        try:
            while True:
                datagram = s.recv(1 << 17)
                if not datagram:
                    break
                f.write(struct.pack("=I", len(datagram)) + datagram)
                f.flush()
        except socket.timeout:
            pass
        s.send(message(101))


def messages(path):
    with open(path, "rb") as f:
        while head := f.read(4):
            yield f.read(struct.unpack("=I", head)[0])


def show(fields):
    data = fields.pop("data", None)
    if data is not None:
        fields["bytes"] = len(data)
    return " ".join("%s=%s" % (k, os.fsdecode(v) if isinstance(v, bytes) else v) for k, v in fields.items())


def main(argv):
    verb = argv[1] if len(argv) > 1 else ""
    if verb == "add":
        print(set_option(177, rule(bytes.fromhex(argv[2]), os.fsencode(argv[3]))))
    elif verb == "raw-set":
        print(set_option(int(argv[2]), bytes(int(argv[3]))))
    elif verb == "get":
        print(get_option(int(argv[2]), bytes(int(argv[3])), int(argv[3]))[0])
    elif verb == "send":
        with connect("daemon") as s:
            s.send(message(int(argv[2]), bytes.fromhex(argv[3]), int(argv[4]) if len(argv) > 4 else None))
    elif verb == "dump":
        dump(argv[2], float(argv[3]) if len(argv) > 3 else 2.0)
    elif verb == "decode":
        for datagram in messages(argv[2]):
            print(show(decode(datagram)))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
