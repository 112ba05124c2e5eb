# SPDX-License-Identifier: GPL-2.0
"""The servers of the stream, mirrord on the source's host, and the replicas, each on a host of its own."""
import json
import os
import shutil
import signal
import subprocess
import sys
import time

import nats_cluster
from service.programs import Asked, Failed, Service, run

STREAM_BYTES = "256 MiB"


def stream_lines(settings, name):
    """How one of that name reaches the stream, for its configuration."""
    keys = settings.keys
    return ["servers = %s" % json.dumps(nats_cluster.urls(settings.cluster, "tls")), 'stream = "data"', 'ca = "%s/ca.pem"' % keys,
            'certificate = "%s/%s.pem"' % (keys, name), 'key = "%s/%s.key"' % (keys, name)]


class Servers:
    def __init__(self, settings, hosts):
        self.settings = settings
        keys = settings.keys
        tls = 'tls { cert_file: "%s/server.pem", key_file: "%s/server.key", ca_file: "%s/ca.pem", verify: true, timeout: 5 }' % (
            keys, keys, keys)
        os.mkdir(settings.cluster)
        nats_cluster.configure(settings.cluster, [settings.address(name) for name in settings.server_names], [tls])
        self.all = [nats_cluster.Server(settings.cluster, i + 1) for i in range(settings.servers)]
        for server in self.all:
            server.prefix = hosts.on(server.name)

    def start(self):
        for server in self.all:
            server.start()

    def kill(self):
        for server in self.all:
            server.kill()

    def check(self):
        for server in self.all:
            if server.process and server.process.poll() is not None:
                raise Failed("%s has ended with %d" % (server.name, server.process.returncode))

    def leader(self):
        """The server that leads the stream; None: none does, or none can be asked."""
        for server in self.all:
            if not server.process:
                continue
            asked = run(*server.prefix, sys.executable, nats_cluster.__file__, "leader", self.settings.cluster, "data",
                        check=False, timeout=60)
            if asked.returncode == 0:
                return self.all[int(asked.stdout) - 1]
        return None

    @staticmethod
    def remove_storage(server):
        shutil.rmtree(server.store, ignore_errors=True)

    @staticmethod
    def copy_storage(server):
        shutil.rmtree(server.home + "/copy", ignore_errors=True)
        if os.path.isdir(server.store):
            shutil.copytree(server.store, server.home + "/copy")

    def restore_storage(self, server):
        self.remove_storage(server)
        if os.path.isdir(server.home + "/copy"):
            shutil.copytree(server.home + "/copy", server.store)


class Source(Service):
    def __init__(self, settings, clock, hosts):
        super().__init__(settings, clock)
        self.prefix = hosts.on("source")

    def targets_configured(self):
        return ["[[source.target]]", 'kind = "nats"', 'name = "far"', "replicas = %d" % self.settings.servers,
                'max-bytes = "%s"' % STREAM_BYTES] + stream_lines(self.settings, "source")


class Replica(Asked):
    def __init__(self, settings, name, hosts):
        self.settings, self.name, self.prefix, self.process = settings, name, hosts.on(name), None
        self.config = "%s/%s.toml" % (settings.directory, name)
        super().__init__(settings.replica_state(name) + "/control.sock")

    def configure(self):
        lines = ['state = "%s"' % self.settings.replica_state(self.name), "[replica]", 'name = "%s"' % self.name,
                 'directory = "%s"' % self.settings.target(self.name)] + stream_lines(self.settings, self.name)
        with open(self.config, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")

    def start(self):
        with open(self.settings.replica_errors(self.name), "ab") as errors:
            self.process = subprocess.Popen(
                [*self.prefix, "env", "LD_PRELOAD=" + os.environ["SOAK_SANITIZER"], "mirrord", "replica", "--config", self.config],
                stderr=errors, start_new_session=True)

    def check(self):
        if self.process and self.process.poll() is not None:
            raise Failed("the replica %s has ended with %d" % (self.name, self.process.returncode))

    def kill(self):
        if self.process:
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
            raise Failed("the replica %s ended with %d when it was stopped" % (self.name, code))

    def freeze(self, frozen):
        if self.process:
            os.kill(self.process.pid, signal.SIGSTOP if frozen else signal.SIGCONT)

    def forget(self):
        """All that it knows, but for what is in the replica itself."""
        for _ in range(10):
            shutil.rmtree(self.settings.replica_state(self.name), ignore_errors=True)
            if not os.path.exists(self.settings.replica_state(self.name)):
                return
            time.sleep(0.1)
