# SPDX-License-Identifier: GPL-2.0
"""What the workers of the service's soak do beside those of promise/: what no record tells (extended attributes, access
lists, special files that nobody touches again), holes, and trees that are moved as a whole."""
import os
import stat
import struct

from promise import names
from promise.actions import ANYTHING, action

ANY_USER = 0xffffffff
USER_OBJECT, USER, GROUP_OBJECT, MASK, OTHER = 1, 2, 4, 0x10, 0x20
ACCESS, DEFAULT = "system.posix_acl_access", "system.posix_acl_default"
SPARSE = 3 << 20


def access_list(rng):
    """One more user than the mode tells of."""
    entries = [(USER_OBJECT, 7, ANY_USER), (USER, rng.choice([0, 4, 6, 7]), rng.choice([1001, 1002, 1003])),
               (GROUP_OBJECT, rng.choice([0, 4, 5]), ANY_USER), (MASK, rng.choice([4, 6, 7]), ANY_USER),
               (OTHER, rng.choice([0, 4, 5]), ANY_USER)]
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)


@action("xattrs", 4)
def set_attributes_by_name(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFREG, stat.S_IFDIR))
        if not name:
            return
        for _ in range(w.rng.randrange(1, 4)):
            attribute = w.rng.choice([b"user.mark", b"user.a b", b"user." + b"n" * 200, b"trusted.mark"])
            value = w.content(w.rng.choice([0, 1, 30, 2000]))
            w.call("setxattr", d.of(name), os.setxattr, d.way(name), attribute, value, follow_symlinks=False)


@action("xattrs", 2)
def remove_an_attribute(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFREG, stat.S_IFDIR))
        if name:
            attribute = w.rng.choice([b"user.mark", b"user.a b", b"trusted.mark"])
            w.call("removexattr", d.of(name), os.removexattr, d.way(name), attribute, follow_symlinks=False)


@action("lists", 2)
def change_an_access_list(w):
    """Through the mount, which refuses it, and then below, as an administrator does."""
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFREG, stat.S_IFDIR))
        if not name:
            return
        attribute, value = w.rng.choice([ACCESS, DEFAULT]), access_list(w.rng)
        w.call("setxattr", d.of(name), os.setxattr, d.way(name), attribute, value, follow_symlinks=False)
        below = os.path.join(os.fsencode(w.settings.lower), d.of(name))
        if w.uid == 0 and w.rng.random() < 0.7:
            w.call("setxattr below", d.of(name), os.setxattr, below, attribute, value, follow_symlinks=False)
        elif w.uid == 0:
            w.call("removexattr below", d.of(name), os.removexattr, below, attribute, follow_symlinks=False)


@action("holes", 3)
def a_file_with_holes(w):
    """Lengthened far beyond what is in it, written at the end and in the middle, perhaps cut again."""
    with w.directory() as d:
        name = w.name()
        fd = w.create(d, name, length=w.rng.choice([0, 100, 70000]))
        if fd is None:
            return
        w.truncate(fd, d.of(name), w.rng.randrange(SPARSE))
        for _ in range(w.rng.randrange(3)):
            w.write(fd, d.of(name), w.rng.randrange(SPARSE), w.rng.choice([1, 4096, 9000]))
        if w.rng.random() < 0.3:
            w.truncate(fd, d.of(name), w.rng.randrange(SPARSE))
        w.keep_or_close(fd, d.of(name))


@action("holes", 1)
def ask_for_room(w):
    """Which the layer does not know."""
    with w.directory() as d:
        name = w.some(d)
        fd = w.open(d, name, os.O_WRONLY) if name else None
        if fd is not None:
            w.call("fallocate", d.of(name), os.posix_fallocate, fd, w.rng.randrange(60000), 70000)
            os.close(fd)


@action("directories", 3)
def move_a_tree(w):
    """A directory with all below it goes to another one, perhaps over an empty directory there."""
    with w.directory() as d, w.directory() as to:
        name = w.some(d, (stat.S_IFDIR,))
        if not name or names.below(to.path, d.of(name)):
            return
        target = w.name()
        if w.rng.random() < 0.3:
            w.mkdir(to, target)
        w.rename(d, name, to, target)


@action("links", 2)
def link_across_directories(w):
    """And change the file by the other name, or replace one of the names."""
    with w.directory() as d, w.directory() as to:
        name, second = w.some(d), w.name()
        if not name or not w.link(d, name, to, second):
            return
        what = w.rng.randrange(4)
        if what == 0:
            fd = w.open(to, second, os.O_WRONLY | os.O_APPEND)
            if fd is not None:
                w.append(fd, to.of(second), names.size(w.rng))
                w.keep_or_close(fd, to.of(second))
        elif what == 1:
            w.unlink(d, name)
        elif what == 2:
            other = w.some(d, ANYTHING)
            if other:
                w.rename(d, other, d, name)
        else:
            w.chmod(to, second, w.rng.choice(names.MODES))
