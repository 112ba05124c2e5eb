# SPDX-License-Identifier: GPL-2.0
"""The programs that programs.py measures, and the files that they work on."""
import dataclasses
import json
import os
import pathlib
import random
import re
import typing

import sides

FILES_PER_DIRECTORY = 50
SMALL_PART = 5  # the tree of a worker has so many times fewer files than the tree of one program
COMMITS, TRANSACTIONS = 2000, 4000
RANDOM_MIB, SEQUENTIAL_MIB = 48, 128  # of each of fio's threads
PROJECT = pathlib.Path(__file__).resolve().parent.parent


@dataclasses.dataclass(frozen=True)
class Row:
    """One program. Commands are for a shell in the mount point.

    tree/ is a tree of files there and repo/ a git repository of the same files. ../tree, ../repo, ../small, ../many.tar
    (an archive of a larger tree) and ../project are on a tmpfs that all sides share, ../scratch is the side's own. What
    a command makes is in work/, which is emptied when a round is over, or, if it can be used again, in kept/.
    """
    title: str
    means: str  # a sentence for users without its end; {time} is tarn's, {each} that for one file or commit
    command: str
    prepare: str = "true"  # not measured; finds what rows of the same round have left
    cold: bool = True      # the host keeps nothing of the mount when it begins
    changes_names: bool = False
    again: bool = False    # measured a second time at once
    other_user: bool = False
    times: int = 1         # in each round; more of what is over soon
    workers: int = 1       # how many do the same at once; rows of one `family` differ in nothing else
    family: str = ""
    mib: int = 0           # that are read or written: what {rate} is of
    # From the program's own output, where not all that the command does is to be measured.
    seconds: typing.Optional[typing.Callable[[str], float]] = None


def at_once(command, workers):
    """The shell's command for {} from 1 to `workers`, at the same time."""
    begin = "; ".join("%s & p%d=$!" % (command.format(n), n) for n in range(1, workers + 1))
    return begin + "; " + "; ".join("wait $p%d" % n for n in range(1, workers + 1))


def tree_rows():
    unpack = "mkdir -p work/many && tar xf ../many.tar -C work/many"
    unpacked = "test -d work/many || { %s; }" % unpack
    return {
        "find": Row("find", "The names of a tree of {files} files are listed in {time}", "find tree >/dev/null",
                    again=True, times=2),
        "find_ls": Row("find -ls", "{files} files are listed with their sizes and times in {time}",
                       "find tree -ls >/dev/null", again=True, times=2),
        "grep": Row("grep -r", "A word is looked for in {files} files in {time}, {each} a file",
                    "grep -r absent tree >/dev/null || test $? = 1", again=True, times=2),
        "diff": Row("diff -r", "{files} files are compared with a copy outside the mount in {time}", "diff -r tree ../tree",
                    again=True, times=2),
        "status": Row("git status", "git sees in {time} that none of {files} files has changed",
                      "git -C repo status >/dev/null", again=True, times=2),
        "rsync": Row("rsync -a, nothing to do", "A backup by rsync finds in {time} that {files} files are the same",
                     "rsync -a ../tree/ tree/", again=True, times=2),
        "unpack": Row("tar x", "An archive of {large} files is unpacked in {time}, {each} a file", unpack,
                      "rm -rf work/many", changes_names=True),
        # With /dev/null for its archive tar does not read the files.
        "pack": Row("tar c", "{large} files are packed in {time}, {each} a file", "tar cf - work/many | cat >/dev/null",
                    unpacked, again=True),
        "remove": Row("rm -rf", "A tree of {large} files is removed in {time}, {each} a file", "rm -rf work/many", unpacked,
                      changes_names=True),
        "copy": Row("cp -a", "A tree of {files} files is copied inside the mount in {time}, {each} a file",
                    "cp -a tree work/copy", "rm -rf work/copy", changes_names=True),
        "clone": Row("git clone", "A repository of {files} files is cloned into the mount in {time}",
                     "git clone -q ../repo work/clone", "rm -rf work/clone",
                     changes_names=True),
    }


def compile_row():
    made = "cmake --build kept/build -j%d --target tarn_module" % os.cpu_count()
    configured = ("test -d kept/build || { cp -a ../project/ kept/project && cmake -S kept/project -B kept/build -G Ninja "
                  "-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER= ; } && "
                  "cmake --build kept/build --target clean")
    return Row("compile -j%d" % os.cpu_count(), "This project's module, sources and objects on the mount, is compiled in {time}",
               made, configured, cold=False)


def sqlite_row(title, journal):
    return Row("SQLite, " + title, "SQLite commits {commits} rows one by one in {time}, {each} a commit",
               "{ echo 'PRAGMA journal_mode = %s;'; cat ../commits.sql; } | sqlite3 -batch work/%s.db >/dev/null"
               % (journal, journal), "rm -f work/%s.db*" % journal, cold=False)


def postgres_row():
    script = "%s/bench/postgres.sh %%s kept/postgres $(realpath ../scratch) %d" % (PROJECT, TRANSACTIONS)

    def seconds(output):
        return TRANSACTIONS / float(re.search(r"tps = ([0-9.]+) \(without", output).group(1))
    return Row("PostgreSQL, pgbench",
               "Four clients of a PostgreSQL on the mount commit {transactions} transactions of pgbench in {time}, {each} a "
               "transaction", script % "run", script % "prepare", cold=False, other_user=True, seconds=seconds)


def fio_rows():
    base = ("fio --name=data --directory=kept/fio --filesize=%dm --thread --ioengine=psync --fallocate=none --group_reporting "
            "--output-format=json " % SEQUENTIAL_MIB)
    files = "test -d kept/fio || { mkdir kept/fio && %s --rw=write --bs=128k --numjobs=4; }" % base

    def seconds(output):
        job = json.loads(output[output.index("{\n"):])["jobs"][0]
        return max(job[kind]["runtime"] for kind in ("read", "write")) / 1e3

    def row(title, kind, size, mib, threads):
        done = "written" if "write" in kind else "read"
        how = "%s KiB at a time, %s" % (size[:-1], "in random order" if "rand" in kind else "one after another")
        by = "by one thread," if threads == 1 else "by each of %d threads, with a file of its own," % threads
        return Row("fio, %s, %d thread%s" % (title, threads, "s" if threads > 1 else ""),
                   "%d MiB are %s %s %s, in {time}, {rate}" % (mib, done, by, how),
                   base + "--rw=%s --bs=%s --io_size=%dm --numjobs=%d" % (kind, size, mib, threads), files,
                   workers=threads, family="fio, " + title, mib=mib * threads, seconds=seconds)
    rows = {}
    for name, title, kind, size, mib, counts in (
            ("random_read", "4 KiB random read", "randread", "4k", RANDOM_MIB, (1, 2, 4)),
            ("random_write", "4 KiB random write", "randwrite", "4k", RANDOM_MIB, (1, 2, 4)),
            ("read", "128 KiB sequential read", "read", "128k", SEQUENTIAL_MIB, (1, 4)),
            ("write", "128 KiB sequential write", "write", "128k", SEQUENTIAL_MIB, (1, 4))):
        for threads in counts:
            rows["fio_%s_%d" % (name, threads)] = row(title, kind, size, mib, threads)
    return rows


def worker_rows():
    """Each has a tree of its own."""
    trees = "test -d kept/4 || for n in 1 2 3 4; do cp -a ../small/ kept/$n; done"
    rows = {}
    for workers, which in (
            (1, "One program, with"), (2, "Two programs at once, each with"), (4, "Four programs at once, each with")):
        rows["finds_%d" % workers] = Row(
            "%d x find -ls" % workers, which + " {small} files to list: {time}",
            at_once("find kept/{} -ls >/dev/null", workers), trees, times=2, workers=workers, family="find -ls")
        rows["copies_%d" % workers] = Row(
            "%d x cp -a" % workers, which + " {small} files to copy: {time}",
            at_once("cp -a kept/{0} work/own.{0}", workers), trees + "; rm -rf work/own.*", workers=workers, family="cp -a")
    return rows


ROWS = {
    **tree_rows(),
    "compile": compile_row(),
    "sqlite": sqlite_row("a journal for each commit", "delete"),
    "sqlite_wal": sqlite_row("write-ahead log", "wal"),
    "postgres": postgres_row(),
    **fio_rows(),
    **worker_rows(),
}


def make_tree(top, count):
    """The same in each run. Most files are small, as in sources: half are below 3 KiB, one in a hundred above 30."""
    numbers = random.Random(1)
    words = ["word%d" % number for number in range(500)]
    for number in range(count):
        directory = top / ("d%03d" % (number // FILES_PER_DIRECTORY))
        directory.mkdir(parents=True, exist_ok=True)
        text = " ".join(numbers.choices(words, k=min(8000, int(numbers.lognormvariate(5.9, 1.2)))))
        (directory / ("f%05d" % number)).write_text(text)


def make_files(top, files, large):
    """What all sides share."""
    make_tree(top / "tree", files)
    make_tree(top / "small", max(1, files // SMALL_PART))
    make_tree(top / "many", large)
    sides.shell("tar cf many.tar -C many . && rm -rf many && cp -a tree repo && cd repo && git init -q && git add -A && "
                "git -c user.name=bench -c user.email=bench@localhost commit -qm all", top)
    (top / "project").mkdir()
    sides.shell("tar cf - --exclude=./build --exclude=./.git . | tar xf - -C '%s'" % (top / "project"), PROJECT)
    insert = "INSERT INTO entries (text) VALUES (hex(randomblob(50)));\n"
    (top / "commits.sql").write_text("CREATE TABLE entries (id INTEGER PRIMARY KEY, text);\n" + insert * COMMITS)


def fill(home):
    """A side's directory, with what the programs expect beside it."""
    for shared in ("tree", "small", "repo", "many.tar", "project", "commits.sql"):
        (home / shared).symlink_to(home.parent / shared)
    (home / "scratch").mkdir()
    # git keeps in the index which times its files have.
    # mirrord takes the replica's top from others, so that its mode is to be the source's own doing.
    sides.shell("chmod 755 . && mkdir work kept && cp -a ../tree/ tree && cp -a ../repo/ repo && "
                "git -C repo status >/dev/null", home / "mnt")
