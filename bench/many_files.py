#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Measures what files cost that the host knows of a mount: memory and descriptors of the process that serves it.

usage: many_files.py BUILD_FOLDER [--files N,...] [--only SIDE,...]
"""
import argparse
import os
import pathlib
import subprocess
import sys
import time

import sides

COUNTS = (1000, 100000, 5000000)
IN_DIRECTORY = 1000
NAMES = ("plain", "bindfs_threads", "tarn")
KIB_EACH = 4  # at most, of the machine's memory, for a file below and all that know it
LIMIT = 3600  # seconds for a listing


def fill(place, files):
    for first in range(0, files, IN_DIRECTORY):
        directory = place / ("d%06d" % (first // IN_DIRECTORY))
        directory.mkdir()
        for number in range(first, min(first + IN_DIRECTORY, files)):
            os.close(os.open(directory / ("file%07d" % number), os.O_CREAT | os.O_WRONLY, 0o644))


def available_kib():
    for line in pathlib.Path("/proc/meminfo").read_text().splitlines():
        if line.startswith("MemAvailable"):
            return int(line.split()[1])
    return 0


class Cost:
    """Of the process that serves a side; nothing serves the plain directory."""

    def __init__(self, side):
        self.kib = self.descriptors = self.limit = 0
        if side.processes:
            process = pathlib.Path("/proc") / str(side.processes[0].pid)
            self.kib = sum(int(line.split()[1]) for line in (process / "status").read_text().splitlines()
                           if line.startswith("VmRSS"))
            self.descriptors = len(list((process / "fd").iterdir()))
            self.limit = sum(int(line.split()[3]) for line in (process / "limits").read_text().splitlines()
                             if line.startswith("Max open files"))


def timed(command):
    """Seconds, and how many lines it printed, which nobody keeps: of five million files they are half a GiB."""
    begin = time.monotonic()
    done = subprocess.run(["bash", "-o", "pipefail", "-c", command + " | wc -l"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, check=False, timeout=LIMIT)
    seconds = time.monotonic() - begin
    if done.returncode:
        sides.fail("%s: status %d" % (command, done.returncode))
    return seconds, int(done.stdout)


class Row:
    def __init__(self, name, files, side):
        self.name, self.files = name, files
        fill(side.lower, files)
        before = Cost(side)
        self.cold, lines = timed("find %s -ls" % side.mnt)
        want = 1 + files + -(-files // IN_DIRECTORY)
        if lines != want:
            sides.fail("find -ls on %s shows %d names, not %d" % (name, lines, want))
        after = Cost(side)
        self.again, _ = timed("find %s" % side.mnt)
        self.kib, self.descriptors, self.limit = after.kib, after.descriptors, after.limit
        self.each = (after.kib - before.kib) * 1000 / files
        self.descriptors_each = (after.descriptors - before.descriptors) * 1000 / files


def measure(build, counts=COUNTS, names=NAMES):
    rows = []
    for files in counts:
        if available_kib() < files * KIB_EACH:
            print("bench: left out: %d files want %d MiB of memory" % (files, files * KIB_EACH / 1024))
            continue
        for name in names:
            with sides.served(build, [name], folder="/dev/shm") as (_, made):
                rows.append(Row(name, files, made[name]))
    return rows


BEFORE = """
## Many files

Empty files in directories of 1 000 over a tmpfs. "find -ls" is the first program that sees them, "find" runs right after it.
Memory and descriptors are those of the process that serves the mount, when all files have been listed; what the host itself
keeps of a file, about 1.5 KiB, is not in it. The limit of descriptors here: {limit}.
"""


def tables(rows, table):
    yield BEFORE.rstrip().format(limit=max((row.limit for row in rows), default=0))
    yield from table(["files", "", "find -ls, seconds", "find, seconds", "memory, MiB", "KiB for 1 000 files", "descriptors",
                      "for 1 000 files"],
                     [["{:,}".format(row.files).replace(",", " "), sides.SIDES[row.name][0], "%.3f" % row.cold, "%.3f" % row.again]
                      + (["", "", "", ""] if row.name == "plain" else
                         ["%.0f" % (row.kib / 1024), "%.0f" % row.each, str(row.descriptors), "%.0f" % row.descriptors_each])
                      for row in rows])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--files", default=",".join(map(str, COUNTS)))
    parser.add_argument("--only", default=",".join(NAMES))
    args = parser.parse_args()
    for row in measure(args.build, [int(n) for n in args.files.split(",")], args.only.split(",")):
        print("%8d %-16s find -ls %8.3f s, find %8.3f s, %7.1f MiB, %6.0f KiB for 1000, %d descriptors" %
              (row.files, row.name, row.cold, row.again, row.kib / 1024, row.each, row.descriptors))


if __name__ == "__main__":
    sys.exit(main())
