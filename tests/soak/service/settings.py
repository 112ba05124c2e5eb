# SPDX-License-Identifier: GPL-2.0
"""What one run is asked to do, and where everything lies."""
import argparse
import os
import random

from promise import names

# What the workers do: see promise/settings.py and operations.py.
GROUPS = {"files", "directories", "attributes", "past", "links", "kept", "mapped", "parents", "names", "shared",
          "set-user-id", "border", "nested-border", "special", "refused", "xattrs", "lists", "holes"}
USERS = [0, 1001, 0, 1002]
# What the configuration may exclude, below the source.
EXCLUDED, NESTED = "excluded", "nest-a/private"
EXCLUDES = [[EXCLUDED, NESTED], [EXCLUDED], [NESTED], [], [EXCLUDED, "p0"]]


def options(program, description):
    parser = argparse.ArgumentParser(prog=program + " BUILD", description=description)
    parser.add_argument("--seed", type=int, default=None, help="what is done follows from it (at random)")
    parser.add_argument("--faults", type=int, default=30, help="how many (30)")
    parser.add_argument("--targets", type=int, default=2, choices=range(1, 9), help="how many (2)")
    parser.add_argument("--workers", type=int, default=3, help="processes that change the source (3)")
    parser.add_argument("--pace", type=float, default=0.006, help="seconds between two actions of a worker (0.006)")
    parser.add_argument("--heal", type=float, default=150, help="how long it may take to be equal again (150 s)")
    parser.add_argument("--seconds", type=float, default=1e9, help="no further faults after so long (no limit)")
    parser.add_argument("--verify", type=float, default=0.5,
                        help="after which part of the healings 'mirrord verify' and 'repair' run too (0.5)")
    parser.add_argument("--counts", default="", metavar="FILE", help="append what was counted, as a line of JSON")
    parser.add_argument("--groups", default="", metavar="GROUP,...", help="what the workers do (all)")
    parser.add_argument("--only", default="", metavar="FAULT,...", help="no other faults")
    parser.add_argument("--without", default="", metavar="FAULT,...", help="all faults but these")
    parser.add_argument("--directory", required=True, help=argparse.SUPPRESS)
    return parser


def parse():
    return Settings(options("service_promise.sh", "The service under faults: every target becomes equal again.").parse_args())


class Settings:
    program = "service_promise.sh"

    def __init__(self, given):
        self.seed = given.seed if given.seed is not None else random.randrange(1_000_000)
        self.faults, self.targets, self.workers = given.faults, given.targets, given.workers
        self.pace, self.heal, self.only, self.without = given.pace, given.heal, given.only, given.without
        self.seconds, self.verify, self.counts = given.seconds, given.verify, given.counts
        self.groups = set(given.groups.split(",")) if given.groups else GROUPS
        self.directory = given.directory
        self.lower, self.mount = self.directory + "/lower", self.directory + "/mnt"
        self.source = self.lower + "/" + os.fsdecode(names.SOURCE)
        self.state_disk, self.state = self.directory + "/state-disk", self.directory + "/state-disk/state"
        self.config, self.socket = self.directory + "/mirrord.toml", self.directory + "/run/mirrord.sock"
        self.manager = self.directory + "/manager"
        self.clock = self.directory + "/clock"
        self.errors = self.directory + "/service.err"
        self.target_names = ["t%d" % (index + 1) for index in range(self.targets)]
        self.for_workers()

    def for_workers(self):
        """What promise/worker.py asks for."""
        self.mounts = [os.fsencode(self.mount)]
        own = [b"own-%d" % index for index in range(self.workers)]
        self.tree = [names.join(zone, name) for zone in (names.SOURCE, names.EXCLUDED, names.OUTSIDE) for name in own]
        for home in [names.SOURCE] + [names.join(names.SOURCE, name) for name in own]:
            self.tree += [names.join(home, name) for name in names.PARENTS[:3]]
        self.tree += [names.join(names.join(names.SOURCE, nest), names.NESTED) for nest in names.NESTS[:2]]
        self.fixed = set(own + names.PARENTS + names.NESTS + [os.fsencode(EXCLUDED), names.NESTED])

    def journal(self, number, worker):
        return "%s/journals/round-%d.worker-%d" % (self.directory, number, worker)

    def all_errors(self):
        """The files with what mirrord says."""
        return [self.errors]

    def disk(self, target):
        """The file system of a target. What lies there is shown at mount_point() too."""
        return "%s/disk-%s" % (self.directory, target)

    def mount_point(self, target):
        return "%s/mounted-%s" % (self.directory, target)

    def target(self, target):
        return self.mount_point(target) + "/replica"

    def again(self):
        text = "tests/soak/%s BUILD --seed %d --faults %d --targets %d --workers %d" % (
            self.program, self.seed, self.faults, self.targets, self.workers)
        for option in ("only", "without"):
            if getattr(self, option):
                text += " --%s %s" % (option, getattr(self, option))
        return text
