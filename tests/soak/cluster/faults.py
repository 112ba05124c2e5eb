# SPDX-License-Identifier: GPL-2.0
"""The faults. Those of the servers, of the lines and of a replica's process are here; those of the source's host and of a replica's
file system are the service's. Each is a generator: see service/faults.py.

LOSES_NOTHING are those after which no replica may declare that the stream lacks something: all that was captured is in the source's log
until each replica has it, whatever becomes of the servers and of their storage."""
import os
import shutil
import time

from service import faults as others
from service.faults import Fault

ALL, LOSES_NOTHING = {}, set()
THEIRS = ("kill", "kill-twice", "stop", "restart", "freeze", "kill-tarnd", "stop-tarnd", "full-target", "read-only-target",
          "unmounted-target", "target-away", "replaced-target", "deleted-rule", "other-excludes", "cut-log", "lost-log",
          "lost-state", "paused-target", "resync", "skipped-entry", "nothing")
for theirs in THEIRS:
    ALL[theirs] = others.ALL[theirs]
    ALL[theirs].weight = 1
LOSES_NOTHING |= {"kill", "kill-twice", "stop", "restart", "freeze", "kill-tarnd", "stop-tarnd", "paused-target", "nothing"}


def fault(*needs, weight=2, loses=False):
    def take(function, name=None):
        name = name or function.__name__.replace("_", "-")
        ALL[name] = Fault(name, needs, weight, function)
        if not loses:
            LOSES_NOTHING.add(name)
        return function
    return take


def lasting(name, needs, weight, choose, begin, end):
    """The same is done to each of those chosen, and undone after a while."""
    def function(d):
        chosen = choose(d)
        for one in chosen:
            begin(d, one)
        yield
        for one in chosen:
            end(d, one)
    fault(needs, weight=weight)(function, name)


def some_servers(d):
    return d.rng.sample(d.servers.all, d.rng.randrange(1, len(d.servers.all) + 1))


def some_hosts(d, most):
    return d.rng.sample(d.settings.host_names, d.rng.randrange(1, 1 + most))


def start_later(d, server):
    server.start()
    d.work(d.rng.choice([0, 0, 0.5]))


def kill(_, program):
    program.kill()


def start(_, program):
    program.start()


def freeze(_, program):
    program.freeze(True)


def thaw(_, program):
    program.freeze(False)


LASTING = (
    ("kill-leader", "servers", 4, lambda d: [d.servers.leader() or d.rng.choice(d.servers.all)], kill, start),
    ("kill-servers", "servers", 4, some_servers, kill, start_later),
    # They do not answer, and their connections stay.
    ("freeze-servers", "servers", 2, some_servers, freeze, thaw),
    # From the others: servers, the source, replicas.
    ("partition", "lines", 4, lambda d: some_hosts(d, len(d.settings.host_names) // 2),
     lambda d, host: d.hosts.cut(host), lambda d, host: d.hosts.cut(host, off=False)),
    ("slow-lines", "lines", 2, lambda d: some_hosts(d, 2),
     lambda d, host: d.hosts.slow(host), lambda d, host: d.hosts.slow(host, on=False)),
    ("kill-replica", "replica", 5, lambda d: [d.any_replica()], kill, start),
    ("stop-replica", "replica", 2, lambda d: [d.any_replica()], lambda d, replica: replica.stop(), start),
    ("freeze-replica", "replica", 2, lambda d: [d.any_replica()], freeze, thaw),
)
for row in LASTING:
    lasting(*row)


@fault("servers", weight=2)
def kill_in_turn(d):
    """Each as soon as the one before has been started again."""
    for server in d.rng.sample(d.servers.all, len(d.servers.all)):
        server.kill()
        d.work(d.rng.random())
        server.start()
    yield


@fault("servers", weight=4)
def lost_storage(d):
    """Of one server, or of all of them: then the stream itself is gone."""
    lost = d.servers.all if d.rng.random() < 0.3 else [d.rng.choice(d.servers.all)]
    for server in lost:
        server.kill()
    for server in lost:
        d.servers.remove_storage(server)
    yield
    for server in lost:
        server.start()


@fault("servers", weight=4)
def old_storage(d):
    """A copy of it from before is restored, at one server, or at all."""
    old = d.servers.all if d.rng.random() < 0.5 else [d.rng.choice(d.servers.all)]
    for server in old:
        server.kill()
    for server in old:
        d.servers.copy_storage(server)
    for server in old:
        server.start()
    d.work(d.rng.choice([0.5, 2, 4]))
    for server in old:
        server.kill()
    for server in old:
        d.servers.restore_storage(server)
    yield
    for server in old:
        server.start()


@fault("replica", weight=2)
def kill_replica_twice(d):
    """The second time while it begins."""
    replica = d.any_replica()
    replica.kill()
    replica.start()
    d.work(d.rng.choice([0, 0.05, 0.3, 1]))
    replica.kill()
    yield
    replica.start()


@fault("replica", weight=2, loses=True)
def new_replica(d):
    """One that knows nothing takes the place of another, with or without what that one had."""
    replica = d.any_replica()
    replica.kill()
    replica.forget()
    if d.rng.random() < 0.5 and "first" not in d.taken and "last" not in d.taken:
        path = d.settings.target(replica.name)
        shutil.rmtree(path, ignore_errors=True)
        os.makedirs(path, 0o700, exist_ok=True)
    yield
    replica.start()


@fault("replica", "mirrord", weight=1, loses=True)
def retired_replica(d):
    """It is forgotten, and comes back all the same."""
    replica = d.any_replica()
    replica.kill()
    d.service.verb("retire", "data/far:" + replica.name)
    d.work(d.rng.choice([0, 1, 3]))
    yield
    replica.start()


@fault("replica", weight=1, loses=True)
def old_replica(d):
    """Its state is restored from a copy, and what it has applied since is not known."""
    replica = d.any_replica()
    replica.kill()
    state, copy = d.settings.replica_state(replica.name), d.settings.replica_state(replica.name) + ".copy"
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(state, copy, ignore=shutil.ignore_patterns("*.sock"))
    replica.start()
    d.work(d.rng.choice([0.5, 2]))
    replica.kill()
    replica.forget()
    time.sleep(0.01)
    os.rename(copy, state)
    yield
    replica.start()
