# SPDX-License-Identifier: GPL-2.0
"""What replication.py has measured, as text: a section of docs/benchmarks.md."""
import re
import statistics

OURS, PEER, RSYNC, COUNTING, FORMER = "mirrord", "lsyncd", "rsync", "counting", "former"
HEAD = "## Replication"
BEFORE = """
`make bench` measures this with a tenth of the files; all of them:
`cmake --build build/release --target count_records tarnd tarn mirrord`, then
`python3 bench/replication.py build/release --output docs/benchmarks.md`.

Measured {when} with {cores}, rounds: {rounds}; a figure is the median, and those of a line are of one run. The file
systems are tmpfs and {disk}; source, target and log lie on the same one. mirrord is the service with its log; programs
change the source through the mount. lsyncd 2.2 starts rsync one second after a change, the smallest delay that works
(with 0 it leaves alone what changes while its rsync runs; its own setting is 15 seconds); programs change its source
directly. "Equal after" is the time from the last call of the program until nothing in the target changed any more, and
an independent comparison then found both trees equal; it is told by change times, in steps of 4 ms. Processor: seconds
of mirrord + `tarnd`, which serves the mount, and of lsyncd with all its rsyncs.{busy}
"""
CHANGES = {"create": "{files} files of 1 KiB created", "overwrite": "the same overwritten",
           "rename": "a directory of {renamed} files renamed", "inside": "4 KiB written inside a file of 512 MiB",
           "remove": "`rm -r` of {files} files"}
SINGLE = """
One byte written to a file, every 20 to 60 ms: the time until the target has it, and until it has the file's time too,
milliseconds.
"""
MOVED = """
4 KiB inside a file of 512 MiB: what goes from the source to the target's side (with mirrord: what its log grows by;
with rsync: what its processes tell each other), and all that is read and written by read(2), write(2) and the like, the
log and the states included.
"""
COPY = """
A tree of {tree} files of 1 KiB that was there before, the same once more, killed with -9 when half of the files were
there and started again, and a restart when nothing has changed: seconds until the target is equal and changes are
followed, and after the stroke the processor's.
"""
RECORDS = """
Records a second. {writers} programs write through the mount as fast as they can: "written" while they write, which
includes the log, "replicated" until all is in the target, which is what can go on. Beside it mirrord as it was before it
had a log, which keeps in memory what it has not applied (commit 8574912; `--former MIRRORD` measures one), and a daemon
that gets the records and only counts them.
"""
EQUAL_WITHIN, SINGLE_WITHIN, MOVED_AT_MOST, RESTART_WITHIN, FORMER_AT_MOST = 1.0, 0.020, 8192, 2.0, 1.5


def grouped(number):
    return "{:,}".format(round(number)).replace(",", " ")


def percentile(values, share):
    values = sorted(values)
    return values[max(0, int(len(values) * share) - 1)] if values else None


def shown(value, form="%.2f"):
    return "failed" if value is None else form % value


def changes_table(done, table):
    rows = []
    for change, text in CHANGES.items():
        for kind in done.folders:
            def get(name, key, change=change, kind=kind):
                return done.median(kind, change, name, key)
            cpu = "failed"
            if get(OURS, "cpu") is not None:
                cpu = "%.2f + %.2f" % (get(OURS, "cpu"), get(OURS, "mount_cpu"))
            rows.append([text.format(**done.sizes), kind,
                         shown(get(OURS, "program")), shown(get(OURS, "equal"), "%.3f"), cpu,
                         shown(get(PEER, "program")), shown(get(PEER, "equal"), "%.3f"), shown(get(PEER, "cpu"))])
    yield from table(["change", "", "mirrord: the program takes", "equal after", "processor",
                      "lsyncd: the program takes", "equal after", "processor"], rows)


def single_table(done, table):
    yield SINGLE.rstrip()
    rows = []
    for kind in done.folders:
        for name, title in ((OURS, "mirrord"), (PEER, "lsyncd and rsync")):
            row = [title, kind, str(len(done.values(kind, "single", name, "data")))]
            for key in ("data", "times"):
                values = [1000 * value for value in done.values(kind, "single", name, key)]
                row += [shown(percentile(values, share), "%.1f") for share in (0.5, 0.99)]
            rows.append(row)
    yield from table(["", "", "writes", "median", "99th of 100", "with its time, median", "99th of 100"], rows)


def moved_table(done, table):
    yield MOVED.rstrip()
    rows = []
    for kind in done.folders:
        for name, title in ((OURS, "mirrord"), (PEER, "lsyncd and rsync")):
            values = [done.median(kind, "inside", name, key) for key in ("moved", "read", "written")]
            rows.append([title, kind] + ["failed" if value is None else grouped(value) for value in values])
    yield from table(["", "", "bytes moved", "read", "written"], rows)


def copy_table(done, table):
    yield COPY.rstrip().format(**done.sizes)
    rows = []
    for row, text in (("copy", "first copy"), ("rest", "the rest of one that was killed half-way"),
                      ("restart", "restart, nothing changed")):
        for kind in done.folders:
            cells = [text, kind]
            for name in (OURS, PEER, RSYNC):
                values = [done.median(kind, row, name, key) for key in ("seconds", "cpu")]
                missing = "" if (row, name) == ("rest", PEER) else "failed"
                cells.append(missing if None in values else "%.2f / %.2f" % tuple(values))
            rows.append(cells)
    yield from table(["", "", "mirrord", "lsyncd and rsync", "`rsync -a`"], rows)


def records_table(done, table):
    yield RECORDS.rstrip().format(**done.sizes)
    rows = []
    for size in done.record_sizes:
        for kind in done.folders:
            def get(name, key, size=size, kind=kind):
                return done.median(kind, "records%d" % size, name, key)
            rates = [get(name, key) for name in (OURS, FORMER) for key in ("written", "arrived")]
            rates.append(get(COUNTING, "arrived"))
            cells = ["failed" if rate is None else grouped(rate) for rate in rates]
            if not done.former:
                cells[2:4] = ["", ""]
            cpu = get(OURS, "cpu")
            rows.append(["%d bytes" % size, kind] + cells + [shown(cpu and cpu * 1e6, "%.1f")])
    yield from table(["a write of", "", "mirrord, written", "replicated", "without a log, written", "replicated",
                      "only counted", "processor of mirrord, us a record"], rows)


def ratios(done, row, key, over, under):
    """Of one run each: the median over the rounds, the worst file system."""
    worst = []
    for kind in done.folders:
        pairs = list(zip(done.values(kind, row, over, key), done.values(kind, row, under, key)))
        if not pairs:
            return None
        worst.append(statistics.median(a / b for a, b in pairs))
    return max(worst)


def worst_of(done, rows, key, share=0.5):
    """The largest of mirrord's medians (or another share)."""
    found = [percentile(done.values(kind, row, OURS, key), share) for row in rows for kind in done.folders]
    return None if None in found else max(found)


def aims(done, table):
    slower = [ratios(done, "records%d" % size, "arrived", FORMER, OURS) for size in done.record_sizes]
    share = None if None in slower else max(slower)
    rows = [
        ("changes", "equal within 1 s of the last change: the slowest row",
         worst_of(done, CHANGES, "equal"), EQUAL_WITHIN, "%.3f s"),
        ("changes", "99 of 100 single writes within 20 ms",
         worst_of(done, ["single"], "data", 0.99), SINGLE_WITHIN, "%.4f s"),
        ("changes", "4 KiB inside a large file move at most 8 KiB",
         worst_of(done, ["inside"], "moved"), MOVED_AT_MOST, "%d bytes"),
        ("copy", "a first copy takes no longer than `rsync -a`",
         ratios(done, "copy", "seconds", OURS, RSYNC), 1.0, "%.2fx its time"),
        ("copy", "a restart without changes takes less than 2 s",
         worst_of(done, ["restart"], "seconds"), RESTART_WITHIN, "%.2f s"),
        ("records", "without a log, mirrord replicates at most half as many records a second again",
         share, FORMER_AT_MOST, "%.2fx")]
    if not done.former:
        rows.pop()
    yield from table(["aim", "measured", ""],
                     [[text, shown(value, form), "met" if value is not None and value <= most else "missed"]
                      for part, text, value, most, form in rows if part in done.parts])


def tables(done, table):
    """Lines of Markdown; `table` makes them from a head and rows."""
    yield "\n" + HEAD
    yield BEFORE.rstrip().format(when=done.when, cores=done.cores, rounds=done.rounds, disk=done.disk, busy=done.busy)
    for part, makes in (("changes", (changes_table, single_table, moved_table)), ("copy", (copy_table,)),
                        ("records", (records_table,))):
        if part in done.parts:
            for make in makes:
                yield from make(done, table)
    for kind, name, what, why in done.failures:
        yield "\nFailed: %s, %s, %s: %s" % (kind, name, what, " ".join(why.split()))
    yield from aims(done, table)


def put(text, file):
    """Replaces the section in the report, or adds it before the last one, the aims."""
    with open(file, encoding="utf-8") as old:
        parts = re.split(r"^(?=## )", old.read(), flags=re.M)
    parts = [part for part in parts if not part.startswith(HEAD + "\n")]
    parts.insert(len(parts) - 1, text.strip() + "\n\n")
    with open(file, "w", encoding="utf-8") as new:
        new.write("".join(parts))
