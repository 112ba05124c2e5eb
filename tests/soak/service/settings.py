# SPDX-License-Identifier: GPL-2.0
"""What one run is asked to do, and where everything lies."""
import argparse
import os
import random

from promise import names

# What the workers do: see promise/settings.py. Without special files, which records do not tell.
GROUPS = {"files", "directories", "attributes", "past", "links", "kept", "mapped", "parents", "names", "shared",
          "set-user-id"}
USERS = [0, 1001, 0, 1002]


def parse(arguments=None):
    parser = argparse.ArgumentParser(prog="service_promise.sh BUILD",
                                     description="The service under faults: every target becomes equal again.")
    parser.add_argument("--seed", type=int, default=None, help="what is done follows from it (at random)")
    parser.add_argument("--faults", type=int, default=30, help="how many (30)")
    parser.add_argument("--targets", type=int, default=2, choices=range(1, 9), help="how many (2)")
    parser.add_argument("--workers", type=int, default=3, help="processes that change the source (3)")
    parser.add_argument("--pace", type=float, default=0.006, help="seconds between two actions of a worker (0.006)")
    parser.add_argument("--heal", type=float, default=150, help="how long it may take to be equal again (150 s)")
    parser.add_argument("--only", default="", metavar="FAULT,...", help="no other faults")
    parser.add_argument("--without", default="", metavar="FAULT,...", help="all faults but these")
    parser.add_argument("--directory", required=True, help=argparse.SUPPRESS)
    return Settings(parser.parse_args(arguments))


class Settings:
    def __init__(self, given):
        self.seed = given.seed if given.seed is not None else random.randrange(1_000_000)
        self.faults, self.targets, self.workers = given.faults, given.targets, given.workers
        self.pace, self.heal, self.only, self.without = given.pace, given.heal, given.only, given.without
        self.directory = given.directory
        self.lower, self.mount = self.directory + "/lower", self.directory + "/mnt"
        self.source = self.lower + "/" + os.fsdecode(names.SOURCE)
        self.state_disk, self.state = self.directory + "/state-disk", self.directory + "/state-disk/state"
        self.config, self.socket = self.directory + "/mirrord.toml", self.directory + "/run/mirrord.sock"
        self.errors = self.directory + "/service.err"
        self.target_names = ["t%d" % (index + 1) for index in range(self.targets)]
        self.for_workers()

    def for_workers(self):
        """What promise/worker.py asks for."""
        self.groups = GROUPS
        self.mounts = [os.fsencode(self.mount)]
        own = [b"own-%d" % index for index in range(self.workers)]
        homes = [names.SOURCE] + [names.join(names.SOURCE, name) for name in own]
        self.tree = homes[1:] + [names.join(home, name) for home in homes for name in names.PARENTS[:3]]
        self.fixed = set(own + names.PARENTS)

    def journal(self, number, worker):
        return "%s/journals/round-%d.worker-%d" % (self.directory, number, worker)

    def disk(self, target):
        """The file system of a target. What lies there is shown at mount_point() too."""
        return "%s/disk-%s" % (self.directory, target)

    def mount_point(self, target):
        return "%s/mounted-%s" % (self.directory, target)

    def target(self, target):
        return self.mount_point(target) + "/replica"

    def again(self):
        text = "tests/soak/service_promise.sh BUILD --seed %d --faults %d --targets %d --workers %d" % (
            self.seed, self.faults, self.targets, self.workers)
        for option in ("only", "without"):
            if getattr(self, option):
                text += " --%s %s" % (option, getattr(self, option))
        return text
