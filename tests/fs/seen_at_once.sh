#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Where the host keeps nothing, what is done directly in the lower directory is seen through the mount by the very next call
# that names it, attributes and sizes too, and by who has the file open after two ticks of the clock. Again and again, for
# what the host remembered would be right now and then.
. "$(dirname "$0")/../lib.sh"

tarn mount --cache 0 "$T/lower" "$T/mnt"

python3 - "$T/mnt" "$T/lower" <<'PY' || fail "something was remembered"
import os
import sys
import time

TWO_TICKS = 0.02  # of a host's clock of 100 Hz
mnt, lower = sys.argv[1:]


def missing(path):
    try:
        os.lstat(path)
        return False
    except FileNotFoundError:
        return True


def size_of(fd):
    time.sleep(TWO_TICKS)
    return os.fstat(fd).st_size


def check(what, number, got, want):
    if got != want:
        sys.exit("%s, time %d: %r instead of %r" % (what, number, got, want))


here, there = mnt + "/file", lower + "/file"
for i in range(50):
    check("a name that is not there yet", i, missing(here), True)
    with open(there, "ab", buffering=0) as out:
        check("a new name", i, os.stat(here).st_size, 0)
        reader = os.open(here, os.O_RDONLY)
        for size in range(1, 4):
            out.write(b"x")
            check("the size of an open file", i, size_of(reader), size)
            check("the size by name", i, os.stat(here).st_size, size)
            out.write(b"x")
            out.truncate(size)
            check("the size of an open file after a truncation", i, size_of(reader), size)
        os.chmod(there, 0o600 + i % 8)
        check("the mode", i, os.stat(here).st_mode & 0o777, 0o600 + i % 8)
        os.chmod(there, 0o640)
        time.sleep(TWO_TICKS)
        check("the mode of an open file", i, os.fstat(reader).st_mode & 0o777, 0o640)
        os.close(reader)
    os.link(there, lower + "/second")
    check("the links", i, os.stat(here).st_nlink, 2)
    os.unlink(lower + "/second")
    os.rename(there, lower + "/moved")
    check("a name that was moved away", i, missing(here), True)
    check("its new name", i, missing(mnt + "/moved"), False)
    os.unlink(lower + "/moved")
    check("a name that is gone", i, missing(mnt + "/moved"), True)
    os.mkdir(lower + "/dir")
    check("a new directory's names", i, os.listdir(mnt + "/dir"), [])
    open(lower + "/dir/one", "wb").close()
    check("a directory's names", i, os.listdir(mnt + "/dir"), ["one"])
    os.unlink(lower + "/dir/one")
    os.rmdir(lower + "/dir")
    check("a directory that is gone", i, missing(mnt + "/dir"), True)
PY
