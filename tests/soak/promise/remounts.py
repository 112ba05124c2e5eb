# SPDX-License-Identifier: GPL-2.0
"""A third mount of the lower directory that comes and goes: with it go the objects that its kernel knew, while programs
have the same lower files open through the other mounts."""
import os
import stat
import subprocess
import time

from . import control, names


def run(w):
    w.open_journal(0)
    w.roots = [os.open(w.settings.mounts[0], os.O_RDONLY | os.O_DIRECTORY)]
    number = -1
    while True:
        order, new_number, _ = w.control.order()
        if order == control.END or os.getppid() != w.parent:
            return
        if order == control.PAUSE:
            w.settle(new_number)
            continue
        if new_number != number:
            number = new_number
            w.open_journal(number)
        come_and_go(w)


def tarn(*arguments):
    done = subprocess.run(["tarn", *arguments], capture_output=True, check=False)
    if done.returncode != 0:
        raise OSError(0, done.stderr.decode(errors="replace"))


def come_and_go(w):
    settings = w.settings
    if w.call("mount", b"", tarn, "mount", settings.lower, settings.third) is None:
        time.sleep(0.2)
        return
    look_at_files(w)
    for _ in range(100):
        if w.call("umount", b"", tarn, "umount", settings.third) is not None:
            break
        time.sleep(0.1)
    while w.kept and w.rng.random() < 0.7:
        kept = w.kept.pop(0)
        w.write(kept.fd, kept.path, 10, 100)
        w.drop(kept)
    time.sleep(w.rng.random())


def look_at_files(w):
    """Keeps files open through the first mount that the third one has seen too."""
    for _ in range(5):
        with w.directory([names.SOURCE]) as d:
            name = w.some(d)
            fd = w.open(d, name, os.O_RDWR) if name else None
            if fd is None:
                continue
            kept = w.keep(fd, d.of(name))
            there = names.join(w.settings.third, kept.path)
            seen = w.call("stat", kept.path, os.stat, there, follow_symlinks=False, keep=False)
            if seen is not None and stat.S_ISREG(seen.st_mode):
                w.write(kept.fd, kept.path, 0, 50)
