#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Measures replication: mirrord beside lsyncd with rsync, in one run, on a tmpfs and on a disk.

A side is equal when an independent comparison of both trees finds no difference. When that was is told by the files:
the last time that anything in the target was changed (its change times, of 4 ms) minus the time after the last call of
the program, so the comparison itself takes nothing of the processors meanwhile. The data of a single write are looked
for in the target every half millisecond.

usage: replication.py BUILD_FOLDER [--rounds N] [--part N] [--only SIDE,...] [--parts PART,...]
       [--disk FOLDER] [--busy] [--output FILE]

--part: the N-th part of all files, writes and records. --output: the report whose section is replaced.
"""
import argparse
import contextlib
import datetime
import itertools
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import replication_tables
import sides
from replication_sides import SIDES, Former, bytes_read_and_written
from replication_tables import grouped
from report_table import table

COMPARE = pathlib.Path(__file__).resolve().parent.parent / "tests/replicate/tree_compare.py"
ROUNDS, MEMORY, DISK = 3, "/dev/shm", "/var/tmp"
FILES, LARGE_TREE, IN_DIRECTORY = 10000, 100000, 1000
RENAMED, RENAMES = 100, 5
SINGLE_WRITES = {"mirrord": 200, "lsyncd": 30}  # of which lsyncd takes a second each
LARGE, BLOCK = 512 << 20, 4096
AGAIN = 0.3   # seconds between two comparisons
POLL = 0.0005
MOST = 60     # seconds for a single write
WRITERS, RECORD_FILES = 2, 50
HORIZON = 6  # seconds after a copy in which mirrord looks at the source for each record
RECORDS = ((100, 200000), (4096, 50000))


def paths_of(top, count):
    for number in range(count):
        yield top / ("d%04d" % (number // IN_DIRECTORY)) / ("file%06d" % number)


def files_of(top, count):
    """Paths in directories that are made when needed."""
    for number, path in enumerate(paths_of(top, count)):
        if number % IN_DIRECTORY == 0:
            path.parent.mkdir(exist_ok=True)
        yield path


def write_files(top, count, byte):
    """Without O_TRUNC: a file that is there is overwritten."""
    data = bytes([byte]) * 1024
    for path in files_of(top, count):
        fd = os.open(path, os.O_CREAT | os.O_WRONLY, 0o644)
        os.write(fd, data)
        os.close(fd)


def last_change(top):
    """The latest change time below it, in seconds."""
    latest, waiting = 0, [str(top)]
    while waiting:
        directory = waiting.pop()
        latest = max(latest, os.stat(directory).st_ctime_ns)
        with os.scandir(directory) as entries:
            for entry in entries:
                if entry.is_dir(follow_symlinks=False):
                    waiting.append(entry.path)
                else:
                    latest = max(latest, entry.stat(follow_symlinks=False).st_ctime_ns)
    return latest / 1e9


def until_equal(side):
    """Waits until the trees are equal."""
    end = time.monotonic() + sides.LIMIT
    while True:
        side.settle()
        try:
            return sides.run(COMPARE, side.lower, side.replica)
        except sides.Failure:
            if time.monotonic() > end:
                raise
        time.sleep(AGAIN)


class Costs:
    """What a side has used since."""

    def __init__(self, side):
        self.side = side
        self.before = self.now()

    def now(self):
        return [*self.side.processor_seconds(), *bytes_read_and_written(self.side.process.pid), self.side.moved()]

    def used(self):
        return dict(zip(("cpu", "mount_cpu", "read", "written", "moved"),
                        (now - before for now, before in zip(self.now(), self.before))))


def changed(side, program):
    """Runs a program on the side until it is equal; what that took."""
    side.settle()
    costs = Costs(side)
    begun = time.time()
    program(side.mnt)
    done = time.time()
    until_equal(side)
    return dict(costs.used(), program=done - begun, equal=max(0.0, last_change(side.replica) - done))


def arrival(side, path, byte):
    """Seconds from a single write until the target has its byte, and until it has its time too."""
    fd = os.open(side.mnt / path, os.O_WRONLY)
    os.pwrite(fd, byte, 0)
    os.close(fd)
    done = time.monotonic()
    wanted = os.stat(side.lower / path).st_mtime_ns
    data = None
    while time.monotonic() < done + MOST:
        there = os.open(side.replica / path, os.O_RDONLY)
        equal, mtime = os.pread(there, 1, 0) == byte, os.fstat(there).st_mtime_ns
        os.close(there)
        now = time.monotonic() - done
        if equal and data is None:
            data = now
        if equal and mtime == wanted:
            return data, now
        time.sleep(POLL)
    sides.fail("%s: a single write is not in the target after %d seconds" % (side.title, MOST))


def single_writes(side, count):
    taken = []
    for number in range(count):
        time.sleep(random.uniform(0.02, 0.06))
        taken.append(arrival(side, "d0000/file%06d" % random.randrange(IN_DIRECTORY // 10), bytes([number % 251])))
    return taken


def rename_directory(top, number):
    os.rename(top / ("renamed%d" % number), top / ("renamed%d" % (number + 1)))


def write_inside(top):
    fd = os.open(top / "large", os.O_WRONLY)
    os.pwrite(fd, b"x" * BLOCK, LARGE // 2)
    os.close(fd)


def make_large(top):
    """Of data that have no holes."""
    block = random.randbytes(1 << 20)
    with open(top / "large", "wb") as large:
        for _ in range(LARGE >> 20):
            large.write(block)


class Measured:
    """taken[file system, row, side]: a list of what each round has given."""

    def __init__(self, part, folders, parts):
        self.part, self.folders, self.parts = part, folders, parts
        self.former = bool(Former.program)
        self.kept = []  # folders that are removed at the end
        self.rounds, self.taken, self.failures = 0, {}, []
        self.when = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
        self.cores = "%d cores" % os.cpu_count()
        self.disk = ", ".join(kind for kind in folders if kind != "tmpfs") or "no other"
        self.busy = ""
        self.sizes = {"files": grouped(FILES / part), "tree": grouped(LARGE_TREE / part), "renamed": RENAMED,
                      "writers": WRITERS}
        self.record_sizes = [size for size, _ in RECORDS]

    def add(self, kind, row, name, what):
        self.taken.setdefault((kind, row, name), []).append(what)

    def values(self, kind, row, name, key):
        return [each[key] for each in self.taken.get((kind, row, name), []) if key in each]

    def median(self, kind, row, name, key):
        values = self.values(kind, row, name, key)
        return statistics.median(values) if values else None


def small_changes(done, kind, name, side):
    """All rows on a side that follows 10 000 files."""
    files = FILES // done.part
    (side.lower / "renamed0").mkdir()
    for number in range(RENAMED):
        (side.lower / "renamed0" / str(number)).write_bytes(b"x" * 1024)
    make_large(side.lower)
    side.follow()
    until_equal(side)
    done.add(kind, "create", name, changed(side, lambda top: write_files(top, files, ord("a"))))
    done.add(kind, "overwrite", name, changed(side, lambda top: write_files(top, files, ord("b"))))
    for data, times in single_writes(side, max(10, SINGLE_WRITES[name] // done.part)):
        done.add(kind, "single", name, {"data": data, "times": times})
    until_equal(side)
    for number in range(RENAMES):
        done.add(kind, "rename", name, changed(side, lambda top, n=number: rename_directory(top, n)))
    done.add(kind, "inside", name, changed(side, write_inside))
    done.add(kind, "remove", name, changed(side, lambda top: sides.run("sh", "-c", "rm -r d*", cwd=top)))


def follow(side):
    """Seconds until it follows, with the processor's."""
    _, mount = side.processor_seconds()
    begun = time.monotonic()
    side.follow()
    seconds = time.monotonic() - begun
    cpu, mount_now = side.processor_seconds()
    return {"seconds": seconds, "cpu": cpu, "mount_cpu": mount_now - mount}


def timed_rsync(source, target):
    before = os.times()
    begun = time.monotonic()
    sides.run("rsync", "-a", "%s/" % source, "%s/" % target)
    after = os.times()
    return {"seconds": time.monotonic() - begun,
            "cpu": after.children_user + after.children_system - before.children_user - before.children_system}


def first_copy(done, kind, name, side):
    """A tree that was there before, and a restart when nothing has changed."""
    write_files(side.lower, LARGE_TREE // done.part, ord("c"))
    os.sync()
    for row in ("copy", "restart"):
        taken = follow(side)
        until_equal(side)
        done.add(kind, row, name, taken)
        side.end()


def killed_half_way(process, replica, files):
    """When half of the directories have their last file."""
    last = [path for number, path in enumerate(paths_of(replica, files), 1) if number % IN_DIRECTORY == 0]
    while sum(path.exists() for path in last) * 2 < len(last):
        if process.poll() is not None:
            sides.fail("the copy ended before it was half-way")
        time.sleep(0.005)
    process.kill()
    process.wait()


def rest_of_copy(done, kind, name, side):
    """What is left of a first copy that was killed half-way."""
    files = LARGE_TREE // done.part
    write_files(side.lower, files, ord("c"))
    os.sync()
    side.begin()
    killed_half_way(side.process, side.replica, files)
    side.processes.remove(side.process)
    done.add(kind, "rest", name, follow(side))
    until_equal(side)


def first_copy_by_rsync(done, kind, top):
    source, target, other = top / "lower", top / "replica", top / "other"
    source.mkdir()
    files = LARGE_TREE // done.part
    write_files(source, files, ord("c"))
    os.sync()
    for row in ("copy", "restart"):
        done.add(kind, row, "rsync", timed_rsync(source, target))
    copy = subprocess.Popen(["rsync", "-a", "%s/" % source, "%s/" % other], stderr=subprocess.DEVNULL)
    killed_half_way(copy, other, files)
    done.add(kind, "rest", "rsync", timed_rsync(source, other))


def write_records(top, size, count):
    """By several processes, each to files of its own."""
    data = b"r" * size
    writers = []
    for writer in range(WRITERS):
        pid = os.fork()
        if pid == 0:
            fds = [os.open(top / ("r%d-%d" % (writer, n)), os.O_WRONLY) for n in range(RECORD_FILES)]
            for number in range(count // WRITERS):
                os.pwrite(fds[number % RECORD_FILES], data, number // RECORD_FILES % 64 * size)
            os._exit(0)
        writers.append(pid)
    if any(os.waitpid(pid, 0)[1] for pid in writers):
        sides.fail("a writer of records has failed")


def records(done, kind, name, side):
    """How many records a second programs write, and how many arrive, for as long as they write."""
    for writer in range(WRITERS):
        for number in range(RECORD_FILES):
            (side.lower / ("r%d-%d" % (writer, number))).touch()
    if name != "counting":
        side.follow()
        time.sleep(HORIZON)
    for size, count in RECORDS:
        count = count // done.part // WRITERS * WRITERS
        if name == "counting":
            side.count(count)
        before = side.processor_seconds()
        begun = time.monotonic()
        write_records(side.mnt, size, count)
        written = time.monotonic()
        side.wait()
        taken = {"written": count / (written - begun), "arrived": count / (time.monotonic() - begun)}
        if name != "counting":
            taken["cpu"] = (side.processor_seconds()[0] - before[0]) / count
            until_equal(side)
        done.add(kind, "records%d" % size, name, taken)


@contextlib.contextmanager
def workplace(done, kind):
    """A folder. On a disk it stays to the end: for minutes after many files were removed, ext4 passes over their inodes
    one by one whenever it makes a file, and the next one would be measured with that."""
    top = pathlib.Path(tempfile.mkdtemp(prefix="tarn-bench.", dir=done.folders[kind]))
    try:
        yield top
    finally:
        if kind == "tmpfs":
            shutil.rmtree(top)
        else:
            done.kept.append(top)


@contextlib.contextmanager
def served(top, name):
    side = SIDES[name](top)
    try:
        side.start()
        yield side
    finally:
        side.stop()


def attempt(done, kind, name, what):
    """A part that fails is in the report, and the others go on."""
    try:
        with workplace(done, kind) as top, served(top, name) as side:
            what(done, kind, name, side)
    except (sides.Failure, OSError) as failure:
        done.failures.append((kind, name, what.__name__, str(failure)))


# In this order: what removes files comes behind what makes many.
PARTS = {"copy": (first_copy, ("mirrord", "lsyncd")), "rest": (rest_of_copy, ("mirrord",)),
         "records": (records, ("mirrord", "former", "counting")), "changes": (small_changes, ("mirrord", "lsyncd"))}


def file_system(folder):
    """Its name, as the tables call it."""
    return sides.run("stat", "-f", "-c", "%T", folder).strip().replace("ext2/ext3", "ext4")


def measure(build, rounds=ROUNDS, part=1, disk=DISK, parts=tuple(PARTS), names=tuple(SIDES)):
    if os.geteuid() != 0:
        sides.fail("must be run by root: it mounts what it measures")
    sides.Tarn.build = pathlib.Path(build).resolve()
    done = Measured(part, {file_system(folder): folder for folder in (MEMORY, disk)}, parts)
    try:
        for each, number, kind in itertools.product(PARTS, range(1, rounds + 1), done.folders):
            if each in parts:
                measure_part(done, kind, each, names, "round %d of %d" % (number, rounds))
    finally:
        for top in done.kept:
            shutil.rmtree(top)
    done.rounds = rounds
    return done


def measure_part(done, kind, each, names, when):
    what, those = PARTS[each]
    for name in random.sample(those, len(those)):
        if name in names and (name != "former" or Former.program):
            print("bench: replication, %s: %s, %s, %s" % (when, kind, each, name), file=sys.stderr)
            attempt(done, kind, name, what)
    if each == "copy":
        with workplace(done, kind) as top:
            first_copy_by_rsync(done, kind, top)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=ROUNDS)
    parser.add_argument("--part", type=int, default=1)
    parser.add_argument("--only", default=",".join(SIDES))
    parser.add_argument("--parts", default=",".join(PARTS))
    parser.add_argument("--former", help="a mirrord of commit 8574912, the last one without a log")
    parser.add_argument("--disk", default=DISK, help="a folder on a disk's file system")
    parser.add_argument("--busy", action="store_true", help="say in the report that the machine did other things too")
    parser.add_argument("--output", help="the report whose section is replaced")
    args = parser.parse_args()
    Former.program = args.former and pathlib.Path(args.former).resolve()
    done = measure(args.build, args.rounds, args.part, args.disk, args.parts.split(","), args.only.split(","))
    if args.busy:
        done.busy = "\n\nThe machine was busy with other things: ratios count."
    text = "\n".join(replication_tables.tables(done, table))
    print(text)
    if args.output:
        replication_tables.put(text, args.output)
    return 1 if done.failures else 0


if __name__ == "__main__":
    sys.exit(main())
