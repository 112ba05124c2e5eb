# SPDX-License-Identifier: GPL-2.0
"""One process that works on the mounts: its calls, its journal, its walks, the descriptors that it keeps.

Every call of the file system goes through Worker.call(): it stands in the shared slot while it lasts and in the journal
afterwards. A call that the system refuses gives None; refusals are part of the work. Paths in the journal are
relative to the lower directory and are what the worker had last seen: it works relative to open directories, and while
it does, others may move these.
"""
import errno
import json
import mmap
import os
import random
import stat
import time

from . import control, names

# What a mount that is gone answers: the test cannot go on.
DEAD = {errno.ENOTCONN, errno.ECONNABORTED, errno.EIO}
KEPT = 12


class Path(bytes):
    """A path as it was seen, and what does not depend on who renames what above: the inode numbers of the directory or
    of the open file, which are those of the lower file system."""
    parent = inode = None


class Directory:
    """An open directory and the path that led to it."""

    def __init__(self, fd, path):
        self.fd, self.path = fd, path
        self.inode = os.fstat(fd).st_ino

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.fd)

    def of(self, name):
        path = Path(names.join(self.path, name))
        path.parent = self.inode
        return path

    def way(self, name):
        """A path for calls that do not take a directory's descriptor."""
        return b"/proc/self/fd/%d/%s" % (self.fd, name)


class Kept:
    """A descriptor that stays open while others change the names of what it is of."""

    def __init__(self, fd, path, flags):
        self.fd, self.flags, self.area = fd, flags, None
        self.path = Path(path)
        self.path.inode = os.fstat(fd).st_ino

    def close(self):
        if self.area is not None:
            self.area.close()
        os.close(self.fd)


class Worker:
    def __init__(self, index, uid, settings, shared):
        self.index, self.uid, self.settings, self.control = index, uid, settings, shared
        self.slot = shared.slot(index)
        self.rng = random.Random("%d/%d" % (settings.seed, index))
        self.groups = settings.groups
        self.kept = []
        self.mount = 0
        self.number = 0
        self.journal = None
        self.parent = os.getppid()

    # Life.

    def run(self, actions):
        if self.uid:
            os.setgroups([])
            os.setresgid(self.uid, self.uid, self.uid)
            os.setresuid(self.uid, self.uid, self.uid)
        os.umask(0)
        os.chdir(self.settings.lower)
        mounts = [m for m in self.settings.mounts if self.allowed("two-mounts") or m == self.settings.mounts[0]]
        self.roots = [os.open(m, os.O_RDONLY | os.O_DIRECTORY) for m in mounts]
        number, removal, weights = -1, None, None
        while True:
            order, new_number, new_removal = self.control.order()
            if order == control.END or os.getppid() != self.parent:
                return
            if order == control.PAUSE:
                self.settle(new_number)
                continue
            if (new_number, new_removal) != (number, removal):
                number, removal = new_number, new_removal
                self.open_journal(number)
                weights = [a.weight * (removal if a.removes else 1) for a in actions]
            # One mount for one action: nothing can be moved or linked from one to the other.
            self.mount = self.rng.randrange(len(self.roots))
            self.rng.choices(actions, weights)[0].run(self)

    def settle(self, number):
        """Pauses. What was stored in mapped memory goes down first; descriptors stay open."""
        if self.slot.paused != number:
            for kept in self.kept:
                if kept.area is not None:
                    self.call("msync", kept.path, kept.area.flush)
                    self.call("fsync", kept.path, os.fsync, kept.fd)
            self.slot.pause(number)
        time.sleep(0.005)

    def open_journal(self, number):
        if self.journal is not None:
            os.close(self.journal)
        path = self.settings.journal(number, self.index)
        self.journal = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o600)

    def allowed(self, group):
        return group in self.groups

    # Calls.

    def call(self, op, path, function, *args, to=None, detail="", keep=True, **named):
        self.number += 1
        text = "%s %s%s %s" % (op, names.shown(path), " " + names.shown(to) if to is not None else "", detail)
        began = self.slot.enter(text.encode(errors="replace"))
        outcome = "ok"
        try:
            result = function(*args, **named)
            return True if result is None else result
        except (OSError, ValueError) as error:
            code = getattr(error, "errno", None)
            outcome = errno.errorcode.get(code, str(error))
            if code in DEAD:
                raise
            return None
        finally:
            self.slot.leave()
            if keep or outcome != "ok":
                self.note(began, op, path, to, detail, outcome)

    def note(self, began, op, path, to, detail, outcome):
        entry = {"t": began, "e": time.monotonic(), "w": self.index, "n": self.number, "op": op,
                 "a": path.decode("latin-1"), "r": outcome}
        for key, value in (("d", getattr(path, "parent", None)), ("i", getattr(path, "inode", None)),
                           ("D", getattr(to, "parent", None))):
            if value is not None:
                entry[key] = value
        if to is not None:
            entry["b"] = to.decode("latin-1")
        if detail:
            entry["x"] = detail
        os.write(self.journal, json.dumps(entry).encode() + b"\n")

    def content(self, length):
        """Bytes that tell whose they are."""
        stamp = b"<worker %d call %d>" % (self.index, self.number + 1)
        return (stamp * (length // len(stamp) + 1))[:length]

    def open(self, d, name, flags, mode=0):
        flags |= os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC
        shown = "flags %#o" % flags + (" mode %04o" % mode if flags & os.O_CREAT else "")
        return self.call("open", d.of(name), os.open, name, flags, mode, dir_fd=d.fd, detail=shown,
                         keep=bool(flags & (os.O_CREAT | os.O_TRUNC)))

    def create(self, d, name, mode=0o666, length=None, flags=os.O_EXCL):
        """A new file with something in it; its descriptor."""
        fd = self.open(d, name, os.O_RDWR | os.O_CREAT | flags, mode)
        if fd is not None:
            self.write(fd, d.of(name), 0, names.size(self.rng) if length is None else length)
        return fd

    def create_and_close(self, d, name):
        fd = self.create(d, name)
        if fd is not None:
            self.call("close", d.of(name), os.close, fd, keep=False)

    def write(self, fd, path, offset, length):
        return self.call("pwrite", path, os.pwrite, fd, self.content(length), offset,
                         detail="fd %d offset %d length %d" % (fd, offset, length))

    def append(self, fd, path, length):
        return self.call("write", path, os.write, fd, self.content(length), detail="fd %d length %d" % (fd, length))

    def truncate(self, fd, path, size):
        return self.call("ftruncate", path, os.ftruncate, fd, size, detail="fd %d size %d" % (fd, size))

    def unlink(self, d, name):
        return self.call("unlink", d.of(name), os.unlink, name, dir_fd=d.fd)

    def mkdir(self, d, name, mode=0o777):
        return self.call("mkdir", d.of(name), os.mkdir, name, mode, dir_fd=d.fd, detail="mode %04o" % mode)

    def rmdir(self, d, name):
        return self.call("rmdir", d.of(name), os.rmdir, name, dir_fd=d.fd)

    def rename(self, d, name, to_d, to_name):
        return self.call("rename", d.of(name), os.rename, name, to_name, src_dir_fd=d.fd, dst_dir_fd=to_d.fd,
                         to=to_d.of(to_name))

    def link(self, d, name, to_d, to_name):
        return self.call("link", d.of(name), os.link, name, to_name, src_dir_fd=d.fd, dst_dir_fd=to_d.fd,
                         follow_symlinks=False, to=to_d.of(to_name))

    def symlink(self, d, name, target):
        return self.call("symlink", d.of(name), os.symlink, target, name, dir_fd=d.fd,
                         detail="to " + names.shown(target, 60))

    def chmod(self, d, name, mode):
        """Follows a symbolic link, as chmod does."""
        return self.call("chmod", d.of(name), os.chmod, name, mode, dir_fd=d.fd, detail="mode %04o" % mode)

    def chown(self, d, name, uid, gid):
        return self.call("lchown", d.of(name), os.chown, name, uid, gid, dir_fd=d.fd, follow_symlinks=False,
                         detail="%d:%d" % (uid, gid))

    def utime(self, d, name):
        when = names.run_time(self.rng, self.allowed("past"))
        return self.call("utimes", d.of(name), os.utime, name, ns=(when, when), dir_fd=d.fd, follow_symlinks=False,
                         detail="%d us" % (when // 1000))

    def special(self, d, name, mode, device=0):
        return self.call("mknod", d.of(name), os.mknod, name, mode, device, dir_fd=d.fd,
                         detail="%s mode %04o" % (names.type_name(mode), stat.S_IMODE(mode)))

    # Places.

    def zone(self):
        """Where a walk begins, as components."""
        zone, border = names.SOURCE, self.rng.random()
        if self.allowed("border") and border < 0.2:
            zone = names.EXCLUDED if border < 0.1 else names.OUTSIDE
        own = [] if self.allowed("shared") and self.rng.random() < 0.6 else [b"own-%d" % self.index]
        return zone.split(b"/") + own

    def directory(self, components=None, deeper=0.55):
        """A directory somewhere below; where the way is blocked, the last one that could be entered."""
        d = Directory(os.dup(self.roots[self.mount]), b"")
        for name in self.zone() if components is None else components:
            entered = self.enter(d, name)
            if entered is None:
                return d
            d = entered
        while self.rng.random() < deeper:
            below = [name for name, mode in self.entries(d) if stat.S_ISDIR(mode)]
            entered = self.enter(d, self.rng.choice(below)) if below else None
            if entered is None:
                break
            d = entered
        return d

    def enter(self, d, name):
        """The directory below instead of the one given, or nothing."""
        entered = self.inside(d, name)
        if entered is not None:
            os.close(d.fd)
        return entered

    def inside(self, d, name):
        """The directory below; the one given stays open."""
        flags = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
        fd = self.call("enter", d.of(name), os.open, name, flags, dir_fd=d.fd, keep=False)
        return None if fd is None else Directory(fd, d.of(name))

    def entries(self, d):
        """(name, type) of each, in an order that does not depend on the directory."""
        def read():
            types = {True: stat.S_IFDIR, False: stat.S_IFREG}
            found = []
            with os.scandir(d.fd) as entries:
                for entry in entries:
                    kind = stat.S_IFLNK if entry.is_symlink() else types[entry.is_dir(follow_symlinks=False)]
                    if kind == stat.S_IFREG and not entry.is_file(follow_symlinks=False):
                        kind = stat.S_IFIFO  # or another special file
                    found.append((os.fsencode(entry.name), kind))
            return sorted(found)
        return self.call("readdir", d.path, read, keep=False) or []

    def some(self, d, kinds=(stat.S_IFREG,)):
        """The name of an entry of these types, if there is one. What the tree began with stays where it is."""
        fixed = self.settings.fixed
        found = [name for name, mode in self.entries(d) if mode in kinds and name not in fixed]
        return self.rng.choice(found) if found else None

    def name(self):
        choice = self.rng.random()
        if self.allowed("names") and choice < 0.2:
            return self.rng.choice(names.ODD)
        if self.allowed("names") and choice < 0.26:
            return self.rng.choice(names.LONG)
        return self.rng.choice(names.PLAIN)

    def in_zone(self, zone):
        return zone.split(b"/") + ([] if self.allowed("shared") else [b"own-%d" % self.index])

    def parents(self):
        """The directory that holds the parents which are renamed."""
        return self.directory(self.in_zone(names.SOURCE), 0)

    def deep_name(self, level):
        return b"deep-%d-" % level + b"D" * 240

    def down(self, top, length):
        """A directory below `top` whose path is not much shorter than `length`, made where it is missing."""
        d = Directory(os.dup(top.fd), top.path)
        for level in range(20):
            room = length - len(d.path) - 2
            if room < 256:
                break
            name = self.deep_name(level)
            entered = self.enter(d, name) or (self.mkdir(d, name) and self.enter(d, name))
            if not entered:
                os.close(d.fd)
                return None
            d = entered
        return d

    # Kept descriptors.

    def keep(self, fd, path, flags=os.O_RDWR):
        if len(self.kept) >= KEPT:
            self.drop(self.kept.pop(self.rng.randrange(len(self.kept))))
        self.kept.append(Kept(fd, path, flags))
        return self.kept[-1]

    def drop(self, kept):
        self.call("close", kept.path, kept.close, keep=False)

    def keep_or_close(self, fd, path):
        if fd is None:
            return
        if self.allowed("kept") and self.rng.random() < 0.4:
            self.keep(fd, path)
        else:
            self.call("close", path, os.close, fd, keep=False)

    def map(self, kept):
        if kept.area is None:
            def mapped():
                return mmap.mmap(kept.fd, os.fstat(kept.fd).st_size, mmap.MAP_SHARED)
            kept.area = self.call("mmap", kept.path, mapped, keep=False)
        return kept.area

    def store(self, kept, offset, length):
        """Into mapped memory. The kernel does it: where the file has become shorter, that is an error and no signal."""
        data = os.memfd_create("content")
        os.write(data, self.content(length))
        self.call("store", kept.path, os.preadv, data, [memoryview(kept.area)[offset:offset + length]], 0,
                  detail="fd %d offset %d length %d" % (kept.fd, offset, length))
        os.close(data)
