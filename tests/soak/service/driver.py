# SPDX-License-Identifier: GPL-2.0
"""Faults at random, one to three at a time, while the workers work; then everything heals and is compared."""
import collections
import json
import random
import re
import time

from promise import names

from . import compare, faults
from .programs import Clock, Disks, Failed, Service, Tarnd, run
from .workload import MOUNT_ENDED, Workload

SHOWN = 12
LAST = 12


def say(text):
    print("service: " + text, flush=True)


def shown(differences):
    more = "" if len(differences) <= SHOWN else "\n  ... %d in all" % len(differences)
    return "\n  " + "\n  ".join(map(str, differences[:SHOWN])) + more


class Driver:
    known = faults.ALL

    def __init__(self, settings):
        self.settings = settings
        self.rng = random.Random("%d/faults" % settings.seed)
        self.clock = Clock(settings)
        self.service, self.tarnd = Service(settings, self.clock), Tarnd(settings, self.clock)
        self.disks, self.workload = Disks(settings), Workload(settings)
        self.first, self.last = settings.target_names[0], settings.target_names[-1]
        self.paused, self.resume, self.resync = False, set(), set()
        self.log_full, self.log_freed = False, 0.0
        self.service.may_end = lambda: self.log_full or time.monotonic() < self.log_freed + 5
        self.done = []
        self.picked, self.taken = set(), set()  # the names of this round's faults, and what they take
        self.counts = {kind: collections.Counter() for kind in ("faults", "events", "gaps", "differences")}
        self.choice = self.choose_from()

    def choose_from(self):
        only, without = (set(filter(None, text.split(","))) for text in (self.settings.only, self.settings.without))
        unknown = (only | without) - set(self.known)
        if unknown:
            raise Failed("there is no fault %s, but: %s" % (", ".join(unknown), ", ".join(self.known)))
        return [f for f in self.known.values() if (not only or f.name in only) and f.name not in without]

    def asked(self, target):
        """What answers for a target."""
        assert target
        return self.service

    def all_asked(self):
        return [self.service]

    def prepare(self):
        self.disks.make()
        self.tarnd.start()
        self.workload.make_tree()
        self.service.configure()
        self.service.start()

    def watch(self):
        self.service.check()
        for index, code in self.workload.reap().items():
            if code != MOUNT_ENDED:
                raise Failed("worker %d has ended with %d" % (index, code))

    def say_what_ended(self):
        """Who does not answer may have ended: the service manager tells when it starts it again."""
        time.sleep(1)
        try:
            self.watch()
        except Failed as failed:
            say(str(failed))

    def work(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(0.05)
            self.watch()

    def pick(self):
        """One fault, or some without anything in common."""
        picked, taken = [], set()
        for _ in range(self.rng.choice([1, 1, 2, 2, 3, 4])):
            may = [f for f in self.choice if not f.needs & taken and f not in picked]
            if not may:
                break
            one = self.rng.choices(may, [f.weight for f in may])[0]
            needs = set(one.needs)
            if self.first == self.last and needs & {"first", "last"}:
                needs |= {"first", "last"}
            if "mirrord" in taken and one.name in ("resync",):
                continue
            taken |= needs
            picked.append(one)
        self.picked, self.taken = {one.name for one in picked}, taken
        return picked

    def pause(self):
        if self.paused:
            return
        wrong = self.workload.pause()
        if wrong:
            raise Failed(wrong)
        self.paused = True

    def round(self):
        picked = self.pick()
        what = " + ".join(f.name for f in picked)
        self.done.append(what)
        began = time.monotonic()
        self.workload.start()
        self.paused = False
        self.work(self.rng.choice([0, 0.2, 1.0]) * self.rng.random())
        running = []
        for one in picked:
            generator = one.function(self)
            next(generator)
            running.append(generator)
            self.work(self.rng.random() * 0.7)
        self.work(self.rng.choice([0.1, 0.6, 2.5]) * self.rng.random())
        if self.rng.random() < 0.4:  # what comes back sees nothing but what was changed before
            self.pause()
        self.rng.shuffle(running)
        for generator in running:
            next(generator, None)
            self.work(self.rng.choice([0, 0.5]) * self.rng.random())
        if not self.paused:
            self.work(self.rng.random())
        self.counts["faults"].update(one.name for one in picked)
        self.heal(what, began)
        return len(picked)

    def heal(self, what, began):
        self.pause()
        run("sync", "-f", self.settings.mount)
        healing = time.monotonic()
        self.ask("resume", self.resume)
        self.ask("resync", self.resync)
        for one in self.all_asked():
            one.wait_equal(self.settings.heal, self.watch)
        waited = time.monotonic() - healing
        entries = 0
        for name in self.settings.target_names:
            found, entries = self.compare(name)
            lost = [one for one in found if one.recorded]
            if lost:
                raise Failed("mirrord said that %s is equal:%s" % (name, shown(lost)))
        for name, target in [item for one in self.all_asked() for item in one.targets().items()]:
            if target["gaps"]:
                raise Failed("%s is equal, and %d gaps are left" % (name, target["gaps"]))
        self.counts["events"]["healings"] += 1
        verified = self.rng.random() < self.settings.verify
        if verified:
            for name in self.settings.target_names:
                self.verify(name)
        self.workload.entries(entries)
        say("%s: equal after %.1f s of %.1f; %d entries, %d calls%s" % (
            what, waited, time.monotonic() - began, entries, self.workload.calls(), "; verified" if verified else ""))

    def compare(self, name):
        return compare.differences(self.settings.source, self.settings.target(name), self.service.excluded)

    def verify(self, name):
        """The service finds what the comparison here finds, and mends it."""
        mine, _ = self.compare(name)
        expected = {(names.printable(one.path), one.kind) for one in mine}
        found = {pair for pair in self.asked(name).compare("verify", name) if pair[1] != "holes"}
        # Each names another one of a group of names.
        no_links = [{pair for pair in pairs if pair[1] != "link"} for pairs in (expected, found)]
        if no_links[0] != no_links[1] or bool(expected - no_links[0]) != bool(found - no_links[1]):
            raise Failed("mirrord verify %s found:\n  %s\nand not:\n  %s" % (
                name, "\n  ".join(map(str, sorted(found - expected))),
                "\n  ".join(map(str, sorted(expected - found)))))
        self.counts["events"]["verifications"] += 1
        self.counts["differences"].update(one.kind for one in mine)
        if not mine:
            return
        left = self.asked(name).compare("repair", name)
        after, _ = self.compare(name)
        if left or after:
            raise Failed("mirrord repair %s left %s and%s" % (name, sorted(left), shown(after)))
        self.counts["events"]["repairs"] += 1

    def ask(self, verb, targets):
        """Until mirrord, which may just be starting, has done it."""
        deadline = time.monotonic() + 60
        while targets:
            name = next(iter(targets))
            done = self.asked(name).verb(verb, "data/" + name)
            if done.returncode == 0:
                targets.remove(name)
            elif time.monotonic() > deadline:
                raise Failed("'mirrord %s %s': %s" % (verb, name, done.stderr.decode()))
            else:
                self.watch()
                time.sleep(0.05)

    def run(self):
        self.prepare()
        count = 0
        end = time.monotonic() + self.settings.seconds
        while count < self.settings.faults and time.monotonic() < end:
            count += self.round()
        self.end()
        for line in self.messages():
            if "Sanitizer" in line or "runtime error" in line:
                raise Failed("mirrord complained: " + line)
        return count

    def end(self):
        self.workload.end()
        self.service.stop()

    def messages(self):
        """Of mirrord, from the beginning."""
        for errors in self.settings.all_errors():
            try:
                with open(errors, encoding="utf-8", errors="replace") as f:
                    yield from f
            except FileNotFoundError:
                pass

    def count_gaps(self):
        """What the service's messages declare, by cause."""
        for line in self.messages():
            if "GAP: " in line:
                target = re.search(r"\bt\d", line.partition("GAP: ")[0])
                text = re.sub(r"\d+", "N", line.partition("GAP: ")[2].strip())[:90]
                self.counts["gaps"][("target: " if target else "source: ") + text] += 1

    def report(self):
        self.count_gaps()
        for kind, counts in self.counts.items():
            say("%s: %s" % (kind, ", ".join("%s %d" % one for one in sorted(counts.items())) or "none"))
        if self.settings.counts:
            with open(self.settings.counts, "a", encoding="utf-8") as f:
                f.write(json.dumps({"seed": self.settings.seed, **self.counts}) + "\n")

    def leave(self):
        self.workload.end()
        self.service.kill()
