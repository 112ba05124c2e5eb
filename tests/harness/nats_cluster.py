#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Servers of NATS JetStream for tests and the demo: one, or a cluster that keeps a copy of each stream on every server.

As a program: nats_cluster.py make DIRECTORY COUNT     writes the configurations, for free ports of the loopback
              nats_cluster.py run DIRECTORY NUMBER     becomes the server of that number, from 1
              nats_cluster.py urls DIRECTORY           how clients reach them, as an array of TOML
              nats_cluster.py leader DIRECTORY STREAM  the number of the server that leads the stream
Exit status 1: no server leads it at present.
"""
import json
import os
import signal
import socket
import subprocess
import sys
import urllib.request

LOOPBACK = "127.0.0.1"
TIMEOUT = 2


def free_ports(count):
    sockets = [socket.create_server((LOOPBACK, 0)) for _ in range(count)]
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


class Server:
    """One of them, whose configuration lies in `directory`; its storage is `store`."""

    def __init__(self, directory, number):
        self.home = os.path.join(directory, "server%d" % number)
        self.store = self.home + "/store"
        self.number, self.prefix, self.process = number, [], None
        self.name = "s%d" % number

    def arguments(self):
        return ["nats-server", "-c", self.home + "/conf"]

    def start(self):
        with open(self.home + "/log", "ab") as log:
            self.process = subprocess.Popen(self.prefix + self.arguments(), stdout=log, stderr=log, start_new_session=True)

    def kill(self):
        if not self.process:
            return
        self.process.kill()
        self.process.wait()
        self.process = None

    def freeze(self, frozen):
        if self.process:
            os.kill(self.process.pid, signal.SIGSTOP if frozen else signal.SIGCONT)

    def leader(self, stream):
        """The name of the server that leads the stream, as this one knows it; None: it knows of none."""
        with open(self.home + "/http", encoding="ascii") as f:
            url = "http://%s/jsz?streams=true" % f.read()
        try:
            with urllib.request.urlopen(url, timeout=TIMEOUT) as answer:
                accounts = json.load(answer).get("account_details") or []
        except (OSError, ValueError):
            return None
        for account in accounts:
            for one in account.get("stream_detail") or []:
                if one["name"] == stream:
                    return one["cluster"].get("leader") if "cluster" in one else self.name
        return None


def configure(directory, addresses, lines=()):
    """Configurations of servers, each with an address, whose ports are free on the loopback. `lines` are added to each."""
    ports = free_ports(3 * len(addresses))
    routes = ", ".join('"nats://%s:%d"' % (address, ports[3 * i + 1]) for i, address in enumerate(addresses))
    urls = []
    for i, address in enumerate(addresses):
        client, route, http = ports[3 * i:3 * i + 3]
        server = Server(directory, i + 1)
        os.makedirs(server.home)
        conf = ['listen: "%s:%d"' % (address, client), 'server_name: "%s"' % server.name, 'http: "%s:%d"' % (LOOPBACK, http),
                'jetstream { store_dir: "%s", max_file_store: 2GB, max_memory_store: 1MB }' % server.store]
        if len(addresses) > 1:
            conf.append('cluster { name: "tarn", listen: "%s:%d", routes: [%s] }' % (address, route, routes))
        with open(server.home + "/conf", "w", encoding="utf-8") as f:
            f.write("\n".join(conf + list(lines)) + "\n")
        with open(server.home + "/http", "w", encoding="ascii") as f:
            f.write("%s:%d" % (LOOPBACK, http))
        urls.append("%s:%d" % (address, client))
    with open(directory + "/urls", "w", encoding="ascii") as f:
        json.dump(urls, f)


def urls(directory, scheme="nats"):
    with open(directory + "/urls", encoding="ascii") as f:
        return ["%s://%s" % (scheme, url) for url in json.load(f)]


def leader(directory, stream):
    count = len(urls(directory))
    for number in range(1, count + 1):
        name = Server(directory, number).leader(stream)
        if name:
            return int(name[1:])
    return None


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    verb, directory, rest = sys.argv[1], sys.argv[2], sys.argv[3:]
    if verb == "make":
        configure(directory, [LOOPBACK] * int(rest[0]))
    elif verb == "run":
        server = Server(directory, int(rest[0]))
        os.execvp("nats-server", server.arguments())
    elif verb == "urls":
        print(json.dumps(urls(directory)))
    elif verb == "leader":
        number = leader(directory, rest[0])
        if number is None:
            sys.exit(1)
        print(number)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
