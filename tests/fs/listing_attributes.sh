#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Which listings bring attributes, told by the descriptors that tarnd has of what was looked up: none for a program that only lists,
# or looks up few of the names; for one that looks up what it has listed, from the next directory on. Either way names, kinds, inode
# numbers and attributes are those below, and what is done through the mount is seen at once.
. "$(dirname "$0")/../lib.sh"

python3 - "$T/lower" <<'PY'
import os
import sys

# For each of two mounts: programs p0 to p3 with four directories of 40 files and one of each other kind.
for mount in "01":
    for program in range(4):
        for directory in range(4):
            top = "%s/%s/p%d/d%d" % (sys.argv[1], mount, program, directory)
            os.makedirs(top + "/dir")
            os.mkfifo(top + "/fifo")
            os.symlink("f1", top + "/link")
            for number in range(40):
                with open("%s/f%d" % (top, number), "w") as out:
                    out.write("x" * number)
PY
mkdir "$T/mnt0"
cleanup_test() { umount -l "$T/mnt0" 2>/dev/null; }
tarn mount --cache 3600 "$T/lower/1" "$T/mnt"
tarn mount --cache 0 "$T/lower/0" "$T/mnt0"

python3 - "$T/mnt" "$T/lower/1" "$T/mnt0" "$T/lower/0" "$(cat "$TARN_RUN_DIR/tarnd.pid")" <<'PY' || fail "a listing was wrong"
import os
import sys

mnt, lower, mnt_uncached, lower_uncached, tarnd = sys.argv[1:]
FILES = 42  # and a directory


def check(what, got, want):
    if got != want:
        sys.exit("%s: %r instead of %r" % (what, got, want))


def descriptors():
    return len(os.listdir("/proc/%s/fd" % tarnd))


def names(directory):
    """Names, kinds and numbers, for which nothing is looked up."""
    with os.scandir(directory) as entries:
        return sorted((e.name, e.inode(), e.is_dir(follow_symlinks=False), e.is_symlink()) for e in entries)


def status(directory, name):
    s = os.lstat(directory + "/" + name)
    return s.st_ino, s.st_mode, s.st_nlink, s.st_uid, s.st_gid, s.st_size, s.st_mtime_ns


def brings_attributes(top, below, directory):
    """Lists it; the rest of what the listing says is right."""
    with os.scandir(top + directory):
        pass
    before = descriptors()
    listed = names(top + directory)
    brought = descriptors() - before
    check("the names of " + directory, listed, names(below + directory))
    if brought not in range(8) and brought not in range(FILES, FILES + 9):
        sys.exit("a listing has brought %d of %d files" % (brought, FILES))
    return brought >= FILES


def look_up(top, below, directory, count):
    for name, *_ in names(below + directory)[:count]:
        check("the attributes of %s/%s" % (directory, name), status(top + directory, name), status(below + directory, name))


def only_lists(top, below, program):
    check("listings with attributes for who lists",
          [brings_attributes(top, below, "%s/d%d" % (program, n)) for n in range(4)], [False] * 4)


def looks_few_up(top, below, program):
    for n in range(4):
        check("attributes for who looks up few", brings_attributes(top, below, "%s/d%d" % (program, n)), False)
        look_up(top, below, "%s/d%d" % (program, n), 8)


def looks_all_up(top, below, program, wanted):
    for n in range(4):
        directory = "%s/d%d" % (program, n)
        check("attributes in directory %d for who looks all up" % n, brings_attributes(top, below, directory), wanted and n > 0)
        look_up(top, below, directory, FILES + 1)


def changes(top, below, program):
    """What was listed with and without attributes is changed right after."""
    for n in range(4):
        directory = "%s/d%d" % (program, n)
        brings_attributes(top, below, directory)
        for number in range(0, 40, 2):
            name = "%s%s/f%d" % (top, directory, number)
            if number % 8 == 0:
                os.truncate(name, 99)
            elif number % 8 == 2:
                os.chmod(name, 0o640)
            elif number % 8 == 4:
                os.unlink(name)
                check("a removed name", os.path.lexists(name), False)
            else:
                os.rename(name, "%s%s/f%d" % (top, directory, number + 1))
        check("the names after that", names(top + directory), names(below + directory))
        look_up(top, below, directory, FILES)


def as_program(what, *arguments):
    """Another process: what is brought is decided for each."""
    child = os.fork()
    if child == 0:
        status_code = 1
        try:
            what(*arguments)
            status_code = 0
        except SystemExit as end:
            print(end, file=sys.stderr)
        finally:
            sys.stderr.flush()
            os._exit(status_code)
    if os.waitpid(child, 0)[1] != 0:
        sys.exit("%s: failed" % what.__name__)


for top, below, kept in ((mnt + "/", lower + "/", True), (mnt_uncached + "/", lower_uncached + "/", False)):
    as_program(only_lists, top, below, "p0")
    as_program(looks_few_up, top, below, "p1")
    as_program(looks_all_up, top, below, "p2", kept)
    as_program(changes, top, below, "p3")
PY
