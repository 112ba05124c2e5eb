# SPDX-License-Identifier: GPL-2.0
"""Compares the lower source directory with its replica, inside the rule's border.

Everything that a record can tell is compared, and where only the last change of something is told, what the lower
directory shows of it decides:
- a modification time, when a program has set it last (a write changes the time of its file and tells none): the marks
  in names.py say so; of a directory, nothing that is made or removed in it tells a time, so they are not compared here;
- the owner of a symbolic link, when it was changed after the creation;
- that a special file exists, when it was changed after the creation.
Directories are walked by descriptors, for a path may be longer than any call takes.
"""
import hashlib
import os
import stat

from . import names

CHUNK = 1 << 16


class Entry:
    def __init__(self, info, detail):
        self.info, self.detail = info, detail  # detail: digest or target


class Difference:
    def __init__(self, path, kind, text):
        self.path, self.kind, self.text = path, kind, text

    def key(self):
        return self.path, self.kind


def digest(fd):
    whole = hashlib.blake2b(digest_size=16)
    while data := os.read(fd, CHUNK):
        whole.update(data)
    return whole.digest()


def open_at(directory, name, flags):
    return os.open(name, flags | os.O_NOFOLLOW | os.O_CLOEXEC, dir_fd=directory)


def entry_of(directory, name):
    info = os.stat(name, dir_fd=directory, follow_symlinks=False)
    detail = None
    if stat.S_ISREG(info.st_mode):
        fd = open_at(directory, name, os.O_RDONLY)
        detail = digest(fd)
        os.close(fd)
    elif stat.S_ISLNK(info.st_mode):
        detail = os.readlink(name, dir_fd=directory)
    return Entry(info, detail)


def scan(root, outside=lambda path: False):
    """Relative path -> Entry of everything below, but what is `outside`."""
    found = {}

    def walk(directory, path):
        for name in os.listdir(directory):
            name = os.fsencode(name)
            whole = names.join(path, name)
            if outside(whole):
                continue
            found[whole] = entry = entry_of(directory, name)
            if stat.S_ISDIR(entry.info.st_mode):
                below = open_at(directory, name, os.O_RDONLY | os.O_DIRECTORY)
                walk(below, whole)
                os.close(below)

    top = os.open(root, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    walk(top, b"")
    os.close(top)
    return found


def read_whole(root, path):
    fd = os.open(root, os.O_RDONLY | os.O_DIRECTORY)
    for name in path.split(b"/"):
        inner = open_at(fd, name, os.O_RDONLY)
        os.close(fd)
        fd = inner
    with os.fdopen(fd, "rb") as f:
        return f.read()


def first_difference(roots, path):
    """Where the contents part, and whose bytes stand there: workers write who they are."""
    below, replica = (read_whole(root, path) for root in roots)
    at = next((i for i, (x, y) in enumerate(zip(below, replica)) if x != y), min(len(below), len(replica)))
    around = slice(max(0, at - 30), at + 60)
    return "content differs at byte %d: %r below, %r in the replica" % (at, below[around], replica[around])


def link_groups(tree, common):
    groups = {}
    for path in common:
        info = tree[path].info
        if not stat.S_ISDIR(info.st_mode):
            groups.setdefault((info.st_dev, info.st_ino), set()).add(path)
    return {path: frozenset(group) for group in groups.values() for path in group}


def may_be_missing(info):
    return names.is_special(info.st_mode) and not info.st_mode & names.CHANGED_SPECIAL


def describe(info):
    return "%s %04o %d:%d size %d" % (names.type_name(info.st_mode), stat.S_IMODE(info.st_mode), info.st_uid,
                                      info.st_gid, info.st_size)


def microseconds(info):
    return info.st_mtime_ns // 1000


def time_must_agree(info):
    return not stat.S_ISDIR(info.st_mode) and microseconds(info) % 1_000_000 in (names.RUN_US, names.SWEEP_US)


def of_one(path, x, y, roots):
    a, b = x.info, y.info
    if stat.S_IFMT(a.st_mode) != stat.S_IFMT(b.st_mode):
        yield "type", "%s below, %s in the replica" % (describe(a), describe(b))
        return
    link = stat.S_ISLNK(a.st_mode)
    if a.st_mode != b.st_mode:
        yield "mode", "mode %04o below, %04o in the replica" % (stat.S_IMODE(a.st_mode), stat.S_IMODE(b.st_mode))
    if (a.st_uid, a.st_gid) != (b.st_uid, b.st_gid) and (not link or a.st_gid == names.OWNED_LINK_GID):
        yield "owner", "owner %d:%d below, %d:%d in the replica" % (a.st_uid, a.st_gid, b.st_uid, b.st_gid)
    if stat.S_ISREG(a.st_mode) and (a.st_size != b.st_size or x.detail != y.detail):
        size = "" if a.st_size == b.st_size else "size %d below, %d in the replica; " % (a.st_size, b.st_size)
        yield "content", size + first_difference(roots, path)
    if link and x.detail != y.detail:
        yield "target", "target %r below, %r in the replica" % (x.detail, y.detail)
    if stat.S_ISCHR(a.st_mode) or stat.S_ISBLK(a.st_mode):
        if a.st_rdev != b.st_rdev:
            yield "device", "device %#x below, %#x in the replica" % (a.st_rdev, b.st_rdev)
    if microseconds(a) != microseconds(b) and time_must_agree(a):
        yield "time", "modified at %d us below, %d us in the replica" % (microseconds(a), microseconds(b))


def differences(lower, replica, roots):
    """`lower`, `replica`: what scan() gave; `roots`: the two directories."""
    found = []
    for path in sorted(lower.keys() - replica.keys()):
        if not may_be_missing(lower[path].info):
            found.append(Difference(path, "missing", "%s: not in the replica" % describe(lower[path].info)))
    for path in sorted(replica.keys() - lower.keys()):
        found.append(Difference(path, "left behind", "%s: only in the replica" % describe(replica[path].info)))
    common = lower.keys() & replica.keys()
    groups, replica_groups = link_groups(lower, common), link_groups(replica, common)
    for path in sorted(common):
        for kind, text in of_one(path, lower[path], replica[path], roots):
            found.append(Difference(path, kind, text))
        both = groups.get(path), replica_groups.get(path)
        if None not in both and both[0] != both[1]:
            shown = [", ".join(names.shown(name, 60) for name in sorted(group)) for group in both]
            found.append(Difference(path, "links", "one file with: %s below; %s in the replica" % tuple(shown)))
    return found
