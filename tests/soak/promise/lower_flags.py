# SPDX-License-Identifier: GPL-2.0
"""Flags that only some lower file systems have, set on a lower object for a moment: as `chattr +i` and `+a`."""
import contextlib
import errno
import fcntl
import os
import struct

IMMUTABLE, APPEND_ONLY = 0x10, 0x20
GET_FLAGS, SET_FLAGS = 0x80086601, 0x40086602
UNKNOWN = (errno.ENOTTY, errno.EOPNOTSUPP, errno.EINVAL)


def change(fd, clear=0, add=0):
    flags = struct.unpack("i", fcntl.ioctl(fd, GET_FLAGS, struct.pack("i", 0))[:4])[0]
    fcntl.ioctl(fd, SET_FLAGS, struct.pack("i", (flags & ~clear) | add))


def open_lower(path):
    """A descriptor of a lower object by its path from the current directory, however long that is."""
    flags = os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC
    *parents, last = path.split(b"/")
    fd = os.open(b".", os.O_RDONLY | os.O_DIRECTORY)
    try:
        for name in parents:
            next_fd = os.open(name, flags | os.O_DIRECTORY, dir_fd=fd)
            os.close(fd)
            fd = next_fd
        return os.open(last, flags, dir_fd=fd)
    finally:
        os.close(fd)


@contextlib.contextmanager
def during(w, path, flag):
    """The worker's current directory is the lower one. What has moved meanwhile is left alone."""
    fd = w.call("open below", path, open_lower, path, keep=False)
    changed = fd is not None and w.call("set flag", path, change, fd, 0, flag, detail="%#x" % flag)
    try:
        yield
    finally:
        if changed:
            w.call("clear flag", path, change, fd, flag, detail="%#x" % flag)
        if fd is not None:
            os.close(fd)


def clear_all(root):
    """What a worker that was killed has left."""
    for _, directories, files, fd in os.fwalk(root):
        for name in directories + files:
            try:
                one = os.open(name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC, dir_fd=fd)
            except OSError:
                continue  # a symbolic link, a socket, a device that is not there
            try:
                change(one, IMMUTABLE | APPEND_ONLY)
            except OSError as error:
                if error.errno not in UNKNOWN:
                    raise
            finally:
                os.close(one)
