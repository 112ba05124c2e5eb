# SPDX-License-Identifier: GPL-2.0
"""Starts the workers, lets them work and pause, watches that none is stuck, and has each pause judged."""
import errno
import os
import random
import signal
import stat
import subprocess
import time
import traceback

from . import actions, compare, control, declared, lower_flags, names, provocations, remounts, report
from .history import History
from .worker import Worker

BARRIER_EVERY = 3.0
SWEPT = 200
MANY_ENTRIES = 2500


class Failed(Exception):
    """The run cannot go on; the text says why."""


class Coordinator:
    def __init__(self, settings):
        self.settings = settings
        self.control = control.Control(settings.workers + 1)
        self.children = {}
        self.messages = declared.Messages(settings.mirrord_log)
        self.rng = random.Random("%d/sweeps" % settings.seed)
        self.first_message = self.first_log_line = 0
        self.accepted = {}  # (path, kind) of differences that were declared in earlier rounds -> what declared them
        self.log = declared.Log(settings.lower)
        self.asking = None  # a `mirrord wait` that is under way
        self.calls = 0
        self.compared = 0

    # Processes.

    def start(self, index, uid, work):
        pid = os.fork()
        if pid == 0:
            try:
                signal.signal(signal.SIGINT, signal.SIG_DFL)
                work(Worker(index, uid, self.settings, self.control))
                os._exit(0)
            except BaseException:  # whatever it is, it is this worker's end
                traceback.print_exc()
                os._exit(1)
        self.children[index] = pid

    def start_all(self):
        for index in range(self.settings.workers):
            uid = self.settings.user(index)
            self.start(index, uid, lambda w: w.run(actions.for_worker(w)))
        if "unmount" in self.settings.groups:
            self.start(self.settings.workers, 0, remounts.run)

    def watch(self):
        """Fails when a worker has ended or is stuck, or mirrord has ended."""
        self.messages.poll()
        for index, pid in list(self.children.items()):
            since, _, _, text = self.control.slot(index).read()
            if since and time.monotonic() - since > self.settings.hang:
                raise Failed("worker %d is stuck since %.0f s in: %s\n%s" % (
                    index, time.monotonic() - since, text.decode(errors="replace"), report.stack(pid)))
            ended, status = os.waitpid(pid, os.WNOHANG)
            if ended:
                del self.children[index]
                raise Failed("worker %d ended with status %#x: its last call stands in its journal" % (index, status))
        if not os.path.exists("/proc/%d/exe" % self.settings.pid) or report.is_zombie(self.settings.pid):
            raise Failed("mirrord has ended")

    def end_all(self):
        self.control.say(control.END, 0, 1.0)
        deadline = time.monotonic() + 20
        while self.children and time.monotonic() < deadline:
            for index, pid in list(self.children.items()):
                if os.waitpid(pid, os.WNOHANG)[0]:
                    del self.children[index]
            time.sleep(0.02)
        for pid in self.children.values():
            os.kill(pid, signal.SIGKILL)
        if self.asking:
            self.asking.kill()
        lower_flags.clear_all(self.settings.lower)

    # mirrord.

    def ask(self):
        """Asks mirrord to say when it has everything that was changed until now."""
        self.asking = subprocess.Popen(
            ["mirrord", "wait", "--socket", self.settings.socket, "--timeout", "%d" % self.settings.catch_up],
            stderr=subprocess.PIPE)

    def answered(self):
        if self.asking.poll() is None:
            return False
        if self.asking.returncode != 0:
            said = self.asking.stderr.read()
            last = b"\n  ".join([said] + [line for _, line in self.messages.lines[-8:]]).decode(errors="replace")
            raise Failed("mirrord has not caught up within %.0f s; its last messages:\n  %s" %
                         (self.settings.catch_up, last))
        self.asking.stderr.close()
        self.asking = None
        return True

    def barrier(self):
        while self.asking and not self.answered():  # of before
            self.watch()
            time.sleep(0.05)
        self.ask()
        while not self.answered():
            self.watch()
            time.sleep(0.05)
        self.log.poll()

    # Rounds.

    def make_tree(self):
        for path in self.settings.tree:
            whole = self.settings.mounts[0]
            for name in path.split(b"/"):
                whole += b"/" + name
                os.makedirs(whole, exist_ok=True)
                os.chmod(whole, 0o777)

    def work(self, number, removal):
        self.control.say(control.RUN, number, removal)
        end = time.monotonic() + self.settings.round
        asked = 0
        while time.monotonic() < end:
            time.sleep(0.1)
            self.watch()
            if (not self.asking or self.answered()) and time.monotonic() > asked + BARRIER_EVERY:
                asked = time.monotonic()
                self.ask()
                self.log.poll()

    def pause(self, number):
        self.control.say(control.PAUSE, number, 1.0)
        while any(self.control.slot(index).read()[1] != number for index in self.children):
            time.sleep(0.02)
            self.watch()
        for mount in filter(os.path.ismount, self.settings.mounts):  # one of them comes and goes
            try:
                subprocess.run(["sync", "-f", mount], check=True, timeout=self.settings.hang)
            except subprocess.CalledProcessError as error:
                raise Failed("sync of %s fails" % os.fsdecode(mount)) from error
            except subprocess.TimeoutExpired as error:
                raise Failed("sync of %s is stuck" % os.fsdecode(mount)) from error
        self.barrier()

    def sweep(self, number, lower, replica):
        """Sets the times of some objects while nothing else goes on: those of directories must arrive too. Only of what
        is in the replica: a message about something else would declare a loss that nothing had declared."""
        if "attributes" not in self.settings.groups:
            return []
        when = names.sweep_time(number)
        may = sorted(path for path in lower.keys() & replica.keys() if len(path) < 3000 and
                     stat.S_IFMT(lower[path].info.st_mode) == stat.S_IFMT(replica[path].info.st_mode))
        for path in self.rng.sample(may, min(SWEPT, len(may))):
            self.set_time(path, when)
        self.barrier()
        found = []
        for path in may:
            # Not what was asked for decides: a mount may show a name as it was before the other mount moved it.
            below, us = (os.lstat(names.join(root, path)).st_mtime_ns // 1000 for root in
                         (self.settings.source, self.settings.replica))
            if below == when // 1000 != us:
                found.append(compare.Difference(path, "time", "set to %d us while nothing else went on, %d us in the "
                                                "replica" % (when // 1000, us)))
        return found

    def set_time(self, path, when):
        try:
            os.utime(names.join(self.settings.mounts[0], names.join(names.SOURCE, path)), ns=(when, when),
                     follow_symlinks=False)
        except OSError as error:
            # This mount does not show what was made or moved through the other.
            if error.errno not in (errno.ENOENT, errno.ESTALE, errno.ENOTDIR, errno.ELOOP):
                raise

    def scan_lower(self):
        outside = set(self.settings.excluded())
        return compare.scan(self.settings.source, lambda path: names.join(names.SOURCE, path) in outside)

    def judge(self, number):
        """Compares; gives the differences that nothing declares, each with its history."""
        lower, replica = self.scan_lower(), compare.scan(self.settings.replica)
        self.compared += len(lower)
        self.messages.poll()
        said = declared.Declared(self.settings.source, self.settings.replica, self.messages.since(self.first_message),
                                 self.log.lines[self.first_log_line:])
        found = compare.differences(lower, replica, (self.settings.source, self.settings.replica))
        found += self.sweep(number, lower, replica)
        history = History([self.settings.journal(number, i) for i in range(self.settings.workers + 1)])
        accepted, undeclared = {}, []
        for difference in found:
            trace = self.trace(history, difference.path, lower)
            why = said.why(self.inside(trace.ever))
            if why is None:
                why = next((self.accepted[path, difference.kind] for path in self.inside(trace.live)
                            if (path, difference.kind) in self.accepted), None)
            if why is None:
                undeclared.append((difference, trace, history))
            else:
                accepted[difference.key()] = why
        self.accepted = accepted
        return report.Round(number, len(lower), undeclared, accepted, said)

    def trace(self, history, path, lower):
        parent, _, _ = path.rpartition(b"/")
        number = os.stat(self.settings.source).st_ino if not parent else None
        if parent in lower:
            number = lower[parent].info.st_ino
        inode = lower[path].info.st_ino if path in lower else None
        return history.trace(names.join(names.SOURCE, path), number, inode)

    def inside(self, paths):
        """Those below the source, relative to it."""
        start = names.SOURCE + b"/"
        return [path[len(start):] for path in paths if path.startswith(start)]

    def run(self):
        """None, or the round that must be reported."""
        self.make_tree()
        self.start_all()
        end, number, removal = time.monotonic() + self.settings.seconds, 0, 1.0
        while time.monotonic() < end:
            self.first_message, self.first_log_line = len(self.messages.lines), len(self.log.lines)
            self.work(number, removal)
            self.pause(number)
            self.calls = sum(self.control.slot(i).read()[2] for i in self.children)
            judged = self.judge(number)
            report.progress(self, judged)
            if judged.undeclared or judged.stopped():
                return judged
            self.forget_journals(number)
            removal = 0.7 if judged.entries < MANY_ENTRIES // 2 else 1.5 if judged.entries < MANY_ENTRIES else 5.0
            number += 1
        return None

    def forget_journals(self, number):
        for index in range(self.settings.workers + 1):
            try:
                os.unlink(self.settings.journal(number, index))
            except FileNotFoundError:
                pass


assert provocations  # its actions are registered when it is imported
