# SPDX-License-Identifier: GPL-2.0
"""mirrord, tarnd, and the file systems of the targets and of the log."""
import json
import mmap
import os
import signal
import struct
import subprocess
import sys
import time

from .settings import EXCLUDES

DISK = "48m"
STATE_DISK = "160m"
LOG_LIMIT = "64 MiB"
MANAGER = os.path.join(os.path.dirname(__file__), "../../replicate/service_manager.py")
CLOCK_SIZE, COUNT, SETTING = 1 << 16, struct.Struct("<q"), struct.Struct("<qq")


class Failed(Exception):
    """The promise is not kept; the text says how."""


def run(*command, check=True, timeout=120, env=None):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout, check=False, env=env)
    if check and done.returncode:
        raise Failed("%s: exit code %d: %s" % (" ".join(command), done.returncode, done.stderr.decode()[-500:]))
    return done


def alive(pid):
    try:
        with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
            return f.read().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


def remove(path):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass


class Clock:
    """What the programs take for the wall clock: see clock_shim.cc."""

    def __init__(self, settings):
        with open(settings.clock, "wb") as f:
            f.truncate(CLOCK_SIZE)
        with open(settings.clock, "r+b") as f:
            self.memory = mmap.mmap(f.fileno(), CLOCK_SIZE)
        self.count, self.offset = 0, 0
        self.environment = dict(os.environ, SOAK_CLOCK=settings.clock, LD_PRELOAD=os.environ["SOAK_PRELOAD"])

    def set(self, seconds):
        """By so much from where it is."""
        self.offset += int(seconds * 1e9)
        SETTING.pack_into(self.memory, SETTING.size * self.count + COUNT.size, time.time_ns(), self.offset)
        self.count += 1
        COUNT.pack_into(self.memory, 0, self.count)


class Asked:
    """What answers on a control socket: the service, or that of a replica on another host."""

    def __init__(self, socket):
        self.socket = socket

    def verb(self, *words, timeout=200):
        return run("mirrord", *words, "--socket", self.socket, check=False, timeout=timeout)

    def status(self):
        """None: it does not answer."""
        done = self.verb("status", "--json", timeout=60)
        try:
            return json.loads(done.stdout)
        except ValueError:
            return None

    def targets(self):
        status = self.status()
        if not status or not status.get("sources"):
            return {}
        return {target["name"]: target for target in status["sources"][0]["targets"]}

    def compare(self, verb, name):
        """What `verify` found, or `repair` left: pairs of a path as it is shown and a kind."""
        done = self.verb(verb, "data/" + name)
        if done.returncode not in (0, 1) or done.returncode == 0 and b"\t" in done.stdout:
            raise Failed("'mirrord %s %s' ended with %d: %s" % (verb, name, done.returncode, done.stderr.decode()))
        lines = [line.split("\t") for line in done.stdout.decode().splitlines() if "\t" in line]
        return {(line[1], line[2]) for line in lines}

    def wait_equal(self, limit, watch):
        """Until `mirrord wait` says that all targets are equal. It says at once what it cannot wait for."""
        deadline = time.monotonic() + limit
        while True:
            watch()
            left = max(1, int(deadline - time.monotonic()))
            done = self.verb("wait", "--timeout", str(left), timeout=left + 60)
            if done.returncode == 0:
                return
            if time.monotonic() >= deadline:
                raise Failed("not equal after %d s: %s\n%s" % (limit, done.stderr.decode().strip(),
                                                              json.dumps(self.targets(), indent=1)))
            time.sleep(0.05)


class Service(Asked):
    prefix = []  # in front of its command

    def __init__(self, settings, clock):
        super().__init__(settings.socket)
        self.settings, self.clock, self.process, self.pid = settings, clock, None, None
        self.excluded = list(EXCLUDES[0])
        self.may_end = lambda: False  # by itself, because it has no room for its state

    def targets_configured(self):
        lines = []
        for name in self.settings.target_names:
            lines += ["[[source.target]]", 'name = "%s"' % name, 'directory = "%s"' % self.settings.target(name)]
        return lines

    def configure(self):
        s = self.settings
        lines = ['state = "%s"' % s.state, "[control]", 'socket = "%s"' % s.socket, "[log]",
                 'limit = "%s"' % LOG_LIMIT, "[[source]]", 'name = "data"', 'directory = "%s"' % s.source,
                 "exclude = %s" % json.dumps(self.excluded)] + self.targets_configured()
        with open(s.config, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")

    def start(self):
        """Under what stands in for the service manager: it starts mirrord again, and keeps its channel meanwhile."""
        directory = self.settings.manager
        os.makedirs(directory, exist_ok=True)
        for name in ("notify", "pid", "code"):
            remove(directory + "/" + name)
        clock = ["%s=%s" % (name, self.clock.environment[name]) for name in ("SOAK_CLOCK", "LD_PRELOAD")]
        with open(self.settings.errors, "ab") as errors:
            self.process = subprocess.Popen([*self.prefix, sys.executable, MANAGER, directory, "0.3", "env", *clock, "mirrord",
                                             "run", "--config", self.settings.config],
                                            stderr=errors, start_new_session=True)
        self.pid = None
        while self.pid is None:
            self.check()
            time.sleep(0.01)
            self.pid = self.told("pid")

    def told(self, name):
        try:
            with open(self.settings.manager + "/" + name, encoding="ascii") as f:
                return int(f.read())
        except FileNotFoundError:
            return None

    def check(self):
        """It ends only when it is told to."""
        if not self.process:
            return
        if self.process.poll() is not None:
            raise Failed("the service manager has ended with %d" % self.process.returncode)
        if self.pid is not None and self.told("pid") != self.pid:
            if not self.may_end():
                raise Failed("mirrord has ended with %s" % self.told("code"))
            self.pid = self.told("pid")

    def restart(self, number):
        """The manager starts it again."""
        self.check()
        os.kill(self.pid, number)
        deadline = time.monotonic() + 90
        while self.told("pid") == self.pid:
            if time.monotonic() > deadline:
                raise Failed("mirrord does not end")
            time.sleep(0.01)
        if self.told("code") not in (0, -number) and not self.may_end():
            raise Failed("mirrord ended with %s when it was restarted" % self.told("code"))
        self.pid = self.told("pid")

    def kill(self):
        """With all that the manager keeps."""
        if not self.process:
            return
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        self.process = None
        while alive(self.told("pid")):
            time.sleep(0.01)

    def stop(self):
        if not self.process:
            return
        self.process.terminate()
        self.process.wait(timeout=90)
        self.process = None
        code = self.told("code")
        if code not in (0, -signal.SIGTERM) and not self.may_end():  # it may not have begun to take signals
            raise Failed("mirrord ended with %s when it was stopped" % code)

    def freeze(self, frozen):
        if self.process:
            os.kill(self.told("pid"), signal.SIGSTOP if frozen else signal.SIGCONT)


class Tarnd:
    def __init__(self, settings, clock):
        self.settings, self.clock = settings, clock

    def start(self):
        run("tarn", "mount", self.settings.lower, self.settings.mount, env=self.clock.environment)

    @staticmethod
    def pid():
        with open(os.environ["TARN_RUN_DIR"] + "/tarnd.pid", encoding="utf-8") as f:
            return int(f.read())

    def kill(self):
        pid = self.pid()
        os.kill(pid, signal.SIGKILL)
        while alive(pid):
            time.sleep(0.01)
        run("umount", "-l", self.settings.mount, check=False)

    def freeze(self, frozen):
        os.kill(self.pid(), signal.SIGSTOP if frozen else signal.SIGCONT)

    @staticmethod
    def stop():
        run("tarn", "stop")


class Disks:
    def __init__(self, settings):
        self.settings = settings

    def make(self):
        s = self.settings
        self.tmpfs(s.state_disk, STATE_DISK)
        for name in s.target_names:
            self.tmpfs(s.disk(name), DISK)
            os.mkdir(s.mount_point(name))
            self.show(name)
            os.mkdir(s.target(name), 0o700)

    @staticmethod
    def tmpfs(directory, size):
        os.mkdir(directory)
        run("mount", "-t", "tmpfs", "-o", "size=%s,mode=755" % size, "soak", directory)

    def show(self, name):
        run("mount", "--bind", self.settings.disk(name), self.settings.mount_point(name))

    def read_only(self, name, on):
        run("mount", "-o", "remount,%s,size=%s" % ("ro" if on else "rw", DISK), self.settings.disk(name))

    def hide(self, name):
        run("umount", "-l", self.settings.mount_point(name))

    @staticmethod
    def fill(directory):
        """Until there is no room left."""
        with open(directory + "/ballast", "ab", buffering=0) as f:
            for size in (1 << 20, 4096, 1):
                try:
                    while True:
                        f.write(bytes(size))
                except OSError:
                    continue

    @staticmethod
    def free(directory):
        remove(directory + "/ballast")
