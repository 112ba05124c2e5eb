# SPDX-License-Identifier: GPL-2.0
"""What one run is asked to do, and where everything lies. What is a target elsewhere is a replica here."""
import os

from service import settings

SERVERS, FIRST_HOST = 3, 1


def parse():
    parser = settings.options("cluster_promise.sh", "Replicas behind a stream under faults: every one becomes equal again.")
    parser.add_argument("--servers", type=int, default=SERVERS, choices=(1, 3), help="of the stream (3)")
    parser.set_defaults(heal=300.0)
    return Settings(parser.parse_args())


class Settings(settings.Settings):
    program = "cluster_promise.sh"

    def __init__(self, given):
        super().__init__(given)
        self.servers = given.servers
        self.cluster = self.directory + "/servers"
        self.keys = self.directory + "/keys"
        # Each host is a network namespace, whose names are known to the whole machine.
        self.hub = os.path.basename(self.directory)
        self.server_names = ["s%d" % (i + 1) for i in range(self.servers)]
        self.host_names = self.server_names + ["source"] + self.target_names

    def address(self, host):
        return "10.91.0.%d" % (self.host_names.index(host) + FIRST_HOST)

    def replica_state(self, name):
        return "%s/state-%s" % (self.directory, name)

    def replica_errors(self, name):
        return "%s/%s.err" % (self.directory, name)

    def all_errors(self):
        return super().all_errors() + [self.replica_errors(name) for name in self.target_names]

    def again(self):
        return super().again() + " --servers %d" % self.servers
