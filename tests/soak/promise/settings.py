# SPDX-License-Identifier: GPL-2.0
"""What one run of the driver is asked to do."""
import argparse
import os
import random

from . import names

GROUPS = {
    "files": "create, write, append, truncate, copy, rename and remove files",
    "directories": "make and remove directories",
    "attributes": "modes, owners, times, extended attributes",
    "past": "with attributes: times before 1970",
    "links": "hard and symbolic links, copies by hard links",
    "kept": "descriptors kept open while their files are linked, renamed over, removed",
    "mapped": "stores into mapped memory",
    "parents": "parents renamed while others work below them",
    "border": "renames between the rule's directory, an excluded one and one outside of the source",
    "nested-border": "renames of the directory that holds an excluded one",
    "special": "FIFOs, sockets, devices",
    "refused": "operations that fail: not empty, immutable, append-only, not permitted",
    "set-user-id": "set-user-id and set-group-id files that strangers change",
    "names": "odd names and names of 255 bytes",
    "paths": "paths near and beyond the longest one",
    "shared": "workers go into each other's directories",
    "two-mounts": "two mounts of the lower directory at once",
    "unmount": "a third mount that comes and goes",
}
# Root several times: most of what may be done only root may.
USERS = [0, 1001, 0, 1002, 0, 1003]


def parse(arguments=None):
    described = "\n".join("  %-14s %s" % group for group in GROUPS.items())
    parser = argparse.ArgumentParser(prog="promise.sh BUILD", formatter_class=argparse.RawDescriptionHelpFormatter,
                                     description="Does at random what a mount allows and compares the replica.",
                                     epilog="groups of actions:\n" + described)
    parser.add_argument("--seed", type=int, default=None, help="what the workers do follows from it (at random)")
    parser.add_argument("--seconds", type=float, default=60, help="how long the workers work in all (60)")
    parser.add_argument("--round", type=float, default=15, help="how many seconds they work between comparisons (15)")
    parser.add_argument("--workers", type=int, default=6, help="processes; one alone does the same again (6)")
    parser.add_argument("--only", default="", metavar="GROUP,...", help="no other groups of actions")
    parser.add_argument("--without", default="", metavar="GROUP,...", help="all groups but these")
    parser.add_argument("--hang", type=float, default=60, help="a call that lasts longer is stuck (60 s)")
    parser.add_argument("--catch-up", type=float, default=240, help="how long mirrord may take to catch up (240 s)")
    for name in ("directory", "socket", "pid", "mirrord-log", "journals", "output"):
        parser.add_argument("--" + name, required=True, help=argparse.SUPPRESS)
    given = parser.parse_args(arguments)
    for group in given.only.split(",") + given.without.split(","):
        if group and group not in GROUPS:
            parser.error("there is no group %r; 'promise.sh BUILD --help' shows them" % group)
    return Settings(given)


class Settings:
    def __init__(self, given):
        self.seed = given.seed if given.seed is not None else random.randrange(1_000_000)
        self.seconds, self.round, self.workers = given.seconds, given.round, given.workers
        self.hang, self.catch_up = given.hang, given.catch_up
        self.only, self.without = given.only, given.without
        self.groups = set(given.only.split(",") if given.only else GROUPS) - set(given.without.split(","))
        directory = os.fsencode(given.directory)
        self.lower, self.replica = directory + b"/lower", directory + b"/replica"
        self.source = self.lower + b"/" + names.SOURCE
        self.lower_length = len(self.lower)
        self.mounts = [directory + b"/mnt", directory + b"/second"]
        self.third = directory + b"/third"
        self.socket, self.pid, self.mirrord_log = given.socket, int(given.pid), given.mirrord_log
        self.journals, self.output = given.journals, given.output
        own = [b"own-%d" % index for index in range(self.workers)]
        zones = [names.SOURCE]
        if "border" in self.groups:
            zones += [names.EXCLUDED, names.OUTSIDE]
        self.tree = [names.join(zone, name) for zone in zones for name in own]
        for home in [names.SOURCE] + [names.join(names.SOURCE, name) for name in own]:
            self.tree += [names.join(home, name) for name in names.PARENTS[:3]]
        self.nests = [names.join(names.SOURCE, name) for name in names.NESTS]
        if "nested-border" in self.groups:
            self.tree += [names.join(nest, names.NESTED) for nest in self.nests[:2]]
        self.fixed = set(own + names.PARENTS + names.NESTS + [b"excluded", names.NESTED])

    def journal(self, number, worker):
        return "%s/round-%d.worker-%d" % (self.journals, number, worker)

    def excluded(self):
        """Directories of the source that the rule leaves out, relative to the lower directory."""
        return [names.EXCLUDED, names.join(self.nests[0], names.NESTED)]

    def user(self, index):
        return USERS[index % len(USERS)]

    def again(self):
        text = "tests/soak/promise.sh BUILD --seed %d --seconds %g --round %g --workers %d" % (
            self.seed, self.seconds, self.round, self.workers)
        for option in ("only", "without"):
            if getattr(self, option):
                text += " --%s %s" % (option, getattr(self, option))
        return text
