# SPDX-License-Identifier: GPL-2.0
"""What a worker does at random: single calls on whatever it comes across. provocations.py has the longer stories."""
import os
import socket
import stat

from . import names

ALL = []
REGULAR = (stat.S_IFREG,)
ANYTHING = (stat.S_IFREG, stat.S_IFLNK, stat.S_IFIFO, stat.S_IFDIR)
CROWDED = 40


class Action:
    def __init__(self, group, weight, run, removes):
        self.group, self.weight, self.function, self.removes = group, weight, run, removes

    def run(self, worker):
        self.function(worker)


def action(group, weight, removes=False):
    """Marks a function as something that workers do. `removes`: more often when the tree has grown."""
    def take(function):
        ALL.append(Action(group, weight, function, removes))
        return function
    return take


def for_worker(worker):
    return [a for a in ALL if worker.allowed(a.group)]


@action("files", 8)
def create_a_file(w):
    with w.directory() as d:
        flags = w.rng.choice([os.O_EXCL, 0, os.O_TRUNC])
        name = w.name()
        w.keep_or_close(w.create(d, name, w.rng.choice(names.MODES), flags=flags), d.of(name))
        if len(w.entries(d)) > CROWDED:
            empty(w, d)


@action("files", 8)
def write_a_file(w):
    with w.directory() as d:
        name = w.some(d)
        fd = w.open(d, name, os.O_RDWR) if name else None
        if fd is None:
            return
        for _ in range(w.rng.randrange(1, 4)):
            w.write(fd, d.of(name), w.rng.randrange(60000), names.size(w.rng))
        if w.rng.random() < 0.02:
            w.write(fd, d.of(name), 0, 2_500_000)
            w.truncate(fd, d.of(name), 10000)
        if w.rng.random() < 0.2:
            w.call("fsync", d.of(name), os.fsync, fd)
        w.keep_or_close(fd, d.of(name))


@action("files", 4)
def append_to_a_file(w):
    with w.directory() as d:
        name = w.some(d)
        fd = w.open(d, name, os.O_WRONLY | os.O_APPEND) if name else None
        if fd is not None:
            w.append(fd, d.of(name), names.size(w.rng))
            w.keep_or_close(fd, d.of(name))


@action("files", 4)
def shorten_or_lengthen_a_file(w):
    with w.directory() as d:
        name = w.some(d)
        if name is None:
            return
        if w.rng.random() < 0.5:
            size = names.size(w.rng)
            w.call("truncate", d.of(name), os.truncate, d.way(name), size, detail="size %d" % size)
        else:
            w.keep_or_close(w.open(d, name, os.O_WRONLY | os.O_TRUNC), d.of(name))


@action("files", 2)
def read_a_file(w):
    with w.directory() as d:
        name = w.some(d)
        fd = w.open(d, name, os.O_RDONLY) if name else None
        if fd is not None:
            w.call("read", d.of(name), os.read, fd, 100000, keep=False)
            w.call("close", d.of(name), os.close, fd, keep=False)


@action("files", 1)
def copy_a_range(w):
    with w.directory() as d:
        source, target = w.some(d), w.some(d)
        a = w.open(d, source, os.O_RDONLY) if source else None
        b = w.open(d, target, os.O_WRONLY) if target else None
        if a is not None and b is not None:
            w.call("copy_file_range", d.of(source), os.copy_file_range, a, b, 10000, 0, 5000, to=d.of(target))
        for fd in (a, b):
            if fd is not None:
                os.close(fd)


@action("files", 7, removes=True)
def unlink_a_file(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFLNK, stat.S_IFIFO))
        if name:
            w.unlink(d, name)


@action("files", 6)
def rename_something(w):
    with w.directory() as d, w.directory() as to:
        name = w.some(d, ANYTHING)
        if name:
            w.rename(d, name, to if w.rng.random() < 0.4 else d, w.name())


@action("files", 1)
def make_a_file_by_mknod(w):
    with w.directory() as d:
        w.special(d, w.name(), stat.S_IFREG | w.rng.choice(names.MODES))


@action("directories", 6)
def make_a_directory(w):
    with w.directory() as d:
        if len(d.path.split(b"/")) < 8 and len(w.entries(d)) < CROWDED:
            w.mkdir(d, w.name(), w.rng.choice(names.DIRECTORY_MODES))


@action("directories", 4, removes=True)
def remove_a_directory(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFDIR,))
        if name:
            if w.rng.random() < 0.5:
                w.rmdir(d, name)
            else:
                remove_tree(w, d, name)


def remove_tree(w, d, name):
    below = w.inside(d, name)
    if below is not None:
        with below:
            empty(w, below)
    w.rmdir(d, name)


def empty(w, d):
    for name, mode in w.entries(d):
        if stat.S_ISDIR(mode):
            if name not in w.settings.fixed:
                remove_tree(w, d, name)
        else:
            w.unlink(d, name)


@action("attributes", 4)
def change_a_mode(w):
    with w.directory() as d:
        found = [entry for entry in w.entries(d) if entry[0] not in w.settings.fixed]
        if not found:
            return
        name, kind = w.rng.choice(found)
        modes = names.DIRECTORY_MODES if stat.S_ISDIR(kind) else names.MODES
        mark = names.CHANGED_SPECIAL if kind == stat.S_IFIFO else 0
        w.chmod(d, name, w.rng.choice(modes) | mark)


@action("attributes", 3)
def change_an_owner(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFDIR))
        if name:
            w.chown(d, name, w.rng.choice([-1, 0, w.uid, 1001, 1002]), w.rng.choice([-1, w.uid, 1001]))


@action("attributes", 4)
def change_times(w):
    with w.directory() as d:
        name = w.some(d, ANYTHING)
        if name:
            w.utime(d, name)


@action("attributes", 1)
def set_an_attribute_by_name(w):
    with w.directory() as d:
        name = w.some(d, (stat.S_IFREG, stat.S_IFDIR))
        if name:
            w.call("setxattr", d.of(name), os.setxattr, d.way(name), b"user.mark", w.content(30), follow_symlinks=False)


@action("links", 5)
def link_a_file(w):
    with w.directory() as d, w.directory() as to:
        name = w.some(d, (stat.S_IFREG, stat.S_IFREG, stat.S_IFLNK, stat.S_IFIFO))
        if name:
            w.link(d, name, to, w.name())


@action("links", 3)
def make_a_symbolic_link(w):
    # Relative, to what is on the mount: root follows it with chmod.
    with w.directory() as d:
        name = w.name()
        target = w.rng.choice([w.name(), b"../" + w.name(), b"nowhere/" * 60 + b"end", b"./" + name])
        if w.symlink(d, name, target) and w.uid == 0 and w.rng.random() < 0.5:
            w.chown(d, name, 1001, names.OWNED_LINK_GID)


@action("special", 4)
def make_a_special_file(w):
    with w.directory() as d:
        name, mode = w.name(), w.rng.choice([0o600, 0o644, 0o666])
        kind = w.rng.randrange(3)
        if kind == 0:
            w.special(d, name, stat.S_IFIFO | mode)
        elif kind == 1:
            make_a_socket(w, d, name, mode)
        elif w.uid == 0:
            device, number = w.rng.choice(names.DEVICES)
            w.special(d, name, device | mode, number)
        if w.rng.random() < 0.5:
            w.chmod(d, name, mode | names.CHANGED_SPECIAL)


def make_a_socket(w, d, name, mode):
    """With the rights that it has from its creation, as a program gets it that sets its mask."""
    if len(name) > 80 or b"\0" in name:
        return
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        before = os.umask(0o777 & ~mode)
        w.call("bind", d.of(name), s.bind, d.way(name))
        os.umask(before)


@action("special", 2)
def change_a_special_file(w):
    with w.directory() as d, w.directory() as to:
        name = w.some(d, (stat.S_IFIFO,))
        if not name:
            return
        what = w.rng.randrange(4)
        if what == 0:
            w.rename(d, name, to, w.name())
        elif what == 1:
            w.utime(d, name)
        elif what == 2:
            w.chown(d, name, w.rng.choice([-1, 0, 1001, 1002]), -1)
        else:
            w.chmod(d, name, w.rng.choice([0o711, 0o700, 0o755]))


@action("kept", 3)
def keep_a_descriptor(w):
    with w.directory() as d:
        name = w.some(d)
        flags = w.rng.choice([os.O_RDWR, os.O_RDWR, os.O_RDWR | os.O_APPEND, os.O_RDONLY])
        fd = w.open(d, name, flags) if name else None
        if fd is not None:
            w.keep(fd, d.of(name), flags)


@action("kept", 10)
def use_a_kept_descriptor(w):
    if w.kept:
        use(w, w.rng.choice(w.kept))


def use(w, kept):
    """One change by a descriptor."""
    fd, path, what = kept.fd, kept.path, w.rng.randrange(9)
    if what < 4:
        if kept.flags & os.O_APPEND:
            w.append(fd, path, names.size(w.rng))
        else:
            w.write(fd, path, w.rng.randrange(30000), names.size(w.rng))
    elif what == 4:
        w.truncate(fd, path, names.size(w.rng))
    elif what == 5:
        mode = w.rng.choice(names.MODES) | names.CHANGED_SPECIAL
        w.call("fchmod", path, os.fchmod, fd, mode, detail="fd %d mode %04o" % (fd, mode))
    elif what == 6:
        uid = w.rng.choice([-1, 0, 1001, 1002])
        w.call("fchown", path, os.fchown, fd, uid, -1, detail="fd %d owner %d" % (fd, uid))
    elif what == 7 and w.allowed("attributes"):
        when = names.run_time(w.rng, w.allowed("past"))
        w.call("futimens", path, os.utime, fd, ns=(when, when), detail="fd %d %d us" % (fd, when // 1000))
    else:
        w.call("fsync", path, os.fsync, fd)


@action("kept", 2)
def close_a_kept_descriptor(w):
    if w.kept:
        w.drop(w.kept.pop(w.rng.randrange(len(w.kept))))


@action("mapped", 3)
def map_a_file(w):
    with w.directory() as d:
        name = w.some(d)
        fd = w.open(d, name, os.O_RDWR) if name else None
        if fd is not None:
            store_into(w, w.keep(fd, d.of(name)))


@action("mapped", 6)
def store_into_a_mapping(w):
    mapped = [kept for kept in w.kept if kept.area is not None]
    if mapped:
        store_into(w, w.rng.choice(mapped))


def store_into(w, kept):
    area = w.map(kept)
    if area is None:
        return
    for _ in range(w.rng.randrange(1, 4)):
        offset = w.rng.randrange(len(area))
        w.store(kept, offset, min(w.rng.choice([1, 50, 4096, 9000]), len(area) - offset))
    if w.rng.random() < 0.4:
        w.call("msync", kept.path, area.flush)


@action("border", 5)
def cross_the_border(w):
    """Anything from anywhere to anywhere: walks begin on either side."""
    with w.directory(deeper=0.3) as d, w.directory(deeper=0.3) as to:
        name = w.some(d, ANYTHING)
        if name and d.path and to.path:
            w.rename(d, name, to, w.name())


@action("parents", 8)
def rename_a_parent(w):
    """Of everybody's work: what is under way below must come out right."""
    with w.parents() as d:
        there = [name for name, mode in w.entries(d) if name in names.PARENTS]
        if there:
            w.rename(d, w.rng.choice(there), d, w.rng.choice(names.PARENTS))


@action("parents", 5)
def build_up_and_tear_down(w):
    with w.parents() as d:
        there = [name for name, mode in w.entries(d) if name in names.PARENTS]
        inner = w.inside(d, w.rng.choice(there)) if there else None
        if inner is None:
            return
        with inner:
            made = [b"%d.%d.%d" % (w.index, w.number, i) for i in range(w.rng.randrange(2, 12))]
            for i, name in enumerate(made):
                if i % 3:
                    w.keep_or_close(w.create(inner, name), inner.of(name))
                else:
                    w.mkdir(inner, name)
            for i, name in enumerate(made):
                (w.unlink if i % 3 else w.rmdir)(inner, name)
