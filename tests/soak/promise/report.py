# SPDX-License-Identifier: GPL-2.0
"""What the driver says: a line for each comparison, and all that explains a failure."""
import collections
import time

from . import names

SHOWN = 12
STEPS = 40
MESSAGES = 15


class Round:
    def __init__(self, number, entries, undeclared, accepted, said):
        self.number, self.entries, self.said = number, entries, said
        self.undeclared, self.accepted = undeclared, accepted

    def stopped(self):
        return [line for _, line in self.said.lines if b"has stopped capturing" in line]


def say(text=""):
    print(text, flush=True)


def progress(coordinator, judged):
    say("promise: round %d: %d calls so far, %d entries, %d differences declared, %d not; %d messages of mirrord" %
        (judged.number, coordinator.calls, judged.entries, len(judged.accepted), len(judged.undeclared),
         len(judged.said.lines)))


def is_zombie(pid):
    with open("/proc/%d/stat" % pid, encoding="utf-8", errors="replace") as f:
        return f.read().rpartition(")")[2].split()[0] == "Z"


def stack(pid):
    """Where in the host's kernel the process waits."""
    try:
        with open("/proc/%d/stack" % pid, encoding="utf-8") as f:
            return f.read()
    except OSError as error:
        return "no stack: %s" % error


def failure(settings, judged, start):
    """The whole report of a round with differences that nothing declares."""
    if judged.stopped():
        say("FAILED: the module has stopped the rule: %s" % judged.stopped()[0].decode(errors="replace"))
    if judged.undeclared:
        say("FAILED: %d differences between the lower directory and the replica that nothing declares" %
            len(judged.undeclared))
        kinds = collections.Counter(difference.kind for difference, *_ in judged.undeclared)
        say("  by kind: %s" % ", ".join("%d %s" % (count, kind) for kind, count in kinds.most_common()))
    for difference, trace, history in choice(judged.undeclared):
        one(difference, history.story(trace), start)
    if judged.accepted:
        say("\n%d differences were declared, for example:" % len(judged.accepted))
        for (path, kind), why in list(judged.accepted.items())[:3]:
            say("  %s (%s): %s" % (names.shown(path), kind, why[:300]))
    lines = judged.said.lines
    say("\n%d messages of mirrord in this round%s" % (len(lines), ", the last ones:" if lines else ""))
    for when, line in lines[-MESSAGES:]:
        say("  %9.4f  %s" % (when - start, line.decode("utf-8", "replace")[:300]))
    again(settings)


def again(settings):
    say("\nTo do the same again (the seed says what each worker chooses; only one worker alone does the very same):")
    say("  %s" % settings.again())
    say("Fewer actions at once: --only GROUP,... or --without GROUP,...")
    say("Journals of all workers, mirrord's messages and status, the logs: %s" % settings.output)


def choice(undeclared):
    """Some of each kind; of a missing directory only itself."""
    tops = {difference.path for difference, *_ in undeclared}
    count = collections.Counter()
    chosen = []
    for found in undeclared:
        difference, path = found[0], found[0].path
        if difference.kind in ("missing", "left behind") and path[:max(0, path.rfind(b"/"))] in tops:
            continue
        count[difference.kind] += 1
        if count[difference.kind] <= 3 and len(chosen) < SHOWN:
            chosen.append(found)
    return chosen


def one(difference, steps, start):
    say("\n%s: %s: %s" % (names.shown(difference.path), difference.kind, difference.text))
    if not steps:
        say("    no worker did anything by this name in this round")
    if len(steps) > STEPS:
        say("    ... %d steps before" % (len(steps) - STEPS))
    for step in steps[-STEPS:]:
        say("    " + step.line(start))


def header(settings):
    say("promise: seed %d, %g seconds, %d workers (users %s), groups: %s" % (
        settings.seed, settings.seconds, settings.workers,
        " ".join(str(settings.user(i)) for i in range(settings.workers)), ", ".join(sorted(settings.groups))))
    say("promise: again: %s" % settings.again())


def success(coordinator, began):
    say("promise: kept: %d calls in %.0f s, %d entries compared" % (coordinator.calls, time.monotonic() - began,
                                                                 coordinator.compared))
