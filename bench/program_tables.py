# SPDX-License-Identifier: GPL-2.0
"""What programs.py has measured, as text: the tables, sentences and aims of report.py."""
import sides
from program_rows import COMMITS, ROWS, SMALL_PART, TRANSACTIONS

PLAIN, PEER, OURS, WITH_DAEMON = "plain", "bindfs_threads", "tarn", "tarn_mirrord"
# The other's time divided by tarn's.
AS_PEER = 1.0      # without a rule, to bindfs with big_writes and threads
NAMES_PEER = 1.5   # the same for programs that change names
AS_PLAIN = 0.5     # without a rule, to the plain directory, where the host still has what is asked for
FOR_DAEMON = 0.77  # with a rule and mirrord, to tarn without a rule

BEFORE = """
## Real programs

Programs as people run them, in a directory over a tmpfs, not bound to a processor: the median of {rounds} rounds, in
which those that are over soon run twice. "{files} files" are a tree of small ones, half of them below 3 KiB. In each
cell are seconds and, after the stroke, the processor's seconds of the program and of what serves the mount, mirrord
included, until nothing of it is under way. When a program begins, the host keeps nothing of the mount, neither names nor
data, but for "again", which is right after the same program, and for the compiler, SQLite and PostgreSQL, which begin
with what the step before has left. bindfs has its own settings, or `big_writes` and `--multithreaded`; tarn is mounted
by `tarn mount` without options, so that the host keeps names and attributes of both for a second.
"""
WITHOUT_HP = """
`passthrough_hp`, an example of libfuse's, is not among the sides: Debian's libfuse3-dev does not have its source.
`make bench PASSTHROUGH_HP=.../example/passthrough_hp.cc` measures it from that of a libfuse of the same version.
"""
WITH_HP = """
`passthrough_hp` is libfuse's own example. It keeps names for a day and writes later what it is given, for it takes the
directory below as changed by nobody else. PostgreSQL cannot use it, for it is root's alone.
"""
SCALING = """
How many times the work of one is done in the same time by several at once, each with files of its own: 2.0x for two is
all that two processors can give, and the process that serves the mount wants a part of them.
"""
AIMS = """
The other's time divided by tarn's: above 1 tarn is faster. "warm" is where the host has been asked for the same right
before; the last column is what a rule and mirrord cost.
"""


def title(row, again):
    return ROWS[row].title + (", again" if again else "")


def cell(done, row, again, name):
    if (row, again, name) not in done.taken:
        return "-"
    taken = [done.median(row, again, name, which) for which in (0, 1)]
    return "failed" if None in taken else "%.3f / %.3f" % tuple(taken)


def grouped(number):
    return "{:,}".format(number).replace(",", " ")


def duration(seconds):
    if seconds is None:
        return "failed"
    for unit, scale in (("s", 1), ("ms", 1e3), ("us", 1e6)):
        if seconds * scale >= 1:
            return "%.*f %s" % (0 if seconds * scale >= 100 else 1, seconds * scale, unit)
    return "%.2f us" % (seconds * 1e6)


def times(value):
    return "" if value is None else "%.2fx" % value


def sentence(done, row, again):
    """What the row's figures mean for a user."""
    seconds = {name: done.median(row, again, name, 0) for name in done.sides}
    numbers = {"files": done.files, "large": done.large, "small": done.files // SMALL_PART, "commits": COMMITS,
               "transactions": TRANSACTIONS}
    means = ROWS[row].means
    counted = next((numbers[unit] for unit in ("large", "files", "commits", "transactions") if "{%s}" % unit in means), 1)
    ours = seconds[OURS]
    if ours is None:
        return "failed, see above."
    text = means.format(time=duration(ours), each=duration(ours / counted), rate="%.0f MiB/s" % (ROWS[row].mib / ours),
                        **{unit: grouped(number) for unit, number in numbers.items()})
    return "%s (the plain directory: %s; bindfs with threads: %s; tarn with a rule and mirrord: %s)." % (
        text, duration(seconds.get(PLAIN)), duration(seconds.get(PEER)), duration(seconds.get(WITH_DAEMON)))


def scaling(done, table):
    rows = [row for row in dict.fromkeys(row for row, _ in done.lines()) if ROWS[row].workers > 1]
    if not rows:
        return
    yield SCALING.rstrip()
    yield from table(["at once"] + [sides.SIDES[name][0] for name in done.sides],
                     [[ROWS[row].title] + [times(done.scaling(row, name)) or "failed" for name in done.sides] for row in rows])


def ratios(done, row, again):
    """To the peer, to the plain directory if it is warm, and of the daemon's side to that without."""
    peer = done.ratio(row, again, OURS, PEER)
    plain = done.ratio(row, again, OURS, PLAIN) if again else None
    return peer, plain, done.ratio(row, again, WITH_DAEMON, OURS)


def tables(done, table):
    """Lines of Markdown; `table` makes them from a head and rows."""
    yield BEFORE.rstrip().format(rounds=done.rounds, files=grouped(done.files))
    yield (WITH_HP if "passthrough_hp" in done.sides else WITHOUT_HP).rstrip()
    yield from table(["program"] + [sides.SIDES[name][0] for name in done.sides],
                     [[title(*line)] + [cell(done, *line, name) for name in done.sides] for line in done.lines()])
    for row, name, why in done.failures:
        yield "\nFailed: %s, %s: %s" % (ROWS[row].title if row in ROWS else row, sides.SIDES[name][0], " ".join(why.split()))
    yield "\nWhat that means, for tarn without a rule:\n"
    for line in done.lines():
        yield "- **%s**: %s" % (title(*line), sentence(done, *line))
    yield from scaling(done, table)
    yield AIMS.rstrip()
    yield from table(["program", "bindfs, big_writes, threads / tarn", "plain directory / tarn, warm",
                      "tarn, no rule / a rule and mirrord"],
                     [[title(*line)] + [times(value) for value in ratios(done, *line)] for line in done.lines()])


def aims(done):
    """Rows of the table of aims."""
    for line in done.lines():
        peer, plain, daemon = ratios(done, *line)
        names = ROWS[line[0]].changes_names
        yield aim("without a rule a program is %s bindfs with threads" %
                  ("half as fast again as through" if names else "as fast as through"), line, peer,
                  NAMES_PEER if names else AS_PEER)
        if line[1]:
            yield aim("what only reads and is warm takes at most twice the time of the plain directory", line, plain,
                      AS_PLAIN)
        yield aim("with a rule and mirrord a program takes at most 1.3 times as long as without", line, daemon, FOR_DAEMON)


def aim(what, line, ratio, least):
    return ["%s: %s" % (what, title(*line)), times(ratio) or "failed",
            "met" if ratio is not None and ratio >= least else "missed"]
