# SPDX-License-Identifier: GPL-2.0
"""The processes that change the source. They are those of promise/, but the mount may end under them."""
import os
import random
import signal
import sys
import time
import traceback

from promise import actions, control, lower_flags, provocations
from promise.worker import DEAD, Worker

from . import operations

MOUNT_ENDED = 3

assert provocations and operations  # their actions are registered when they are imported


class PacedAction:
    def __init__(self, action, pace):
        self.action, self.pace, self.weight, self.removes = action, pace, action.weight, action.removes

    def run(self, worker):
        time.sleep(worker.rng.random() * 2 * self.pace)
        self.action.run(worker)


class Workload:
    def __init__(self, settings):
        self.settings = settings
        self.control = control.Control(settings.workers)
        self.children, self.generation, self.number, self.removal = {}, 0, 0, 1.0

    def make_tree(self):
        for path in self.settings.tree:
            whole = self.settings.mounts[0]
            for name in path.split(b"/"):
                whole += b"/" + name
                os.makedirs(whole, exist_ok=True)
                os.chmod(whole, 0o777)

    def start(self):
        self.generation += 1
        self.go_on()
        for index in range(self.settings.workers):
            if index in self.children:
                continue
            self.control.slot(index).pause(-1)
            pid = os.fork()
            if pid == 0:
                os._exit(self.child(index))
            self.children[index] = pid

    def child(self, index):
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, signal.SIG_DFL)
        try:
            from .settings import USERS  # a worker's own
            worker = Worker(index, USERS[index % len(USERS)], self.settings, self.control)
            worker.rng = random.Random("%d/%d/%d" % (self.settings.seed, index, self.generation))
            pace = self.settings.pace
            worker.run([PacedAction(a, pace) for a in actions.for_worker(worker)])
            return 0
        except OSError as error:
            if error.errno in DEAD:
                return MOUNT_ENDED
            traceback.print_exc()
        except BaseException:  # whatever it is, it is this worker's end
            traceback.print_exc()
        sys.stderr.flush()
        return 1

    def go_on(self):
        self.number += 1
        self.control.say(control.RUN, self.number, self.removal)

    def reap(self):
        """The exit codes of those that have ended."""
        ended = {}
        for index, pid in list(self.children.items()):
            done, status = os.waitpid(pid, os.WNOHANG)
            if done:
                del self.children[index]
                ended[index] = os.waitstatus_to_exitcode(status)
        return ended

    def pause(self, limit=60):
        """An error text, or None."""
        self.number += 1
        self.control.say(control.PAUSE, self.number, 1.0)
        deadline = time.monotonic() + limit
        while True:
            for index, code in self.reap().items():
                if code != MOUNT_ENDED:
                    return "worker %d has ended with %d" % (index, code)
            late = [i for i in self.children if self.control.slot(i).read()[1] != self.number]
            if not late:
                return None
            if time.monotonic() > deadline:
                since, _, _, text = self.control.slot(late[0]).read()
                return "worker %d is stuck in: %s" % (late[0], text.decode(errors="replace"))
            time.sleep(0.01)

    def mount_ended(self):
        """Waits for the workers: none can go on."""
        self.control.say(control.END, 0, 1.0)
        deadline = time.monotonic() + 30
        while self.children and time.monotonic() < deadline:
            self.reap()
            time.sleep(0.01)
        killed = list(self.children.values())
        for pid in killed:
            os.kill(pid, signal.SIGKILL)
        while self.children:
            self.reap()
            time.sleep(0.01)
        if killed:
            lower_flags.clear_all(self.settings.lower)

    end = mount_ended

    def calls(self):
        return sum(self.control.slot(i).read()[2] for i in range(self.settings.workers))

    def entries(self, count):
        """How many there are in the source: more are removed when there are many."""
        self.removal = 0.7 if count < 150 else 2.0 if count < 300 else 6.0
