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
    def take(function):
        name = function.__name__.replace("_", "-")
        ALL[name] = Fault(name, needs, weight, function)
        if not loses:
            LOSES_NOTHING.add(name)
        return function
    return take


def some(d, servers):
    return d.rng.sample(servers, d.rng.randrange(1, len(servers) + 1))


@fault("servers", weight=4)
def kill_leader(d):
    led = d.servers.leader() or d.rng.choice(d.servers.all)
    led.kill()
    yield
    led.start()


@fault("servers", weight=4)
def kill_servers(d):
    """One, some or all of them."""
    killed = some(d, d.servers.all)
    for server in killed:
        server.kill()
    yield
    for server in killed:
        server.start()
        d.work(d.rng.choice([0, 0, 0.5]))


@fault("servers", weight=2)
def kill_in_turn(d):
    """Each as soon as the one before has been started again."""
    for server in d.rng.sample(d.servers.all, len(d.servers.all)):
        server.kill()
        d.work(d.rng.random())
        server.start()
    yield


@fault("servers", weight=2)
def freeze_servers(d):
    """They do not answer, and their connections stay."""
    frozen = some(d, d.servers.all)
    for server in frozen:
        server.freeze(True)
    yield
    for server in frozen:
        server.freeze(False)


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


@fault("lines", weight=4)
def partition(d):
    """Some hosts are cut off from the others: servers, the source, replicas."""
    names = d.settings.host_names
    cut = d.rng.sample(names, d.rng.randrange(1, 1 + len(names) // 2))
    for host in cut:
        d.hosts.cut(host)
    yield
    for host in cut:
        d.hosts.cut(host, off=False)


@fault("lines", weight=2)
def slow_lines(d):
    slow = d.rng.sample(d.settings.host_names, d.rng.randrange(1, 3))
    for host in slow:
        d.hosts.slow(host)
    yield
    for host in slow:
        d.hosts.slow(host, on=False)


@fault("replica", weight=5)
def kill_replica(d):
    replica = d.any_replica()
    replica.kill()
    yield
    replica.start()


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


@fault("replica", weight=2)
def stop_replica(d):
    replica = d.any_replica()
    replica.stop()
    yield
    replica.start()


@fault("replica", weight=2)
def freeze_replica(d):
    replica = d.any_replica()
    replica.freeze(True)
    yield
    replica.freeze(False)


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
