# SPDX-License-Identifier: GPL-2.0
"""The service's driver, with servers and replicas on hosts of their own in place of local targets."""
import os
import re

from service.driver import Driver
from service.programs import Failed

from . import faults, hosts
from .programs import Replica, Servers, Source


# What is missing between the source's log and a replica; what was not captured has other causes.
ON_THE_WAY = re.compile("GAP: the (stream|log|replica|last message) ")


def returns(line, earlier):
    """Does the stream go back to a log that it had left? A server that got an old copy back may show it whenever it leads."""
    epoch = re.search(r"another log \((\S+) at", line)
    return epoch and any(epoch[1] in before for before in earlier)


class ClusterDriver(Driver):
    known = faults.ALL

    def __init__(self, settings):
        super().__init__(settings)
        self.hosts = hosts.Hosts(settings)
        self.service = Source(settings, self.clock, self.hosts)
        self.servers, self.replicas = None, {}
        self.gaps = []  # lines of messages

    def prepare(self):
        self.hosts.make()
        os.mkdir(self.settings.keys, 0o700)
        hosts.make_keys(self.settings.keys, ["server", "source"] + self.settings.target_names,
                        [self.settings.address(name) for name in self.settings.server_names])
        self.servers = Servers(self.settings, self.hosts)
        self.servers.start()
        super().prepare()
        for name in self.settings.target_names:
            self.replicas[name] = Replica(self.settings, name, self.hosts)
            self.replicas[name].configure()
            self.replicas[name].start()
        for replica in self.all_asked():
            replica.wait_equal(self.settings.heal, self.watch)

    def any_replica(self):
        return self.rng.choice(list(self.replicas.values()))

    def asked(self, target):
        return self.replicas[target]

    def all_asked(self):
        return list(self.replicas.values())

    def watch(self):
        super().watch()
        self.servers.check()
        for replica in self.all_asked():
            replica.check()

    def heal(self, what, began):
        super().heal(what, began)
        earlier, self.gaps = self.gaps, [line for line in self.messages() if ON_THE_WAY.search(line)]
        new = [line for line in self.gaps if line not in earlier]
        if self.counts["faults"]["old-storage"]:
            new = [line for line in new if not returns(line, earlier)]
        if new and self.picked <= faults.LOSES_NOTHING:
            raise Failed("%s: a gap, though nothing was lost: %s" % (what, new[0]))

    def count_gaps(self):
        super().count_gaps()
        self.counts["events"]["refills"] = sum("gets it again" in line for line in self.messages())

    def end(self):
        for replica in self.all_asked():
            replica.stop()
        super().end()

    def leave(self):
        super().leave()
        for replica in self.all_asked():
            replica.freeze(False)
            replica.kill()
        if self.servers:
            self.servers.kill()
        self.hosts.remove()
