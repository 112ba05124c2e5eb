# SPDX-License-Identifier: GPL-2.0
"""mirrord, tarnd, and the file systems of the targets and of the log."""
import json
import os
import signal
import subprocess
import time

DISK = "48m"
STATE_DISK = "160m"
LOG_LIMIT = "64 MiB"


class Failed(Exception):
    """The promise is not kept; the text says how."""


def run(*command, check=True, timeout=120):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout, check=False)
    if check and done.returncode:
        raise Failed("%s: exit code %d: %s" % (" ".join(command), done.returncode, done.stderr.decode()[-500:]))
    return done


class Service:
    def __init__(self, settings):
        self.settings, self.process = settings, None

    def configure(self):
        s = self.settings
        lines = ['state = "%s"' % s.state, "[control]", 'socket = "%s"' % s.socket, "[log]",
                 'limit = "%s"' % LOG_LIMIT, "[[source]]", 'name = "data"', 'directory = "%s"' % s.source]
        for name in s.target_names:
            lines += ["[[source.target]]", 'name = "%s"' % name, 'directory = "%s"' % s.target(name)]
        with open(s.config, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")

    def start(self):
        with open(self.settings.errors, "ab") as errors:
            self.process = subprocess.Popen(["mirrord", "run", "--config", self.settings.config], stderr=errors,
                                            start_new_session=True)

    def check(self):
        if self.process and self.process.poll() is not None:
            raise Failed("mirrord has ended with %d" % self.process.returncode)

    def kill(self):
        if not self.process:
            return
        self.process.kill()
        self.process.wait()
        self.process = None

    def stop(self):
        if not self.process:
            return
        self.process.terminate()
        code = self.process.wait(timeout=90)
        self.process = None
        if code not in (0, -signal.SIGTERM):  # it may not have begun to take signals
            raise Failed("mirrord ended with %d when it was stopped" % code)

    def freeze(self, frozen):
        if self.process:
            self.process.send_signal(signal.SIGSTOP if frozen else signal.SIGCONT)

    def verb(self, *words, timeout=200):
        return run("mirrord", *words, "--socket", self.settings.socket, check=False, timeout=timeout)

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


class Tarnd:
    def __init__(self, settings):
        self.settings = settings

    def start(self):
        run("tarn", "mount", self.settings.lower, self.settings.mount)

    def kill(self):
        with open(os.environ["TARN_RUN_DIR"] + "/tarnd.pid", encoding="utf-8") as f:
            pid = int(f.read())
        os.kill(pid, signal.SIGKILL)
        while os.path.exists("/proc/%d" % pid):
            with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
                if f.read().rpartition(")")[2].split()[0] == "Z":
                    break
            time.sleep(0.01)
        run("umount", "-l", self.settings.mount, check=False)


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
        try:
            os.unlink(directory + "/ballast")
        except FileNotFoundError:
            pass
