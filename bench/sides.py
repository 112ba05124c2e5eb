#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""The directories that are measured: a plain one, one behind each of some FUSE servers, and tarn's.

Every side has a tmpfs of its own below. mounts.py measures calls on them, programs.py programs.
"""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

EXAMPLES = pathlib.Path("/usr/share/doc/libfuse3-dev/examples")
LIMIT = 300  # seconds for one command
SHOWN = 5  # lines of a program that has failed


class Failure(SystemExit):
    """Ends the program with its text, unless what failed is only a part of what is measured."""


def fail(text):
    raise Failure("bench: " + text)


def run(*command, **options):
    """The output of a program that has to succeed."""
    done = subprocess.run([str(c) for c in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode:
        fail("%s: status %d: %s" % (" ".join(map(str, command)), done.returncode, end(done.stdout)))
    return done.stdout


def end(text):
    """A program that fails may say so for each of thousands of files."""
    return "\n".join(text.strip().splitlines()[-SHOWN:])


def shell(command, directory):
    """The output of a command that has to succeed, with all that it has started."""
    with subprocess.Popen(["sh", "-ec", command], cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, start_new_session=True) as shell_process:
        try:
            output, _ = shell_process.communicate(timeout=LIMIT)
        except subprocess.TimeoutExpired:
            os.killpg(shell_process.pid, signal.SIGKILL)
            fail("%.60s...: not done after %d seconds" % (command, LIMIT))
    if shell_process.returncode:
        fail("%.60s...: status %d: %s" % (command, shell_process.returncode, end(output)))
    return output


def pinned(cpu):
    return lambda: os.sched_setaffinity(0, {cpu})


def mounted(place):
    """Also where what served it does not run any more."""
    return any(line.split()[1] == str(place) for line in pathlib.Path("/proc/mounts").read_text().splitlines())


class Side:
    """A directory over a tmpfs; the plain directory is served by nothing."""
    other_users = True

    def __init__(self, top, cpu, other_cpu):
        self.home = pathlib.Path(top)
        self.cpu, self.other_cpu = cpu, other_cpu  # None: anywhere
        self.lower, self.mnt = self.home / "lower", self.home / "mnt"
        self.lower.mkdir()
        self.mnt.mkdir()
        self.replica = self.home / "replica"
        self.processes = []

    def start(self):
        """What this has begun stop() takes away, also when it fails."""
        run("mount", "-t", "tmpfs", "-o", "nr_inodes=0", "tmpfs", self.lower)
        self.serve()

    def serve(self):
        run("mount", "--bind", self.lower, self.mnt)

    def settle(self):
        """Returns when nothing of what was done before is still under way."""

    def spawn(self, *command, cpu=None, env=None):
        cpu = self.cpu if cpu is None else cpu
        with open(self.home / "stderr", "ab") as stderr:
            self.processes.append(subprocess.Popen(
                [str(c) for c in command], stdin=subprocess.DEVNULL, env=env, stdout=subprocess.DEVNULL, stderr=stderr,
                preexec_fn=None if cpu is None else pinned(cpu)))

    def wait_for(self, what, condition):
        for _ in range(500):
            if condition():
                return
            time.sleep(0.02)
        fail("%s: not after ten seconds; %s" % (what, self.said()))

    def said(self):
        return end((self.home / "stderr").read_text())

    def ended(self):
        """What of that which serves the side does not run any more."""
        return ["%s: ended with %d" % (pathlib.Path(process.args[0]).name, process.returncode)
                for process in self.processes if process.poll() is not None]

    def stop(self):
        for process in self.processes:
            process.terminate()
        for process in self.processes:
            try:
                process.wait(30)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        for place in (self.mnt, self.lower, self.replica):
            if mounted(place):
                run("umount", "-l", place)


class Bindfs(Side):
    options = ()

    def serve(self):
        self.spawn("bindfs", "-f", *self.options, self.lower, self.mnt)
        self.wait_for("bindfs", lambda: mounted(self.mnt))


class BindfsBigWrites(Bindfs):
    options = ("-o", "big_writes")


class BindfsThreads(Bindfs):
    options = ("-o", "big_writes", "--multithreaded")


class Example(Side):
    """One of libfuse's own examples, compiled from its source. What it makes is always root's."""
    other_users = False
    name, compiler, source = None, None, None

    def program(self):
        """All sides lie in one directory; the program stays there until they are gone."""
        program = self.home.parent / ("build-" + self.name)
        if not program.exists():
            flags = run("pkg-config", "--cflags", "--libs", "fuse3").split()
            run(*self.compiler, "-O2", "-o", program, self.source, *flags)
        return program

    def serve(self):
        self.spawn(self.program(), *self.arguments())
        self.wait_for(self.name, lambda: mounted(self.mnt))

    def arguments(self):
        raise NotImplementedError


class PassthroughLl(Example):
    name, compiler = "passthrough_ll", ("cc",)
    source = EXAMPLES / "passthrough_ll.c"

    def arguments(self):
        return "-f", "-o", "source=%s" % self.lower, self.mnt


class PassthroughHp(Example):
    # libfuse's own build finds out that the C library has these calls.
    name, compiler = "passthrough_hp", ("c++", "-std=c++17", "-DHAVE_UTIMENSAT", "-DHAVE_SETXATTR")
    source = pathlib.Path(os.environ.get("PASSTHROUGH_HP") or EXAMPLES / "passthrough_hp.cc")

    def arguments(self):
        return "--foreground", self.lower, self.mnt


class Tarn(Side):
    build = None

    def serve(self):
        self.env = dict(os.environ, TARN_RUN_DIR=str(self.home / "run"), TARN_STATE_DIR=str(self.home / "state"))
        (self.home / "run").mkdir()
        self.spawn(self.build / "tarnd/tarnd", "--foreground", env=self.env)
        self.wait_for("tarnd", lambda: (self.home / "run/tarnd.pid").exists())
        self.tarn("mount", self.lower, self.mnt)

    def tarn(self, *arguments):
        return run(self.build / "tarn/tarn", *arguments, env=self.env)


class TarnRule(Tarn):
    def serve(self):
        super().serve()
        self.tarn("rule", "add", "--include", self.lower)


class TarnMirrord(Tarn):
    def serve(self):
        super().serve()
        self.replica.mkdir()
        run("mount", "-t", "tmpfs", "tmpfs", self.replica)
        self.spawn(self.build / "mirrord/mirrord", "--source", self.lower, "--replica", self.replica,
                   cpu=self.other_cpu, env=self.env)
        self.wait_for("mirrord", lambda: "mirrord: registered" in (self.home / "stderr").read_text())

    def settle(self):
        try:
            run(self.build / "mirrord/mirrord", "wait", env=self.env)
        except Failure as failure:
            # What it could not do mirrord itself has said.
            fail("%s; %s" % (failure, self.said()))


SIDES = {
    "plain": ("plain directory", Side),
    "bindfs": ("bindfs", Bindfs),
    "bindfs_big": ("bindfs, big_writes", BindfsBigWrites),
    "bindfs_threads": ("bindfs, big_writes, threads", BindfsThreads),
    "passthrough": ("passthrough_ll", PassthroughLl),
    "passthrough_hp": ("passthrough_hp", PassthroughHp),
    "tarn": ("tarn, no rule", Tarn),
    "tarn_rule": ("tarn, a rule", TarnRule),
    "tarn_mirrord": ("tarn, a rule and mirrord", TarnMirrord),
}


def there(names):
    """Those of the sides that this machine can have."""
    for name in names:
        kind = SIDES[name][1]
        if not issubclass(kind, Example) or kind.source.exists():
            yield name
        else:
            print("bench: left out: %s, for its source %s is not there" % (name, kind.source))


@contextlib.contextmanager
def served(build, names, cpus=(None, None), folder=None):
    """A folder and the sides in it by their names, started; all of it is gone afterwards."""
    if os.geteuid() != 0:
        fail("must be run by root: it mounts what it measures")
    top = pathlib.Path(tempfile.mkdtemp(prefix="tarn-bench.", dir=folder))
    top.chmod(0o755)
    Tarn.build = pathlib.Path(build).resolve()
    sides = {}
    try:
        for name in there(names):
            (top / name).mkdir()
            sides[name] = SIDES[name][1](top / name, *cpus)
            sides[name].start()
        yield top, sides
    finally:
        for side in sides.values():
            side.stop()
        shutil.rmtree(top)
