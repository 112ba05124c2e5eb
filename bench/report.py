#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Runs the benchmark program and writes what it measured as tables in Markdown.

usage: report.py PROGRAM BUILD_FOLDER OUTPUT.md [--repetitions N]

PROGRAM measures what runs in one process, mounts.py, programs.py and replication.py with the programs of BUILD_FOLDER
what runs on a mount. What fails on one side of the last two is in the report, and ends this with 1.

The measurements are repeated in a random order, so that what else the machine does falls on all of them alike;
every figure is the median of its repetitions. The table also goes to standard output.
"""
import argparse
import datetime
import json
import os
import re
import statistics
import subprocess
import sys

import many_files
import mounts
import program_tables
import programs
import replication
import replication_tables
from report_table import table

SHORTER = 10  # replication.py by itself: all files, three rounds
SIZES = {100: "100 B", 4096: "4 KiB", 65536: "64 KiB", 1048576: "1 MiB"}
HEAD = """# Benchmarks

Written by `make bench`, which installs what it needs, measures and replaces this file. The last run: {when},
{cores}, median of {repetitions} repetitions in random order. Times are in nanoseconds; "x" is the other side's time
divided by tarn's, so above 1 tarn is faster. All sides of a line were measured in the same run.
"""
DIRS = """
## A path against the directories of one rule

Paths of 40 to 120 bytes. All three engines are asked whether any directory covers the path, and give the same answers
(checked before the measurement). The peers' patterns are anchored and their automata warm.
"""
RULES = """
## A path against many rules of one directory each

tarn: the whole look-up of a captured change, with its lock, its array of hits and a reference on each rule hit; the
peers: which patterns match. tarn finds the rules of each directory above the path in a table, and asks the automaton of
none but these.
"""
CAPTURE = """
## Capturing a write

In one process: the kernel of `tarnd` with memfs below the mount. "write" is the system call on the mount, "capture" the
record alone. "daemon": the message is put into the daemon's queue, which is emptied between the timed batches; "and
received": it is also taken out. The socket is a Unix SEQPACKET pair of the host.
"""
RECORDS = """
## Records to one receiver

A thread captures writes, another is the daemon; beside it a thread that copies and sends as many bytes through a socket
pair to another.
"""
FURTHER = """
## Further rules

Capture of a 100-byte write with a daemon. Every rule that is hit sends a record of its own; a rule that is not hit is not
looked at.
"""


def measure(program, repetitions):
    """Median nanoseconds by the measurement's name."""
    command = [program, "--benchmark_format=json", "--benchmark_repetitions=%d" % repetitions,
               "--benchmark_min_time=0.1", "--benchmark_enable_random_interleaving=true"]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    if done.returncode:
        sys.exit("report.py: %s ended with %d" % (program, done.returncode))
    samples = {}
    for entry in json.loads(done.stdout)["benchmarks"]:
        if entry["run_type"] != "iteration":
            continue
        if entry.get("error_occurred"):
            sys.exit("report.py: %s: %s" % (entry["name"], entry["error_message"]))
        name = entry["run_name"].removesuffix("/manual_time")
        # Processor time where nothing sleeps: others who compute on the machine do not count.
        samples.setdefault(name, []).append(entry.get("median_ns", entry["cpu_time"]))
    return {name: statistics.median(values) for name, values in samples.items()}


def number(value):
    return "%.0f" % value if value >= 100 else "%.1f" % value


def times(value):
    return "%.1fx" % value if value >= 1 else "%.2fx" % value


def match_table(ns, text, kind, names):
    """`names`: what a list of so many is called."""
    rows = []
    for count, name in names.items():
        for what in ("hit", "miss"):
            tarn, re2, hyperscan = (ns["%s/%d/%s/%s" % (kind, count, what, side)]
                                    for side in ("tarn", "re2", "hyperscan"))
            rows.append(["%s, %s" % (name, what), number(tarn), number(re2), number(hyperscan),
                         times(re2 / tarn), times(hyperscan / tarn)])
    yield text.rstrip()
    yield from table(["list", "tarn", "RE2::Set", "Hyperscan", "RE2::Set / tarn", "Hyperscan / tarn"], rows)


def match_tables(ns):
    yield from match_table(ns, DIRS, "dirs", {1: "1 directory", 32: "32 directories", 1000: "1 000 directories",
                                              10000: "10 000 directories"})
    yield from match_table(ns, RULES, "rules", {1: "1 rule", 32: "32 rules", 1000: "1 000 rules"})


def capture_table(ns):
    columns = [("memcpy", "memcpy"), ("memcpy_send", "memcpy, send"), ("memcpy_send_recv", "memcpy, send, recv"),
               ("write_no_rule", "write, no rule"), ("write_no_daemon", "write, no daemon"),
               ("write_daemon", "write, daemon"), ("capture_no_daemon", "capture, no daemon"),
               ("capture_daemon", "capture, daemon"), ("capture_daemon_recv", "capture, daemon, and received")]
    yield CAPTURE.rstrip()
    yield from table(["what"] + list(SIZES.values()),
                     [[text] + [number(ns["capture/%d/%s" % (size, key)]) for size in SIZES]
                      for key, text in columns])

    def ratio(over, under):
        return ["%.2f" % (ns["capture/%d/%s" % (s, over)] / ns["capture/%d/%s" % (s, under)]) for s in SIZES]
    yield from table(["ratio"] + list(SIZES.values()), [
        ["capture / (memcpy, send)"] + ratio("capture_daemon", "memcpy_send"),
        ["capture and received / (memcpy, send, recv)"] + ratio("capture_daemon_recv", "memcpy_send_recv"),
        ["write, daemon / write, no rule"] + ratio("write_daemon", "write_no_rule")])


def records_table(ns):
    yield RECORDS.rstrip()
    rows = []
    for size in (100, 4096):
        tarn, socket = (1e9 / ns["records/%d/%s" % (size, side)] for side in ("tarn", "socket"))
        rows.append([SIZES[size], "%.0f" % tarn, "%.0f" % socket, times(tarn / socket)])
    yield from table(["write", "tarn, records/s", "socket pair, messages/s", "tarn / socket pair"], rows)


def further_table(ns):
    yield FURTHER.rstrip()
    for what, counts, text in (("hit", [1, 2, 4, 8, 16, 32], "rules hit"),
                               ("miss", [0, 1, 10, 100, 1000], "further rules, not hit")):
        rows = []
        for before, count in zip([None] + counts, counts):
            cost = ns["further/%s/%d" % (what, count)]
            each = "" if before is None else number(
                (cost - ns["further/%s/%d" % (what, before)]) / (count - before))
            rows.append([str(count), number(cost), each])
        yield from table([text, "one write", "each rule more than the line above"], rows)


def kept_section(output):
    """What a 2.6.18 guest has counted (tests/guest/instructions.py) stays: there is no guest here."""
    if not os.path.exists(output):
        return
    with open(output, encoding="utf-8") as old:
        for part in re.split(r"^(?=## )", old.read(), flags=re.M):
            if part.startswith("## Calls in a 2.6.18 kernel"):
                yield "\n" + part.rstrip()


def aims(ns, mounted, ran):
    yield "\n## Aims"
    rows = []
    for kind, counts in (("dirs", [1, 32, 1000, 10000]), ("rules", [1, 32, 1000])):
        for count in counts:
            worst = min(ns["%s/%d/%s/%s" % (kind, count, what, peer)] / ns["%s/%d/%s/tarn" % (kind, count, what)]
                        for what in ("hit", "miss") for peer in ("re2", "hyperscan"))
            what = "directories in one rule" if kind == "dirs" else "rules of one directory"
            rows.append(["a match costs less than either peer: %s x %d" % (what, count), times(worst),
                         "met" if worst > 1 else "missed"])
    ratio = ns["capture/4096/capture_daemon"] / ns["capture/4096/memcpy_send"]
    rows.append(["a capture of 4 KiB costs less than twice a memcpy and a send", "%.2f" % ratio,
                 "met" if ratio < 2 else "missed"])
    each = [(ns["further/hit/%d" % b] - ns["further/hit/%d" % a]) / (b - a)
            for a, b in ((1, 2), (2, 4), (4, 8), (8, 16), (16, 32))]
    flat = each[-1] / each[0]
    rows.append(["a further rule that is hit costs the same: the last 16 of 32 to the second", "%.2f" % flat,
                 "met" if flat < 1.25 else "missed"])
    ratio = ns["further/miss/1000"] / ns["further/miss/0"]
    rows.append(["1000 further rules that are not hit cost less than a tenth of one write", "%.2f" % ratio,
                 "met" if ratio < 1.1 else "missed"])
    rows += mounts.aims(mounted)
    rows += program_tables.aims(ran)
    yield from table(["aim", "measured", ""], rows)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("build")
    parser.add_argument("output")
    parser.add_argument("--repetitions", type=int, default=9)
    args = parser.parse_args()
    mounted = mounts.measure(args.build)
    ran = programs.measure(args.build)
    many = many_files.measure(args.build)
    replicated = replication.measure(args.build, rounds=1, part=SHORTER)
    ns = measure(args.program, args.repetitions)
    cores = os.cpu_count()
    head = HEAD.format(when=datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d"),
                       cores="%d core%s" % (cores, "s" if cores > 1 else ""), repetitions=args.repetitions)
    lines = [head.rstrip()]
    for part in (match_tables, capture_table, records_table, further_table):
        lines += part(ns)
    lines += mounts.tables(mounted, table)
    lines += program_tables.tables(ran, table)
    lines += many_files.tables(many, table)
    lines += replication_tables.tables(replicated, table)
    lines += kept_section(args.output)
    lines += aims(ns, mounted, ran)
    text = "\n".join(lines) + "\n"
    with open(args.output, "w", encoding="utf-8") as out:
        out.write(text)
    print(text)
    return 1 if ran.failures or replicated.failures else 0


if __name__ == "__main__":
    sys.exit(main())
