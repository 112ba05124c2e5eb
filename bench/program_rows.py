# SPDX-License-Identifier: GPL-2.0
"""The programs that programs.py measures, and the files that they work on."""
import dataclasses
import random

import sides

FILES_PER_DIRECTORY = 50


@dataclasses.dataclass(frozen=True)
class Row:
    """One program. Commands are for a shell in the mount point.

    tree/ is a tree of files there and repo/ a git repository of the same files; ../tree, ../repo and ../many.tar, an
    archive of a larger tree, are on a tmpfs that all sides share. What a command makes otherwise is in work/, which
    is removed when the round is over.
    """
    title: str
    command: str
    prepare: str = "true"  # not measured; finds what rows of the same round have left
    cold: bool = True      # the host keeps nothing of the mount when it begins
    again: bool = False    # measured a second time at once


UNPACK = "mkdir -p work/many && tar xf ../many.tar -C work/many"
UNPACKED = "test -d work/many || { %s; }" % UNPACK

ROWS = {
    "find": Row("find", "find tree >/dev/null", again=True),
    "find_ls": Row("find -ls", "find tree -ls >/dev/null", again=True),
    "grep": Row("grep -r", "grep -r absent tree >/dev/null || test $? = 1", again=True),
    "diff": Row("diff -r", "diff -r tree ../tree", again=True),
    "status": Row("git status", "git -C repo status >/dev/null", again=True),
    "rsync": Row("rsync -a, nothing to do", "rsync -a ../tree/ tree/", again=True),
    "unpack": Row("tar x", UNPACK, "rm -rf work/many"),
    # With /dev/null for its archive tar does not read the files.
    "pack": Row("tar c", "tar cf - work/many | cat >/dev/null", UNPACKED, again=True),
    "remove": Row("rm -rf", "rm -rf work/many", UNPACKED),
    "copy": Row("cp -a", "cp -a tree work/copy", "rm -rf work/copy"),
    "clone": Row("git clone", "git clone -q ../repo work/clone", "rm -rf work/clone"),
}


def make_files(top, files, large):
    """What all sides begin with, and the archive; the same in each run."""
    numbers = random.Random(1)
    words = ["word%d" % number for number in range(500)]
    for name, count in (("tree", files), ("many", large)):
        for number in range(count):
            directory = top / name / ("d%03d" % (number // FILES_PER_DIRECTORY))
            directory.mkdir(parents=True, exist_ok=True)
            # Most files are small, as in sources: half have less than 3 KiB, one in a hundred more than 30.
            text = " ".join(numbers.choices(words, k=min(8000, int(numbers.lognormvariate(5.9, 1.2)))))
            (directory / ("f%05d" % number)).write_text(text)
    sides.shell("tar cf many.tar -C many . && rm -rf many && cp -a tree repo && cd repo && git init -q && git add -A && "
                "git -c user.name=bench -c user.email=bench@localhost commit -qm all", top)
