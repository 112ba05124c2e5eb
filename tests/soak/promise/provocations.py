# SPDX-License-Identifier: GPL-2.0
"""Short stories of calls in an order that has gone wrong before, or may: each with names and details at random, beside
whatever the other workers do meanwhile."""
import ctypes
import os
import stat

from . import lower_flags, names
from .actions import ANYTHING, action, make_a_socket, remove_tree, use

LIBC = ctypes.CDLL(None, use_errno=True)
RENAMEAT2 = 316
EXCHANGE, NO_REPLACE = 2, 1


def kept_file(w, d, name):
    """A file of one's own under that name, which stays open."""
    fd = w.create(d, name, w.rng.choice([0o666, 0o644, 0o600, 0o777]))
    return None if fd is None else w.keep(fd, d.of(name))


@action("kept", 4)
def a_writer_beside_a_link(w):
    """Its names come and go, one stays or none, and the writer goes on."""
    with w.directory() as d, w.directory() as to:
        first, second = w.name(), w.name()
        kept = kept_file(w, d, first)
        if kept is None or not w.link(d, first, to, second):
            return
        use(w, kept)
        gone = w.rng.randrange(5)
        if gone == 0:
            w.unlink(d, first)
        elif gone == 1:
            w.unlink(to, second)
        elif gone == 2:
            w.rename(to, second, d, w.name())
        elif gone == 3:
            w.keep_or_close(w.create(d, b"over"), d.of(b"over"))
            w.rename(d, b"over", to, second)
        else:
            w.unlink(d, first)
            w.unlink(to, second)
        for _ in range(3):
            use(w, kept)


@action("kept", 4)
def a_writer_whose_name_is_taken(w):
    """A rename over an open file: nothing that its writer does may reach the new one."""
    with w.directory() as d:
        name = w.rng.choice([b"abc", w.name()])
        new = w.rng.choice([b"abcdefghijk", b"ab", w.name()])
        kept = kept_file(w, d, name)
        fd = w.create(d, new, w.rng.choice([0o4755, 0o644, 0o600]))
        if kept is None or fd is None:
            return
        w.keep_or_close(fd, d.of(new))
        w.rename(d, new, d, name)
        for _ in range(4):
            use(w, kept)


@action("kept", 2)
def a_writer_without_a_name(w):
    with w.directory() as d:
        name = w.name()
        kept = kept_file(w, d, name)
        if kept is None or not w.unlink(d, name):
            return
        use(w, kept)
        if w.rng.random() < 0.5:
            w.keep_or_close(w.create(d, name + b" (deleted)"), d.of(name) + b" (deleted)")
        for _ in range(4):
            use(w, kept)


@action("kept", 2)
def a_directory_that_is_gone(w):
    with w.directory() as d, w.directory() as to:
        name = w.name()
        if not w.mkdir(d, name):
            return
        inner = w.inside(d, name)
        if inner is None:
            return
        with inner:
            w.create_and_close(inner, b"before")
            w.rename(d, name, to, w.name())
            w.create_and_close(inner, b"while moved")
            remove_tree(w, to, name)
            w.create_and_close(inner, b"behind")
            w.call("fchmod", inner.path, os.fchmod, inner.fd, 0o755)


@action("links", 2)
def copy_by_links(w):
    """cp -al: each file of a directory gets a second name, beside whoever has it open."""
    with w.directory() as d, w.directory() as to:
        copy = w.name()
        inner = w.inside(to, copy) if w.mkdir(to, copy) else None
        if inner is None:
            return
        with inner:
            for name, mode in w.entries(d)[:12]:
                if not stat.S_ISDIR(mode):
                    w.link(d, name, inner, name)


@action("border", 4)
def come_in_or_go_out(w):
    """A file or a tree made on one side of the border, with everything that it can have, and moved to the other."""
    sides = [names.SOURCE, names.EXCLUDED, names.OUTSIDE]
    here, there = w.rng.sample(sides, 2)
    with w.directory(w.in_zone(here), 0.2) as d, w.directory(w.in_zone(there), 0.2) as to:
        name, target = w.name(), w.name()
        if w.rng.random() < 0.5:
            kept = kept_file(w, d, name)
            if kept is None:
                return
            use(w, kept)
            if w.rng.random() < 0.3:
                w.link(d, name, d, b"second")
        else:
            if not w.mkdir(d, name, w.rng.choice(names.DIRECTORY_MODES)):
                return
            fill(w, d, name)
            kept = None
        w.utime(d, name)
        w.rename(d, name, to, target)
        if kept is not None:
            use(w, kept)
        w.chmod(to, target, w.rng.choice([0o755, 0o777, 0o700]))
        if w.rng.random() < 0.4:
            w.rename(to, target, d, name)


def fill(w, d, name):
    """A directory gets one of everything."""
    inner = w.inside(d, name)
    if inner is None:
        return
    with inner:
        w.create_and_close(inner, b"file")
        w.link(inner, b"file", inner, b"again")
        w.symlink(inner, b"symlink", b"file")
        if w.allowed("special"):
            w.special(inner, b"fifo", stat.S_IFIFO | 0o600)
            w.chmod(inner, b"fifo", 0o711)
        w.mkdir(inner, b"deeper")
        deeper = w.inside(inner, b"deeper")
        if deeper is not None:
            with deeper:
                w.create_and_close(deeper, b"file")
                w.utime(deeper, b"file")


@action("nested-border", 2)
def move_a_border(w):
    """The directory that holds an excluded one is renamed: what was excluded lies in the rule now, or no longer."""
    with w.directory([names.SOURCE], 0) as d:
        there = [name for name, _ in w.entries(d) if name in names.NESTS]
        if not there:
            return
        nest = w.rng.choice(there)
        w.rename(d, nest, d, w.rng.choice(names.NESTS))
        with w.directory([names.SOURCE, nest, names.NESTED], 0) as inner:
            if inner.path.endswith(names.NESTED):
                w.keep_or_close(w.create(inner, w.name()), inner.path)


@action("special", 3)
def a_special_file_over_another(w):
    """In place of a regular file, or a regular file in place of it."""
    with w.directory() as d:
        special, regular = w.name(), w.name()
        w.create_and_close(d, regular)
        if w.rng.random() < 0.3:
            make_a_socket(w, d, special, 0o644)
        else:
            w.special(d, special, stat.S_IFIFO | 0o644)
        if w.rng.random() < 0.6:
            w.rename(d, special, d, regular)
            w.chmod(d, regular, 0o711)
        else:
            w.rename(d, regular, d, special)
            w.chmod(d, special, 0o755)


@action("refused", 3)
def a_removal_that_is_refused(w):
    """The directory is not empty, though perhaps of nothing that is captured; then more is put into it."""
    with w.directory() as d:
        name = w.name()
        if not w.mkdir(d, name):
            return
        inner = w.inside(d, name)
        if inner is None:
            return
        with inner:
            if w.rng.random() < 0.7:
                w.special(inner, b"fifo", stat.S_IFIFO | 0o600)
            else:
                w.create_and_close(inner, b"file")
            w.rmdir(d, name)
            w.create_and_close(inner, w.name())
            w.mkdir(inner, b"later")


@action("refused", 3)
def a_directory_that_may_not_change(w):
    """Immutable in the lower file system for a moment."""
    if w.uid:
        return
    with w.directory() as d:
        name = w.name()
        if not d.path or not w.mkdir(d, name):
            return
        inner = w.inside(d, name)
        if inner is None:
            return
        with inner:
            w.mkdir(inner, b"child")
            w.create_and_close(inner, b"file")
            with lower_flags.during(w, inner.path, lower_flags.IMMUTABLE):
                w.rmdir(inner, b"child")
                w.unlink(inner, b"file")
                w.create_and_close(inner, b"new")
                w.rename(inner, b"file", inner, b"renamed")
                w.rename(inner, b"file", d, w.name())
                w.chmod(d, name, 0o700)
                w.chown(d, name, 1002, 1002)
            w.create_and_close(inner, b"behind")
            child = w.inside(inner, b"child")
            if child is not None:
                with child:
                    w.create_and_close(child, b"behind")


@action("refused", 3)
def a_file_that_may_not_change(w):
    """Immutable or only to be appended to for a moment."""
    if w.uid:
        return
    with w.directory() as d:
        name = w.name()
        kept = kept_file(w, d, name)
        if kept is None:
            return
        flag = w.rng.choice([lower_flags.IMMUTABLE, lower_flags.APPEND_ONLY])
        with lower_flags.during(w, d.of(name), flag):
            w.truncate(kept.fd, kept.path, 0)
            w.call("truncate", d.of(name), os.truncate, d.way(name), 3, detail="size 3")
            w.keep_or_close(w.open(d, name, os.O_WRONLY | os.O_TRUNC), d.of(name))
            w.chown(d, name, 1001, 1001)
            w.chmod(d, name, 0o4777)
            w.utime(d, name)
            w.write(kept.fd, kept.path, 0, 100)
            w.rename(d, name, d, w.name())
            w.unlink(d, name)


@action("refused", 3)
def somebody_elses(w):
    """What a stranger may not do. Root may; that is good as well."""
    with w.directory() as d:
        name = w.some(d, ANYTHING)
        if not name:
            return
        for _ in range(2):
            what = w.rng.randrange(6)
            if what == 0:
                w.chown(d, name, 0, 0)
            elif what == 1:
                w.chmod(d, name, 0o4777 | names.CHANGED_SPECIAL)
            elif what == 2:
                w.utime(d, name)
            elif what == 3:
                w.call("truncate", d.of(name), os.truncate, d.way(name), 0, detail="size 0")
            elif what == 4:
                w.rmdir(d, name)
            else:
                w.unlink(d, name)


@action("refused", 1)
def calls_that_the_layer_does_not_know(w):
    with w.directory() as d:
        a, b = w.some(d, ANYTHING), w.some(d, ANYTHING)
        if not a or not b:
            return
        flags = w.rng.choice([EXCHANGE, NO_REPLACE])

        def renameat2():
            if LIBC.syscall(RENAMEAT2, d.fd, a, d.fd, b, flags) != 0:
                raise OSError(ctypes.get_errno(), "renameat2")
        w.call("renameat2", d.of(a), renameat2, to=d.of(b), detail="flags %d" % flags)
        fd = w.open(d, a, os.O_WRONLY)
        if fd is not None:
            w.call("fallocate", d.of(a), os.posix_fallocate, fd, 0, 5000)
            os.close(fd)


@action("set-user-id", 4)
def a_set_user_id_file(w):
    """One that strangers may write."""
    with w.directory() as d:
        name = w.name()
        w.create_and_close(d, name)
        w.chmod(d, name, w.rng.choice(names.SET_ID_MODES))


@action("set-user-id", 6)
def write_a_set_user_id_file(w):
    with w.directory() as d:
        for name, kind in w.entries(d):
            if not stat.S_ISREG(kind):
                continue
            found = w.call("stat", d.of(name), os.stat, name, dir_fd=d.fd, follow_symlinks=False, keep=False)
            if found is None or not found.st_mode & (stat.S_ISUID | stat.S_ISGID):
                continue
            fd = w.open(d, name, os.O_RDWR)
            if fd is None:
                continue
            kept, what = w.keep(fd, d.of(name)), w.rng.randrange(4)
            if what == 0 and w.allowed("mapped") and w.map(kept) is not None:
                w.store(kept, 0, min(40, len(kept.area)))
                w.call("msync", kept.path, kept.area.flush)
            elif what == 1:
                w.truncate(fd, kept.path, 10)
            elif what == 2:
                w.chown(d, name, w.rng.choice([-1, w.uid]), w.uid)
            else:
                w.write(fd, kept.path, 5, 100)
            return


@action("paths", 2)
def a_long_path(w):
    """Down to the longest path that a record can hold and beyond; then work at that depth."""
    total = w.rng.choice([3900, 4020, 4028, 4031, 4032, 4033, 4040, 4080, 4090, 4094, 4095, 4096, 4097, 4100, 4200])
    with w.directory([names.SOURCE, b"own-%d" % w.index], 0) as top:
        d = w.down(top, total - w.settings.lower_length)
        if d is None:
            return
        with d:
            rest = total - w.settings.lower_length - len(d.path) - 2
            name = b"e" * max(1, min(255, rest))
            fd = w.create(d, name, length=w.rng.choice([0, 30, 5000]))
            w.keep_or_close(fd, d.of(name))
            w.chmod(d, name, 0o640)
            what = w.rng.randrange(5)
            if what == 0:
                w.rename(d, name, d, b"short")
            elif what == 1:
                w.link(d, name, top, w.name())
            elif what == 2:
                w.mkdir(d, name + b"d")
                w.rmdir(d, name + b"d")
            elif what == 3:
                w.rename(d, name, top, w.name())
            else:
                w.symlink(d, name + b"s", b"anything")
            if w.rng.random() < 0.6:
                w.unlink(d, name)
    if w.rng.random() < 0.15:
        with w.directory([names.SOURCE, b"own-%d" % w.index], 0) as top:
            w.rename(top, w.deep_name(0), top, w.name())
