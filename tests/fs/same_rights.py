#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Tries the same operations as many kinds of processes on two ways to one tree, and compares the answers.

same_rights.py LOWER MOUNT: the tree is made in LOWER, which must be empty and know access lists. What an operation
changes is put back before the next one."""

import ctypes
import errno
import os
import socket
import stat
import struct
import sys

USER_OBJ, USER, GROUP_OBJ, GROUP, MASK, OTHER = 1, 2, 4, 8, 16, 32
OWNER, OWNERS, ANN, BOB, CREW = 5001, 5001, 6001, 6002, 7000
CHOWN, DAC_OVERRIDE, DAC_READ_SEARCH, FOWNER, FSETID, MKNOD = 0, 1, 2, 3, 4, 27
ALL_CAPABILITIES = None
libc = ctypes.CDLL(None, use_errno=True)


def access_list(*entries):
    """Of (tag, id, rights), ids of None for those that have none."""
    entries = sorted(entries, key=lambda entry: (entry[0], entry[1] or 0))
    pack = [struct.pack("<HHI", tag, rights, 0xFFFFFFFF if who is None else who) for tag, who, rights in entries]
    return struct.pack("<I", 2) + b"".join(pack)


def plain(user, group, other):
    return [(USER_OBJ, None, user), (GROUP_OBJ, None, group), (OTHER, None, other)]


# What the lists of the tree say, by name. With a list, the group's bits of the mode are its mask.
LISTS = {
    "named-user": plain(6, 0, 0) + [(USER, ANN, 6), (MASK, None, 6)],
    "named-user-refused": plain(6, 6, 6) + [(USER, ANN, 0), (MASK, None, 6)],
    "named-group": plain(6, 0, 0) + [(GROUP, CREW, 4), (MASK, None, 4)],
    "masked": plain(6, 6, 0) + [(USER, ANN, 6), (GROUP, CREW, 6), (MASK, None, 4)],
    "mask-beyond-the-group": plain(6, 0, 0) + [(USER, BOB, 6), (MASK, None, 6)],
}
DIRECTORY_LISTS = {
    "way-for-ann": plain(7, 0, 0) + [(USER, ANN, 1), (MASK, None, 1)],
    "way-not-for-ann": plain(7, 5, 5) + [(USER, ANN, 0), (MASK, None, 5)],
    "way-for-the-crew": plain(7, 0, 0) + [(GROUP, CREW, 5), (MASK, None, 5)],
    "way-masked": plain(7, 0, 0) + [(USER, ANN, 7), (MASK, None, 4)],
}
MODES = {"open": 0o666, "owners": 0o600, "groups": 0o660, "read-only": 0o444, "nobodys": 0o000, "program": 0o711}


def make_object(path, kind):
    if kind == "file":
        with open(path, "wb") as out:
            out.write(b"data")
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "device":
        os.mknod(path, stat.S_IFCHR, os.makedev(1, 5))
    elif kind == "socket":
        # An address has no room for a long path.
        os.chdir(os.path.dirname(path))
        server = socket.socket(socket.AF_UNIX)
        server.bind(os.path.basename(path))
        server.listen(64)
        os.chdir("/")
        return server
    return None


def make_tree(top):
    """The objects by their relative paths, and what must stay open."""
    names, kept = [], []

    def add(directory, kind, name, mode, entries=None):
        path = os.path.join(directory, "%s-%s" % (kind, name))
        kept.append(make_object(os.path.join(top, path), kind))
        os.chown(os.path.join(top, path), OWNER, OWNERS)
        os.chmod(os.path.join(top, path), mode)
        if entries:
            os.setxattr(os.path.join(top, path), "system.posix_acl_access", access_list(*entries))
        names.append((path, kind))

    for kind in "file", "fifo", "device", "socket":
        for name, mode in MODES.items():
            add("", kind, name, mode)
        for name, entries in LISTS.items():
            add("", kind, name, 0o600, entries)
    for directory, entries in DIRECTORY_LISTS.items():
        os.mkdir(os.path.join(top, directory))
        for kind in "file", "fifo", "device", "socket":
            add(directory, kind, "open", 0o666)
        os.chown(os.path.join(top, directory), OWNER, OWNERS)
        os.setxattr(os.path.join(top, directory), "system.posix_acl_access", access_list(*entries))
        names.append((directory, "directory"))
    # Where everybody may make names and remove his own: what the machine protects there (fs.protected_*) it protects.
    os.mkdir(os.path.join(top, "sticky"))
    os.chmod(os.path.join(top, "sticky"), 0o1777)
    for kind in "file", "fifo", "device", "socket":
        for name in "open", "owners":
            add("sticky", kind, name, MODES[name])
    os.symlink("file-open", os.path.join(top, "sticky", "link"))
    os.lchown(os.path.join(top, "sticky", "link"), OWNER, OWNERS)
    names.append(("sticky/link", "link"))
    return names, kept


class Header(ctypes.Structure):
    _fields_ = [("version", ctypes.c_uint32), ("pid", ctypes.c_int)]


class Data(ctypes.Structure):
    _fields_ = [("effective", ctypes.c_uint32), ("permitted", ctypes.c_uint32), ("inheritable", ctypes.c_uint32)]


def set_capabilities(numbers):
    wanted = sum(1 << number for number in numbers)
    data = (Data * 2)(Data(wanted, wanted, 0), Data(0, 0, 0))
    if libc.capset(ctypes.byref(Header(0x20080522, 0)), ctypes.byref(data)) != 0:
        raise OSError(ctypes.get_errno(), "capset")


class Process:
    def __init__(self, what, uid, gid, groups=(), capabilities=()):
        self.what, self.uid, self.gid, self.groups, self.capabilities = what, uid, gid, list(groups), capabilities

    def become(self):
        keep_capabilities = 8
        libc.prctl(keep_capabilities, 1, 0, 0, 0)
        os.setgroups(self.groups)
        os.setresgid(self.gid, self.gid, self.gid)
        os.setresuid(self.uid, self.uid, self.uid)
        if self.capabilities is not ALL_CAPABILITIES:
            set_capabilities(self.capabilities)


class NameSpaceRoot(Process):
    """Has every capability, in a user name space of its own."""

    def become(self):
        super().become()
        new_user = 0x10000000
        if libc.unshare(new_user) != 0:
            raise OSError(ctypes.get_errno(), "unshare")


def processes():
    yield Process("root", 0, 0, (), ALL_CAPABILITIES)
    yield Process("root without capabilities", 0, 0)
    yield Process("the owner", OWNER, OWNERS)
    yield Process("one of the group", BOB, OWNERS)
    yield Process("one of the group by a further group", BOB, BOB, (CREW, OWNERS))
    yield Process("ann", ANN, ANN)
    yield Process("ann of the crew", ANN, ANN, (CREW,))
    yield Process("bob", BOB, BOB)
    yield Process("bob of the crew", BOB, CREW)
    for name, number in (("CHOWN", CHOWN), ("DAC_OVERRIDE", DAC_OVERRIDE), ("DAC_READ_SEARCH", DAC_READ_SEARCH),
                         ("FOWNER", FOWNER), ("MKNOD", MKNOD)):
        yield Process("bob with " + name, BOB, BOB, (), (number,))
        yield Process("root with nothing but " + name, 0, 0, (), (number,))
    yield Process("root with all of these but DAC_OVERRIDE", 0, 0, (), (CHOWN, DAC_READ_SEARCH, FOWNER, FSETID, MKNOD))
    yield NameSpaceRoot("bob in a user name space", BOB, BOB)
    yield NameSpaceRoot("root in a user name space that nobody is mapped to", 0, 0)


def opened(flags):
    def call(path):
        os.close(os.open(path, flags | os.O_NONBLOCK))

    return call


# A socket that was bound below has nobody who listens on the mount; who may not write it does not learn that.
def connect(path):
    os.chdir(os.path.dirname(path))
    with socket.socket(socket.AF_UNIX) as caller:
        try:
            caller.connect(os.path.basename(path))
        except ConnectionRefusedError:
            pass


def link(path):
    os.link(path, path + ".link")


def make_in(make):
    def call(directory):
        make(os.path.join(directory, "new"))

    return call


def operations(kind):
    if kind == "socket":
        yield "connect", connect
    else:
        yield "open for reading", opened(os.O_RDONLY)
    if kind in ("file", "device"):
        yield "open for writing", opened(os.O_WRONLY)
    if kind in ("file", "fifo"):
        yield "open or make", opened(os.O_RDWR | os.O_CREAT)
    if kind == "link":
        return
    if kind == "fifo":
        yield "open for both", opened(os.O_RDWR)
    if kind == "file":
        yield "truncate", lambda path: os.truncate(path, 2)
    if kind == "directory":
        yield "list", os.listdir
        yield "change to", os.chdir
        yield "make a file in", make_in(lambda path: os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600)))
        yield "make a directory in", make_in(os.mkdir)
        yield "make a device in", make_in(lambda path: os.mknod(path, stat.S_IFCHR, os.makedev(1, 5)))
        yield "remove from", lambda path: os.unlink(os.path.join(path, "file-open"))
    for mask, name in ((os.R_OK, "read"), (os.W_OK, "write"), (os.X_OK, "execute")):
        yield "ask whether it may " + name, lambda path, mask=mask: None if os.access(path, mask) else refuse()
    yield "stat", os.stat
    yield "change the mode of", lambda path: os.chmod(path, 0o640)
    yield "give away", lambda path: os.chown(path, 4321, -1)
    yield "give to the group", lambda path: os.chown(path, -1, CREW)
    yield "set the times of", lambda path: os.utime(path, (1, 1))
    yield "touch", os.utime
    yield "link", link


def refuse():
    raise OSError(errno.EACCES, "no")


class Worker:
    """A process of one kind, which tries one operation after the other."""

    def __init__(self, process):
        self.line, far = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.pid = os.fork()
        if self.pid == 0:
            try:
                self.line.close()
                process.become()
                far.send(b"ready")
                while request := far.recv(4096):
                    far.send(self.attempt(*request.decode().split("\0")).encode())
            finally:
                os._exit(0)
        far.close()
        if self.line.recv(4096) != b"ready":
            sys.exit("no process is " + process.what)

    @staticmethod
    def attempt(kind, what, path):
        try:
            dict(operations(kind))[what](path)
            return "0"
        except OSError as error:
            return errno.errorcode.get(error.errno, str(error.errno))
        finally:
            os.chdir("/")

    def ask(self, kind, what, path):
        self.line.send("\0".join((kind, what, path)).encode())
        return self.line.recv(4096).decode() or "died"

    def end(self):
        self.line.close()
        os.waitpid(self.pid, 0)


def put_back(path, below, before):
    """The object as it was, by the way of the operation, which sees its own changes at once."""
    if os.path.lexists(path + ".link"):
        os.unlink(path + ".link")
    if stat.S_ISDIR(before["stat"].st_mode):
        new = os.path.join(path, "new")
        if os.path.isdir(new):
            os.rmdir(new)
        elif os.path.lexists(new):
            os.unlink(new)
        removed = os.path.join(path, "file-open")
        if not os.path.exists(removed):
            make_object(removed, "file")
            os.chown(removed, OWNER, OWNERS)
            os.chmod(removed, 0o666)
    os.chown(path, before["stat"].st_uid, before["stat"].st_gid)
    os.chmod(path, stat.S_IMODE(before["stat"].st_mode))
    # The mount sets no lists.
    if look(below)["list"] != before["list"]:
        os.setxattr(below, "system.posix_acl_access", before["list"])


def look(path):
    try:
        entries = os.getxattr(path, "system.posix_acl_access")
    except OSError:
        entries = None
    return {"stat": os.stat(path), "list": entries}


# The present time is for the owner and for those who may write, in the kernel that the module is for: not for all who
# count as the owner.
def is_meant(process, what, said):
    return what == "touch" and said == ["0", "EACCES"] and FOWNER in process.capabilities


def compare(lower, mount):
    names, kept = make_tree(lower)
    before = {path: look(os.path.join(lower, path)) for path, _ in names}
    tried, differences = 0, []
    answers = {}
    for process in processes():
        worker = Worker(process)
        for path, kind in names:
            for what, _ in operations(kind):
                said = []
                for top in lower, mount:
                    said.append(worker.ask(kind, what, os.path.join(top, path)))
                    put_back(os.path.join(top, path), os.path.join(lower, path), before[path])
                tried += 1
                answers.setdefault((kind, what), set()).add(said[0])
                if said[0] != said[1] and not is_meant(process, what, said):
                    differences.append("%s, %s %s: %s below, %s on the mount" % (process.what, what, path, *said))
        worker.end()
    for server in kept:
        if server:
            server.close()
    # An operation that is always allowed, or never, says nothing about who may.
    for (kind, what), said in answers.items():
        if len(said) < 2 and (kind, what) not in (("directory", "stat"), ("directory", "link")) and kind != "link":
            differences.append("%s %s: always %s" % (what, kind, said))
    for line in differences:
        print(line, file=sys.stderr)
    print("%d answers compared, %d differ" % (tried, len(differences)), file=sys.stderr)
    return not differences


if __name__ == "__main__":
    sys.exit(0 if compare(*sys.argv[1:]) else 1)
