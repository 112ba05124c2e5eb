# SPDX-License-Identifier: GPL-2.0
"""The faults. Each is a generator: it makes the fault, yields once while it lasts, and undoes it. The names behind
@fault are what it takes for itself: faults without a common one may last at the same time."""
import glob
import os
import shutil
import signal
import time

from promise import names

from .programs import Failed, run
from .settings import EXCLUDES

ALL = {}
BURST = 80 << 20
LOG_HEADER = 48


class Fault:
    def __init__(self, name, needs, weight, function):
        self.name, self.needs, self.weight, self.function = name, set(needs), weight, function


def fault(*needs, weight=2):
    def take(function):
        name = function.__name__.replace("_", "-")
        ALL[name] = Fault(name, needs, weight, function)
        return function
    return take


@fault("mirrord", weight=6)
def kill(d):
    d.watch()
    d.service.kill()
    yield
    d.service.start()


@fault("mirrord", weight=3)
def kill_twice(d):
    """The second time at once, or while it begins."""
    d.service.kill()
    d.service.start()
    time.sleep(d.rng.choice([0, 0.02, 0.1, 0.3, 1]))
    d.watch()
    d.service.kill()
    yield
    d.service.start()


@fault("mirrord", weight=4)
def stop(d):
    d.service.stop()
    yield
    d.service.start()


@fault("mirrord", weight=5)
def restart(d):
    """By the service manager, after a stop or kill -9: it keeps the channel."""
    d.service.restart(d.rng.choice([signal.SIGTERM, signal.SIGTERM, signal.SIGKILL]))
    yield


@fault("mirrord", weight=3)
def freeze(d):
    d.service.freeze(True)
    yield
    d.service.freeze(False)


@fault("mirrord", weight=3)
def kill_while_copying(d):
    d.service.verb("resync", "data/" + d.rng.choice(d.settings.target_names))
    time.sleep(d.rng.random() * 0.6)
    d.service.kill()
    yield
    d.service.start()


@fault("tarnd", weight=4)
def kill_tarnd(d):
    d.tarnd.kill()
    d.workload.mount_ended()
    yield
    d.tarnd.start()
    if not d.paused:
        d.workload.start()


@fault("tarnd", weight=2)
def stop_tarnd(d):
    """In order: it passes on what was changed before."""
    d.workload.mount_ended()
    d.tarnd.stop()
    yield
    d.tarnd.start()
    if not d.paused:
        d.workload.start()


@fault("tarnd", "workers", weight=2)
def freeze_tarnd(d):
    d.tarnd.freeze(True)
    time.sleep(d.rng.choice([0.1, 1, 3]))
    d.tarnd.freeze(False)
    yield


@fault("first", weight=4)
def full_target(d):
    disk = d.settings.disk(d.first)
    d.disks.fill(disk)
    yield
    d.disks.free(disk)


@fault("log", weight=3)
def full_log_disk(d):
    d.log_full = True
    d.disks.fill(d.settings.state_disk)
    yield
    d.disks.free(d.settings.state_disk)
    d.log_full, d.log_freed = False, time.monotonic()


@fault("first", weight=2)
def read_only_target(d):
    """It cannot become so while the service writes there."""
    for _ in range(100):
        try:
            d.disks.read_only(d.first, True)
            break
        except Failed:
            time.sleep(0.02)
    yield
    d.disks.read_only(d.first, False)


@fault("first", weight=3)
def unmounted_target(d):
    d.disks.hide(d.first)
    yield
    d.disks.show(d.first)


@fault("last", weight=3)
def target_away(d):
    path = d.settings.target(d.last)
    os.rename(path, path + ".away")
    yield
    os.rename(path + ".away", path)


@fault("last")
def replaced_target(d):
    path = d.settings.target(d.last)
    os.rename(path, path + ".old")
    if d.rng.random() < 0.5:
        time.sleep(1.5)
    os.mkdir(path, 0o700)
    yield
    for _ in range(10):  # mirrord may still be writing there
        if run("rm", "-rf", path + ".old", check=False).returncode == 0:
            break
        time.sleep(0.5)


@fault("tarnd", "mirrord", weight=3)
def deleted_rule(d):
    status = d.service.status()
    if status:
        run("tarn", "rule", "del", status["sources"][0]["rule"], check=False)
    yield


@fault("tarnd", "mirrord", weight=1)
def flushed_rules(d):
    run("tarn", "rule", "flush", check=False)
    yield


@fault("tarnd", weight=1)
def another_rule(d):
    """Somebody else's, which includes the same."""
    done = run("tarn", "rule", "add", "--include", d.settings.source, check=False)
    yield
    if done.returncode == 0:
        run("tarn", "rule", "del", done.stdout.decode().strip(), check=False)


@fault("mirrord", "tarnd", weight=4)
def other_excludes(d):
    """The configuration excludes something else."""
    if d.rng.random() < 0.5:
        d.service.kill()
    else:
        d.service.stop()
    d.service.excluded = list(d.rng.choice([e for e in EXCLUDES if e != d.service.excluded]))
    d.service.configure()
    yield
    d.service.start()


@fault("mirrord", "log", weight=2)
def cut_log(d):
    """As after a power cut, or worse: what was confirmed may be gone too. A log without any header is refused."""
    d.service.kill()
    segments = sorted(glob.glob(d.settings.state + "/data/log/*"), key=os.path.getmtime)
    if segments:
        size = os.path.getsize(segments[-1])
        left = size - d.rng.choice([1, 7, 100, 5000]) if d.rng.random() < 0.7 else d.rng.randrange(size + 1)
        os.truncate(segments[-1], max(left, LOG_HEADER))
    yield
    d.service.start()


@fault("mirrord", "log", weight=1)
def lost_log(d):
    d.service.kill()
    shutil.rmtree(d.settings.state + "/data/log", ignore_errors=True)
    yield
    d.service.start()


@fault("mirrord", "log", "last", "tarnd", weight=1)
def lost_state(d):
    """Of one target or of all."""
    d.service.kill()
    if d.rng.random() < 0.5:
        shutil.rmtree(d.settings.state, ignore_errors=True)
        run("tarn", "rule", "flush", check=False)  # nobody knows its rule any more
    else:
        for name in glob.glob(d.settings.state + "/data/target*%s*" % d.last):
            os.unlink(name)
    yield
    d.service.start()


@fault("clock", weight=4)
def set_clock(d):
    """Back or forward, and perhaps right again, which nobody notices while the service does not run."""
    seconds = d.rng.choice([-86400, -3600, -60, -7, -1, 1, 7, 60, 3600])
    runs = d.service.process and d.service.pid
    d.clock.set(seconds)
    yield
    ran = runs and d.service.process and d.service.pid == runs
    if d.rng.random() < 0.4 and ran:
        d.clock.set(-seconds)


@fault("first", "mirrord", weight=3)
def paused_target(d):
    d.asked(d.first).verb("pause", "data/" + d.first)
    yield
    d.resume.add(d.first)


@fault("first", "mirrord", "log", "tarnd", weight=1)
def full_log(d):
    """A paused target does without what does not fit into the log."""
    d.asked(d.first).verb("pause", "data/" + d.first)
    path = os.fsencode(d.settings.mount) + b"/" + names.SOURCE + b"/burst"
    with open(path, "wb", buffering=0) as f:
        for _ in range(BURST >> 20):
            f.seek(0)
            f.write(os.urandom(1 << 20))
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass  # a worker was faster
    yield
    d.resume.add(d.first)


@fault("first", weight=2)
def resync(d):
    d.asked(d.first).verb("resync", "data/" + d.first)
    yield


@fault("first", "mirrord", weight=2)
def skipped_entry(d):
    """What is skipped is a gap until the target is compared anew."""
    disk = d.settings.disk(d.first)
    d.disks.fill(disk)
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline and d.asked(d.first).targets().get(d.first, {}).get("state") != "held":
        time.sleep(0.05)
    yield
    skipped = d.asked(d.first).verb("skip", "data/" + d.first).returncode == 0
    if skipped and d.asked(d.first).targets().get(d.first, {}).get("skipped", 0) == 0:
        time.sleep(1)
        if d.asked(d.first).targets().get(d.first, {}).get("skipped", 0) == 0:
            raise Failed("an entry was skipped, and the status does not say so")
    d.disks.free(disk)
    if skipped:
        d.resync.add(d.first)


@fault(weight=3)
def nothing(d):
    """Only the comparison."""
    assert d
    yield
