#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Measures real programs, as people run them, on directories that are served in different ways.

The sides are those of sides.py, but no process is bound to a processor. In each round every program runs on all sides,
one right after the other and in a random order; a figure is the median of the rounds, a ratio the median of the rounds'
ratios. A program that begins cold finds nothing of the mount in the host's caches; "again" is right after the same
program. The processor's time is that of the program and of what serves the side, until nothing of it is under way.

usage: programs.py BUILD_FOLDER [--rounds N] [--files N] [--large N] [--only SIDE,...] [--rows ROW,...]
"""
import argparse
import pathlib
import random
import resource
import statistics
import sys
import time

import sides
from program_rows import ROWS, make_files

# Longer than bindfs and libfuse let the host remember a name and its attributes.
FORGOTTEN = 1.1
NAMES = ("plain", "bindfs", "bindfs_threads", "passthrough_hp", "tarn", "tarn_rule", "tarn_mirrord")
ROUNDS = 3
FILES, LARGE = 5000, 20000


def processor_seconds(processes):
    """Of processes that still run."""
    # The clock of another process, as clock_getcpuclockid makes it.
    return sum(time.clock_gettime((~process.pid << 3) | 2) for process in processes if process.poll() is None)


def own_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def settle(side):
    """Returns when what serves the side has nothing left to do."""
    side.settle()
    before = None
    while before != (before := processor_seconds(side.processes)):
        time.sleep(0.01)


def forget():
    """Nothing of the mounts is in the caches of the host."""
    pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    time.sleep(FORGOTTEN)


class Programs:
    """What was measured: (seconds, processor's seconds) of each round, or None where the program has failed."""

    def __init__(self, made, rehearsal):
        self.sides, self.rehearsal = made, rehearsal
        self.taken = {}
        self.failures = []

    def attempt(self, row, name, what, *arguments):
        """What a part of a row on one side returns, or None."""
        try:
            return what(*arguments)
        except sides.Failure as failure:
            self.failures.append((row, name, str(failure)))
            return None

    def time(self, row, side):
        served, own = processor_seconds(side.processes), own_seconds()
        begun = time.monotonic()
        sides.shell(ROWS[row].command, side.mnt)
        seconds = time.monotonic() - begun
        own = own_seconds() - own
        settle(side)
        return seconds, own + processor_seconds(side.processes) - served

    def row(self, row):
        for name, side in self.sides.items():
            self.attempt(row, name, self.prepare, row, side)
        if ROWS[row].cold:
            forget()
            # The programs themselves are in the host's cache again.
            self.rehearse(row)
        for name in random.sample(list(self.sides), len(self.sides)):
            for again in (False, True) if ROWS[row].again else (False,):
                self.taken.setdefault((row, again, name), []).append(
                    self.attempt(row, name, self.time, row, self.sides[name]))

    def prepare(self, row, side):
        sides.shell(ROWS[row].prepare, side.mnt)
        settle(side)

    def rehearse(self, row):
        sides.shell(ROWS[row].prepare, self.rehearsal)
        sides.shell(ROWS[row].command, self.rehearsal)

    def run(self, rows, rounds):
        for _ in range(rounds):
            for row in rows:
                self.row(row)
            for name, side in self.sides.items():
                self.attempt("end", name, sides.shell, "rm -rf work/*", side.mnt)
                settle(side)

    def median(self, row, again, name, which):
        """None where the program has failed."""
        taken = self.taken[row, again, name]
        return None if None in taken else statistics.median(each[which] for each in taken)

    def ratio(self, row, again, name, other):
        """How many times the other's time."""
        pairs = list(zip(self.taken[row, again, name], self.taken[row, again, other]))
        return None if None in sum(pairs, ()) else statistics.median(ours[0] / theirs[0] for ours, theirs in pairs)

    def lines(self):
        """(row, again) of all that was measured."""
        return dict.fromkeys((row, again) for row, again, _ in self.taken)


def fill(home):
    """A side's directory, with what the programs expect beside it."""
    for other in ("tree", "repo", "many.tar"):
        if not (home / other).exists():
            (home / other).symlink_to(home.parent / other)
    # git keeps in the index which times its files have.
    sides.shell("mkdir work && cp -a ../tree/ tree && cp -a ../repo/ repo && git -C repo status >/dev/null", home / "mnt")


def measure(build, rounds=ROUNDS, files=FILES, large=LARGE, names=NAMES, rows=tuple(ROWS)):
    with sides.served(build, names, folder="/dev/shm") as (top, made):
        make_files(top, files, large)
        rehearsal = top / "rehearsal"
        (rehearsal / "mnt").mkdir(parents=True)
        make_files(rehearsal, 10, 10)
        fill(rehearsal)
        for side in made.values():
            fill(side.home)
            settle(side)
        programs = Programs(made, rehearsal / "mnt")
        programs.run(rows, rounds)
        return programs


def title(row, again):
    return ROWS[row].title + (", again" if again else "")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=ROUNDS)
    parser.add_argument("--files", type=int, default=FILES)
    parser.add_argument("--large", type=int, default=LARGE, help="files of the tree that is packed and unpacked")
    parser.add_argument("--only", default=",".join(NAMES))
    parser.add_argument("--rows", default=",".join(ROWS))
    args = parser.parse_args()
    done = measure(args.build, args.rounds, args.files, args.large, args.only.split(","), args.rows.split(","))
    print("Seconds, and the processor's:\n")
    width = max(len(title(*line)) for line in done.lines())
    print(" " * width, *("%16s" % name for name in done.sides))
    for line in done.lines():
        print(title(*line).ljust(width), *("%16s" % cell(done, *line, name) for name in done.sides))
    for row, name, text in done.failures:
        print("failed: %s on %s: %s" % (row, name, text), file=sys.stderr)
    return 1 if done.failures else 0


def cell(done, row, again, name):
    taken = [done.median(row, again, name, which) for which in (0, 1)]
    return "failed" if None in taken else "%.3f / %.3f" % tuple(taken)


if __name__ == "__main__":
    sys.exit(main())
