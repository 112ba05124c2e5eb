#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Makes changes on a mount, dumps what the module sends to its daemon with tarn_wire.py, and compares each message,
field by field, with what was done.

usage: wire_changes.py LOWER MOUNTPOINT DUMP-FILE RULE-UUID

One rule includes LOWER and leaves LOWER/left-out out.
"""
import contextlib
import os
import stat
import subprocess
import sys
import time

import tarn_wire

HERE = os.path.dirname(os.path.abspath(__file__))
UMASK = 0o027

# Bits of `valid`, as docs/wire_format.md has them.
MODE, UID, GID, SIZE, ATIME, MTIME, CTIME = 1, 2, 4, 8, 16, 32, 64
NAMED = MODE | UID | GID | SIZE | ATIME | MTIME | CTIME

# Sizes of the format, by hand.
PAYLOAD = 4096      # bytes of a page message behind its netlink header
LATER = 4036        # data bytes of a page message without a path: 4096 - 60
NETLINK_HEAD = 16

# A path of 151 bytes takes 152 with its NUL, which is a multiple of 8: 4096 - 60 - 152 = 3884 data bytes fit beside it.
# One byte more takes a field of 160: 3876.
SHORT_PATH, SHORT_FIRST = 151, 3884
LONG_PATH, LONG_FIRST = 152, 3876


def data(size, seed):
    """Bytes that differ from offset to offset and from one write to the next."""
    return bytes((i * 7 + (i >> 8) * 13 + seed) & 0xff for i in range(size))


def split(size, first):
    """Data bytes of each message of a write of which `first` fit beside the path."""
    if size <= first:
        return [size]
    rest = size - first
    return [first] + [LATER] * (rest // LATER) + ([rest % LATER] if rest % LATER else [])


class Failed(Exception):
    pass


def same(got, wanted, what):
    if got == wanted:
        return
    if what == "data":
        at = next((i for i, (a, b) in enumerate(zip(got, wanted)) if a != b), min(len(got), len(wanted)))
        raise Failed("data: %d bytes, wanted %d, different from byte %d on" % (len(got), len(wanted), at))
    raise Failed("%s: got %r, wanted %r" % (what, got, wanted))


class Changes:
    """Does things on the mount and notes what the records must say, one function for each record."""

    def __init__(self, lower, mount):
        self.lower = os.fsencode(lower)
        self.mount = os.fsencode(mount)
        self.expected = []

    def at(self, name):
        return os.path.join(self.mount, name)

    def below(self, name):
        return os.path.join(self.lower, name)

    def name_of_length(self, length, letter):
        """A name whose lower path has that many bytes."""
        return letter * (length - len(self.below(b"")))

    def expect(self, name, path, **fields):
        self.expected.append((name, {"path": self.below(path), **fields}))

    def expect_new(self, name, path, mode):
        """The two records of a file or directory that was made."""
        self.expect(name, path, mode=mode)
        made = os.lstat(self.below(path))
        parent = os.stat(os.path.dirname(self.below(path)))
        self.expect("setattr", path, valid=MODE | UID | GID | CTIME, mode=mode, size=0, uid=made.st_uid,
                    gid=made.st_gid, atime=parent.st_atime_ns // 1000, mtime=parent.st_mtime_ns // 1000,
                    ctime=parent.st_ctime_ns // 1000)

    def create(self, path, mode):
        fd = os.open(self.at(path), os.O_CREAT | os.O_EXCL | os.O_RDWR, mode)
        self.expect_new("create", path, stat.S_IFREG | mode & ~UMASK)
        return fd

    def mkdir(self, path, mode):
        os.mkdir(self.at(path), mode)
        self.expect_new("mkdir", path, mode & ~UMASK)

    def write(self, fd, path, offset, content, first):
        """A write at the start of a page, which the host kernel hands over as it is."""
        same(os.pwrite(fd, content, offset), len(content), "bytes written")
        pages = split(len(content), first)
        for number, size in enumerate(pages):
            fields = {"off": offset, "data": content[:size], "pagenr": number, "pages": len(pages),
                      "wtype": 1 if len(pages) == 1 else 2}
            if number == 0:
                fields["path"] = self.below(path)
            self.expected.append(("write", fields))
            content = content[size:]
            offset += size

    def setattr(self, path, valid, **fields):
        """`valid`: of the bits that name a value; `fields`: the values that the caller chose."""
        self.expect("setattr", path, named=valid, **fields)


def do_names(c):
    c.mkdir(b"dir", 0o777)
    c.mkdir(b"dir/sub \n\xff\xc3", 0o1755)
    os.close(c.create(b"dir/file", 0o666))
    os.symlink(b"../not there/\xfe", c.at(b"link"))
    c.expect("symlink", b"link", second=b"../not there/\xfe", mode=0o7777)
    os.symlink(b"/" + b"t" * 4000, c.at(b"long link"))
    c.expect("symlink", b"long link", second=b"/" + b"t" * 4000, mode=0o7777)
    os.link(c.at(b"dir/file"), c.at(b"hard"))
    c.expect("link", b"dir/file", second=c.below(b"hard"), mode=0)
    os.rename(c.at(b"hard"), c.at(b"dir/moved"))
    c.expect("rename", b"hard", second=c.below(b"dir/moved"), mode=stat.S_IFREG | 0o640)
    os.rename(c.at(b"dir"), c.at(b"renamed"))
    c.expect("rename", b"dir", second=c.below(b"renamed"), mode=stat.S_IFDIR | 0o750)
    with contextlib.suppress(OSError):
        os.rmdir(c.at(b"renamed"))
        raise Failed("a directory with files in it was removed")
    c.expect("rmdir", b"renamed", mode=0)
    os.unlink(c.at(b"renamed/moved"))
    c.expect("unlink", b"renamed/moved", mode=0)
    os.rmdir(c.at(b"renamed/sub \n\xff\xc3"))
    c.expect("rmdir", b"renamed/sub \n\xff\xc3", mode=0)
    os.mkfifo(c.at(b"fifo"))  # not captured


def do_attributes(c):
    path = b"attributes"
    os.close(c.create(path, 0o644))
    os.chmod(c.at(path), 0o4751)
    c.setattr(path, MODE | CTIME, mode=stat.S_IFREG | 0o4751)
    os.chmod(c.at(path), 0o600)
    c.setattr(path, MODE | CTIME, mode=stat.S_IFREG | 0o600)
    os.truncate(c.at(path), 12345678)
    c.setattr(path, SIZE, size=12345678)
    os.truncate(c.at(path), 3)
    c.setattr(path, SIZE, size=3)
    os.utime(c.at(path), ns=(981173106789012999, 4102444800000001999))
    c.setattr(path, ATIME | MTIME | CTIME, atime=981173106789012, mtime=4102444800000001)
    if os.geteuid() == 0:
        os.chown(c.at(path), 4711, 4712)
        c.setattr(path, UID | GID | CTIME, uid=4711, gid=4712)
        os.chown(c.at(path), -1, 0)
        c.setattr(path, GID | CTIME, gid=0)


def do_writes(c, length, first, letter):
    path = c.name_of_length(length, letter)
    same(len(c.below(path)), length, "length of the path")
    fd = c.create(path, 0o640)
    # Whole up to the last byte that fits, then pages; a last page that is full, and one of a single byte.
    sizes = [1, 100, first, first + 1, first + LATER, first + LATER + 1, 10000, 70001]
    for number, size in enumerate(sizes):
        c.write(fd, path, 0, data(size, number), first)
    c.write(fd, path, 4096, data(8192, 77), first)
    c.write(fd, path, 1 << 33, data(first, 78), first)
    os.close(fd)


def do_left_out(c):
    """None of this falls under the rule."""
    left_out = c.at(b"left-out")
    os.mkdir(left_out)
    with open(os.path.join(left_out, b"file"), "wb") as f:
        f.write(b"nobody hears of this")
    os.chmod(os.path.join(left_out, b"file"), 0o600)
    # One of the two paths does.
    os.rename(os.path.join(left_out, b"file"), c.at(b"brought in"))
    c.expect("rename", b"left-out/file", second=c.below(b"brought in"), mode=stat.S_IFREG | 0o600)
    os.rmdir(left_out)


def check_lengths(fields, raw):
    """The lengths of a message, from what it holds and nothing else."""
    name = fields["name"]
    if name == "write":
        path = fields.get("path")
        field = (len(path) + 1 + 7) // 8 * 8 if path else 0
        payload = 60 + field + len(fields["data"])
    elif name == "setattr":
        payload = 100 + len(fields["path"]) + 1
    else:
        payload = 44 + len(fields["path"]) + 1 + (len(fields["second"]) + 1 if "second" in fields else 0)
    same(fields["nlmsg_len"], NETLINK_HEAD + payload, "nlmsg_len")
    if fields["type"] == 10:
        same(len(raw), (NETLINK_HEAD + payload + 3) // 4 * 4, "length of the packet")
        same(raw[NETLINK_HEAD + payload:].strip(b"\0"), b"", "padding")
    elif fields["pagenr"] + 1 < fields["pages"]:
        same(payload, PAYLOAD, "payload of a full page")


def check_message(fields, raw, uuid, started, dumper):
    paged = fields["name"] == "write" and fields["wtype"] == 2
    same(fields["uuid"], uuid, "uuid")
    same(fields["os"], 1, "os")
    same(fields["type"], 9 if paged else 10, "type")
    same(fields["flags"], 2 if paged else 0, "flags")
    same(fields["nlmsg_seq"], fields["wseq"], "nlmsg_seq")
    same(fields["nlmsg_pid"], dumper, "nlmsg_pid")
    if not started <= fields["ts"] <= time.time_ns() // 1000:
        raise Failed("captured at %d" % fields["ts"])
    check_lengths(fields, raw)


def check_fields(fields, name, wanted):
    same(fields["name"], name, "kind of change")
    wanted = dict(wanted)
    if "named" in wanted:
        same(fields["valid"] & NAMED & ~(MTIME | CTIME), wanted["named"] & ~(MTIME | CTIME), "valid")
        same(fields["valid"] & wanted["named"], wanted.pop("named"), "valid")
    for key, value in wanted.items():
        same(fields.get(key), value, key)
    for key in ("second", "path"):
        if key in fields and key not in wanted:
            raise Failed("unexpected %s: %r" % (key, fields[key]))


def check(messages, expected, uuid, started, dumper):
    wseq = 0
    for number, raw in enumerate(messages):
        fields = tarn_wire.decode(raw)
        try:
            if number >= len(expected):
                raise Failed("nothing more was done")
            name, wanted = expected[number]
            # 1, 2, 3, ...; all pages of a write have one number.
            if fields["name"] != "write" or fields["pagenr"] == 0:
                wseq += 1
            same(fields["wseq"], wseq, "wseq")
            check_message(fields, raw, uuid, started, dumper)
            check_fields(fields, name, wanted)
        except Failed as e:
            raise Failed("message %d, %s: %s" % (number + 1, tarn_wire.show(fields), e)) from None
    same(len(messages), len(expected), "number of messages")
    return wseq


def kernel_log_says(text):
    return text in subprocess.run(["tarn", "log"], check=True, capture_output=True, text=True).stdout


def wait_until(condition):
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline and not condition():
        time.sleep(0.05)


def main(lower, mount, dump, uuid):
    started = time.time_ns() // 1000
    uuid = uuid.replace("-", "").lower()
    with subprocess.Popen([sys.executable, os.path.join(HERE, "tarn_wire.py"), "dump", dump, "60"],
                          stdout=subprocess.PIPE) as dumper:
        same(dumper.stdout.readline(), b"registered\n", "the dump")
        wait_until(lambda: kernel_log_says("tarn_process_nl_helo: daemon_pid = %d\n" % dumper.pid))
        os.umask(UMASK)
        changes = Changes(lower, mount)
        do_names(changes)
        do_attributes(changes)
        do_writes(changes, SHORT_PATH, SHORT_FIRST, b"s")
        do_writes(changes, LONG_PATH, LONG_FIRST, b"l")
        do_left_out(changes)
        wait_until(lambda: sum(1 for _ in tarn_wire.messages(dump)) >= len(changes.expected))
        time.sleep(0.5)  # for one too many
        dumper.terminate()
    messages = list(tarn_wire.messages(dump))
    records = check(messages, changes.expected, uuid, started, dumper.pid)
    print("%d messages, %d records: every field is what was done" % (len(messages), records))


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except Failed as failure:
        sys.exit("wire_changes: %s" % failure)
