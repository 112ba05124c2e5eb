# SPDX-License-Identifier: GPL-2.0
"""Faults at random, one to three at a time, while the workers work; then everything heals and is compared."""
import random
import time

from . import compare, faults
from .programs import Disks, Failed, Service, Tarnd, run
from .workload import MOUNT_ENDED, Workload

SHOWN = 12
LAST = 12


def say(text):
    print("service: " + text, flush=True)


class Driver:
    def __init__(self, settings):
        self.settings = settings
        self.rng = random.Random("%d/faults" % settings.seed)
        self.service, self.tarnd = Service(settings), Tarnd(settings)
        self.disks, self.workload = Disks(settings), Workload(settings)
        self.first, self.last = settings.target_names[0], settings.target_names[-1]
        self.paused, self.resume, self.resync = False, set(), set()
        self.log_full, self.log_freed, self.start_later = False, 0.0, False
        self.done = []
        self.choice = self.choose_from()

    def choose_from(self):
        only, without = (set(filter(None, text.split(","))) for text in (self.settings.only, self.settings.without))
        unknown = (only | without) - set(faults.ALL)
        if unknown:
            raise Failed("there is no fault %s, but: %s" % (", ".join(unknown), ", ".join(faults.ALL)))
        return [f for f in faults.ALL.values() if (not only or f.name in only) and f.name not in without]

    def prepare(self):
        self.disks.make()
        self.tarnd.start()
        self.workload.make_tree()
        self.service.configure()
        self.service.start()

    def watch(self):
        # Without room for its state it does not begin.
        lately = self.log_full or time.monotonic() < self.log_freed + 5
        if lately and self.service.process and self.service.process.poll() == 1:
            self.service.process = None
            self.start_later = True
        if self.start_later and not self.log_full:
            self.start_later = False
            self.service.start()
        if self.service.process:
            self.service.check()
        for index, code in self.workload.reap().items():
            if code != MOUNT_ENDED:
                raise Failed("worker %d has ended with %d" % (index, code))

    def work(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(0.05)
            self.watch()

    def pick(self):
        """One fault, or some without anything in common."""
        picked, taken = [], set()
        for _ in range(self.rng.choice([1, 1, 1, 2, 2, 3])):
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
        names = " + ".join(f.name for f in picked)
        self.done.append(names)
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
        self.heal(names, began)
        return len(picked)

    def heal(self, names, began):
        self.pause()
        run("sync", "-f", self.settings.mount)
        healing = time.monotonic()
        self.ask("resume", self.resume)
        self.ask("resync", self.resync)
        self.service.wait_equal(self.settings.heal, self.watch)
        waited = time.monotonic() - healing
        entries = 0
        for name in self.settings.target_names:
            found, entries = compare.differences(self.settings.source, self.settings.target(name))
            if found:
                more = "" if len(found) <= SHOWN else "\n  ... %d in all" % len(found)
                raise Failed("mirrord said that %s is equal:\n  %s%s" % (name, "\n  ".join(found[:SHOWN]), more))
        for name, target in self.service.targets().items():
            if target["gaps"]:
                raise Failed("%s is equal, and %d gaps are left" % (name, target["gaps"]))
        self.workload.entries(entries)
        say("%s: equal after %.1f s of %.1f; %d entries, %d calls" % (
            names, waited, time.monotonic() - began, entries, self.workload.calls()))

    def ask(self, verb, targets):
        """Until mirrord, which may just be starting, has done it."""
        deadline = time.monotonic() + 60
        while targets:
            name = next(iter(targets))
            done = self.service.verb(verb, "data/" + name)
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
        while count < self.settings.faults:
            count += self.round()
        self.workload.end()
        self.service.stop()
        with open(self.settings.errors, encoding="utf-8", errors="replace") as f:
            for line in f:
                if "Sanitizer" in line or "runtime error" in line:
                    raise Failed("mirrord complained: " + line)
        return count

    def leave(self):
        self.workload.end()
        if self.service.process and self.service.process.poll() is None:
            self.service.freeze(False)
            self.service.kill()
