# SPDX-License-Identifier: GPL-2.0
"""What replication.py measures: mirrord's service, and lsyncd with rsync.

Each side has a source, a directory in which programs change it (the mount, or the source itself) and a target, all of
them on the file system of the folder that it is given.
"""
import json
import os
import pathlib
import re
import time

import sides

LOOK = 0.1  # seconds of idleness that end what was under way
TICKS = os.sysconf("SC_CLK_TCK")


def tree_of(pid):
    """The process and all that it has started."""
    children = {}
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = stat.read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        children.setdefault(int(fields[1]), []).append(int(stat.parent.name))
    found = [pid]
    for process in found:
        found += children.get(process, [])
    return found


def processor_seconds(pid):
    """Of the process, of what it has started, and of what that was."""
    ticks = 0
    for process in tree_of(pid):
        try:
            fields = pathlib.Path("/proc/%d/stat" % process).read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        ticks += sum(int(field) for field in fields[11:15])
    return ticks / TICKS


def bytes_read_and_written(pid):
    """The same of what passed through their descriptors by read(2) and write(2)."""
    total = [0, 0]
    for process in tree_of(pid):
        try:
            text = pathlib.Path("/proc/%d/io" % process).read_text()
        except OSError:
            continue
        for number, name in enumerate(("rchar", "wchar")):
            total[number] += int(re.search(r"%s: (\d+)" % name, text).group(1))
    return total


class Replicated(sides.Side):
    """`mnt` is where programs change the source, `lower` the source."""
    title, process = None, None

    def __init__(self, top):
        super().__init__(top, None, None)
        self.replica.mkdir(mode=0o700)
        self.lower.chmod(0o700)  # as mirrord makes its targets

    def start(self):
        self.serve()

    def serve(self):
        raise NotImplementedError

    def follow(self):
        """Begins to replicate; returns when that is complete and all later changes are followed."""
        raise NotImplementedError

    def end(self):
        """In order, as for a restart."""
        self.processes.remove(self.process)
        self.process.terminate()
        self.process.wait(sides.LIMIT)

    def spawned(self, *command, **options):
        self.spawn(*command, **options)
        return self.processes[-1]

    def processor_seconds(self):
        """What replicates; what serves the mount."""
        rest = sum(processor_seconds(process.pid) for process in self.processes if process != self.process)
        return processor_seconds(self.process.pid) if self.process else 0, rest

    def settle(self):
        end = time.monotonic() + sides.LIMIT
        before = None
        while before != (before := sum(self.processor_seconds())):
            time.sleep(LOOK)
            if time.monotonic() > end:
                sides.fail("%s is still busy after %d seconds" % (self.title, sides.LIMIT))

    def moved(self):
        """Bytes that have gone from the source to the target's side."""
        raise NotImplementedError


class Mirrord(Replicated, sides.Tarn):
    title = "mirrord"

    def serve(self):
        sides.Tarn.serve(self)
        self.config, self.socket = self.home / "mirrord.toml", self.home / "mirrord.sock"
        self.config.write_text(
            'state = "{0}/state"\n[control]\nsocket = "{1}"\n[[source]]\nname = "data"\ndirectory = "{2}"\n'
            '[[source.target]]\nname = "copy"\ndirectory = "{3}"\n'.format(
                self.home, self.socket, self.lower, self.replica))

    def verb(self, *arguments):
        return sides.run(self.build / "mirrord/mirrord", *arguments, "--socket", self.socket, env=self.env)

    def begin(self):
        self.process = self.spawned(self.build / "mirrord/mirrord", "run", "--config", self.config, env=self.env)

    def follow(self):
        self.begin()
        end = time.monotonic() + 10
        while True:
            try:
                return self.verb("wait", "--timeout", sides.LIMIT)
            except sides.Failure:
                if time.monotonic() > end or self.process.poll() is not None:
                    raise
                time.sleep(0.005)  # it does not answer yet

    def wait(self):
        self.verb("wait", "--timeout", sides.LIMIT)

    def moved(self):
        return sum(source["log_bytes"] for source in json.loads(self.verb("status", "--json"))["sources"])


class Former(Mirrord):
    """mirrord before it had a log: what it gets it applies, or loses."""
    title = "mirrord without a log"
    program = None  # of commit 8574912

    def serve(self):
        super().serve()
        self.status = self.home / "status.json"
        self.tarn("rule", "add", "--include", self.lower)

    def follow(self):
        self.process = self.spawned(self.program, "--source", self.lower, "--replica", self.replica,
                                    "--status-file", self.status, env=self.env)
        self.wait_for("mirrord", lambda: "tarn_process_nl_helo" in self.tarn("log"))

    def wait(self):
        sides.run(self.program, "--catch-up", "--status-file", self.status, "--timeout", sides.LIMIT, env=self.env)


class Counting(Mirrord):
    """No replication: a daemon that only counts records."""
    title = "a daemon that only counts"

    def serve(self):
        super().serve()
        self.tarn("rule", "add", "--include", self.lower)

    def count(self, records):
        """Until it has as many as that it is registered."""
        self.process = self.spawned(self.build / "bench/count_records", records, env=self.env)
        self.wait_for("count_records", lambda: "tarn_process_nl_helo" in self.tarn("log"))

    def wait(self):
        self.processes.remove(self.process)
        if self.process.wait(sides.LIMIT):
            sides.fail("count_records: %s" % self.said())


class Lsyncd(Replicated):
    """With the smallest delay that works: with 0 it leaves alone what is changed while its rsync runs."""
    title = "lsyncd and rsync"
    delay = 1

    def serve(self):
        self.mnt.rmdir()
        self.mnt = self.lower
        self.log, self.sent = self.home / "lsyncd.log", self.home / "rsync.log"
        self.config = self.home / "lsyncd.lua"
        self.config.write_text(
            'settings {{ nodaemon = true, logfile = "{0}", insist = true }}\n'
            'sync {{ default.rsync, source = "{1}", target = "{2}", delay = {3},\n'
            '  rsync = {{ archive = true, _extra = {{ "--log-file={4}", "--log-file-format=" }} }} }}\n'.format(
                self.log, self.lower, self.replica, self.delay, self.sent))
        self.sent.touch()

    def follow(self):
        self.log.write_text("")
        self.process = self.spawned("lsyncd", self.config)
        end = time.monotonic() + sides.LIMIT
        while "Startup of" not in self.log.read_text():
            if time.monotonic() > end or self.process.poll() is not None:
                sides.fail("lsyncd does not follow: %s; %s" % (sides.end(self.log.read_text()), self.said()))
            time.sleep(0.005)

    def moved(self):
        """rsync's own count of what its two processes have told each other."""
        return sum(int(number) for line in self.sent.read_text().splitlines()
                   for number in re.findall(r"(?:sent|received) (\d+) bytes", line))


SIDES = {"mirrord": Mirrord, "lsyncd": Lsyncd, "counting": Counting, "former": Former}
