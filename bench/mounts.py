#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Measures directories that are served in different ways, side by side: the tables and aims of report.py.

The sides are those of sides.py. In each round every measurement is made on all sides, one right after the
other and in a random order, so that what else the machine does falls on all of them alike; a figure is the median of
the rounds, a ratio the median of the rounds' ratios. The measuring program and the process that serves the side share
one processor; mirrord has another.

usage: mounts.py BUILD_FOLDER [--rounds N] [--only SIDE,...] [--rows ROW,...]
"""
import argparse
import os
import pathlib
import random
import statistics
import time

import sides

# Longer than bindfs and libfuse let the host remember a name and its attributes.
FORGOTTEN = 1.1
NAMES = ("plain", "bindfs", "bindfs_big", "passthrough", "tarn", "tarn_rule", "tarn_mirrord")
ROUNDS = 21  # a median of fewer differs by 5 % from one run to the next

# Row: its title, and whether the file is made below the mount, so that nothing of it is in a cache of the mount's.
DATA_ROWS = {
    "write_random": ("4 KiB random write", False),
    "write_sequential": ("128 KiB sequential write", False),
    "read_random": ("4 KiB random read", True),
    "read_sequential": ("128 KiB sequential read", True),
}
# Measured right after another row, on the same files.
AGAIN = {
    "read_again": ("128 KiB sequential read, again", "read_sequential"),
    "stat_again": ("stat, again within a second", "stat"),
}
NAME_ROWS = {
    "create": "create, write 1 KiB, close",
    "stat": "stat",
    "chmod": "chmod",
    "rename": "rename",
    "unlink": "unlink",
}
TITLES = {**{row: title for row, (title, _) in (DATA_ROWS | AGAIN).items()}, **NAME_ROWS}


class Measurement:
    def __init__(self, program, made, rows, rounds):
        self.program, self.sides, self.rows, self.rounds = program, made, rows, rounds
        self.ns = {row: {name: [] for name in made} for row in TITLES}

    def each(self):
        names = list(self.sides)
        random.shuffle(names)
        return [(name, self.sides[name]) for name in names]

    def work(self, side, workload, directory):
        return float(sides.run(self.program, workload, directory, preexec_fn=sides.pinned(side.cpu)))

    def take(self, row, name, folder):
        side = self.sides[name]
        workload = AGAIN[row][1] if row in AGAIN else row
        self.ns[row][name].append(self.work(side, workload, side.mnt / folder))

    def again(self, row, name, folder):
        for other, (_, first) in AGAIN.items():
            if first == row and other in self.rows:
                self.take(other, name, folder)

    def data(self, row, number):
        below = DATA_ROWS[row][1]
        folder = "%s-%d" % (row, number)
        for name, side in self.each():
            (side.mnt / folder).mkdir()
            self.work(side, "fill", (side.lower if below else side.mnt) / folder)
            side.settle()
            self.take(row, name, folder)
            self.again(row, name, folder)
            (side.mnt / folder / "data").unlink()

    def names(self, number):
        folder = "names-%d" % number
        for row in NAME_ROWS:
            time.sleep(FORGOTTEN)
            for name, side in self.each():
                if row == "create":
                    (side.mnt / folder).mkdir()
                side.settle()
                self.take(row, name, folder)
                self.again(row, name, folder)

    def run(self):
        for number in range(self.rounds):
            for row in DATA_ROWS:
                if row in self.rows:
                    self.data(row, number)
            if set(NAME_ROWS) & set(self.rows):
                self.names(number)  # the whole life of the names: one row needs those before it

    def median(self, row, side):
        return statistics.median(self.ns[row][side])

    def ratio(self, row, side, other):
        """How many times the other's time the side's is, turned so that above 1 the side is faster."""
        pairs = zip(self.ns[row][side], self.ns[row][other])
        return statistics.median(theirs / ours for ours, theirs in pairs)


def measure(build, rounds=ROUNDS, names=NAMES, rows=tuple(TITLES)):
    cpus = sorted(os.sched_getaffinity(0))
    with sides.served(build, names, (cpus[-1], cpus[0])) as (_, made):
        measurement = Measurement(pathlib.Path(build).resolve() / "bench/mount_bench", made, rows, rounds)
        measurement.run()
        return measurement


BEFORE = """
## Files and names through a mount

Microseconds for one call in a directory over a tmpfs, the median of {rounds} rounds. The calling program and the process
that serves the mount share one processor, mirrord has another. bindfs is Debian's, with its own settings and with
`big_writes`; `passthrough_ll` is libfuse's own example. The host keeps names and attributes of all of them for a second.
None is kept when a row begins, but for "again". What was read stays with the host until the file is forgotten, so tarn is
not asked for it again; the others are at each open. What is written through a descriptor that can only write, as here, does
not go through the host's pages first, unless it has some.
"""
PEER = "bindfs_big"
LEVEL = 1.0        # without a rule
WITH_DAEMON = 0.6  # with a rule and a daemon


def tables(done, table):
    """Lines of Markdown; `table` makes them from a head and rows."""
    yield BEFORE.rstrip().format(rounds=done.rounds)
    names = [sides.SIDES[side][0] for side in done.sides]
    yield from table(["call"] + names, [[TITLES[row]] + ["%.2f" % (done.median(row, side) / 1e3) for side in done.sides]
                                        for row in done.rows])
    ours = [side for side in done.sides if side.startswith("tarn")]
    yield "\nThe time of bindfs with `big_writes` divided by tarn's: above 1 tarn is faster."
    yield from table(["call"] + [sides.SIDES[side][0] for side in ours],
                     [[TITLES[row]] + ["%.2fx" % done.ratio(row, side, PEER) for side in ours] for row in done.rows])


def aims(done):
    """Rows of the table of aims."""
    for side, aim, what in (("tarn", LEVEL, "without a rule a call is as fast as through bindfs"),
                            ("tarn_mirrord", WITH_DAEMON, "with a rule and mirrord a call is 0.6 times as fast as through bindfs")):
        for row in done.rows:
            ratio = done.ratio(row, side, PEER)
            yield ["%s: %s" % (what, TITLES[row]), "%.2fx" % ratio, "met" if ratio >= aim else "missed"]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=ROUNDS)
    parser.add_argument("--only", default=",".join(NAMES))
    parser.add_argument("--rows", default=",".join(TITLES))
    args = parser.parse_args()
    done = measure(args.build, args.rounds, args.only.split(","), args.rows.split(","))
    against = PEER if PEER in done.sides else next(iter(done.sides))
    for row in done.rows:
        print("%-32s" % TITLES[row], *("%s %.1f (%.2f)" % (side, done.median(row, side) / 1e3, done.ratio(row, side, against))
                                       for side in done.sides))


if __name__ == "__main__":
    main()
