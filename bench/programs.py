#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Measures real programs, as people run them, on directories that are served in different ways.

The sides are those of sides.py, but no process is bound to a processor. In each round every program runs on all sides,
one right after the other and in a random order, those that are over soon twice; a figure is the median of all times, a
ratio the median of their ratios. A program that begins cold finds nothing of the mount in the host's caches; "again" is
right after the same program. The processor's time is that of the program and of what serves the side, until nothing of
it is under way.

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
from program_rows import ROWS, fill, make_files
from program_tables import cell, title

# Longer than bindfs and libfuse let the host remember a name and its attributes.
FORGOTTEN = 1.1
NAMES = ("plain", "bindfs", "bindfs_threads", "passthrough_hp", "tarn", "tarn_rule", "tarn_mirrord")
ROUNDS = 3
FILES, LARGE = 5000, 20000
LOOK, IDLE = 0.02, 0.02  # a server that computes for less than 2 % of 20 ms is idle
COMPARE = pathlib.Path(__file__).resolve().parent.parent / "tests/replicate/tree_compare.py"


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
    end = time.monotonic() + sides.LIMIT
    before = processor_seconds(side.processes)
    while True:
        time.sleep(LOOK)
        now = processor_seconds(side.processes)
        if now - before < IDLE * LOOK:
            return
        if time.monotonic() > end:
            sides.fail("what serves %s is still busy after %d seconds" % (side.mnt, sides.LIMIT))
        before = now


def forget():
    """Nothing of the mounts is in the caches of the host."""
    pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    time.sleep(FORGOTTEN)


class Programs:
    """What was measured: (seconds, processor's seconds) of each round, or None where the program has failed."""

    def __init__(self, made, rehearsal, files, large):
        self.sides, self.rehearsal, self.files, self.large = made, rehearsal, files, large
        self.rounds = 0
        self.taken = {}
        self.failures = []  # (row, side, why)

    def attempt(self, row, name, what):
        """What a part of a row on one side returns, or None."""
        try:
            return what(row, self.sides[name])
        except (sides.Failure, OSError) as failure:
            self.failures.append((row, name, "; ".join([str(failure), *self.sides[name].ended()])))
            return None

    def prepare(self, row, side):
        sides.shell(ROWS[row].prepare, side.mnt)
        settle(side)
        return True

    def time(self, row, side):
        served, own = processor_seconds(side.processes), own_seconds()
        begun = time.monotonic()
        output = sides.shell(ROWS[row].command, side.mnt)
        seconds = time.monotonic() - begun
        own = own_seconds() - own
        settle(side)
        if ROWS[row].seconds:
            try:
                seconds = ROWS[row].seconds(output)
            except (ValueError, LookupError, AttributeError) as error:
                sides.fail("no time in what it said (%s): %s" % (error, sides.end(output)))
        return seconds, own + processor_seconds(side.processes) - served

    def row(self, row):
        names = [name for name, side in self.sides.items() if side.other_users or not ROWS[row].other_user]
        ready = [name for name in names if self.attempt(row, name, self.prepare)]
        if ROWS[row].cold:
            forget()
            # The programs themselves are in the host's cache again.
            sides.shell(ROWS[row].prepare, self.rehearsal)
            sides.shell(ROWS[row].command, self.rehearsal)
        for name in random.sample(names, len(names)):
            for again in (False, True) if ROWS[row].again else (False,):
                taken = self.attempt(row, name, self.time) if name in ready else None
                self.taken.setdefault((row, again, name), []).append(taken)

    def fill(self, _, side):
        fill(side.home)
        settle(side)

    def clean(self, _, side):
        sides.shell("rm -rf work/*", side.mnt)
        settle(side)

    def compare(self, _, side):
        if hasattr(side, "status"):
            sides.run(COMPARE, side.lower, side.replica)

    def run(self, rows, rounds):
        for number in range(1, rounds + 1):
            print("bench: programs, round %d of %d" % (number, rounds), file=sys.stderr)
            for row in rows:
                for _ in range(ROWS[row].times):
                    self.row(row)
            for name in self.sides:
                self.attempt("the end of a round", name, self.clean)
            self.rounds = number
        for name in self.sides:
            self.attempt("the comparison of the replica", name, self.compare)

    def median(self, row, again, name, which):
        """None where the program has failed or cannot run."""
        taken = self.taken.get((row, again, name), [None])
        return None if None in taken else statistics.median(each[which] for each in taken)

    def ratio(self, row, again, name, other):
        """The other's time divided by the side's: above 1 the side is faster. None where one of them has failed."""
        pairs = list(zip(self.taken[row, again, name], self.taken[row, again, other]))
        return None if None in sum(pairs, ()) else statistics.median(theirs[0] / ours[0] for ours, theirs in pairs)

    def scaling(self, row, name):
        """How many times the work of one the row's workers do in the same time; None also if one was not measured."""
        one = next((other for other in ROWS if ROWS[other].family == ROWS[row].family and ROWS[other].workers == 1), None)
        pairs = list(zip(self.taken.get((one, False, name), [None]), self.taken[row, False, name]))
        if None in sum(pairs, ()):
            return None
        return ROWS[row].workers * statistics.median(alone[0] / together[0] for alone, together in pairs)

    def lines(self):
        """(row, again) of all that was measured."""
        return dict.fromkeys((row, again) for row, again, _ in self.taken)


def measure(build, rounds=ROUNDS, files=FILES, large=LARGE, names=NAMES, rows=tuple(ROWS)):
    with sides.served(build, names, folder="/dev/shm") as (top, made):
        make_files(top, files, large)
        # A side of few files beside them, which is not measured.
        rehearsal = top / "rehearsal/side"
        (rehearsal / "mnt").mkdir(parents=True)
        make_files(rehearsal.parent, 10, 10)
        fill(rehearsal)
        programs = Programs(made, rehearsal / "mnt", files, large)
        for name in made:
            programs.attempt("what all programs begin with", name, programs.fill)
        programs.run(rows, rounds)
        return programs


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


if __name__ == "__main__":
    sys.exit(main())
