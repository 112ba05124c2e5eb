#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Runs engine_bench with one server and with a cluster of three, all on the loopback. Their stores are in TMPDIR.

Usage: engine.py BUILD [ENTRIES [ROUNDS]]"""
import pathlib
import socket
import subprocess
import sys
import tempfile
import time


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


def start(directory, count):
    ports = free_ports(2 * count)
    servers = []
    for number in range(count):
        home = directory / ("server%d" % number)
        home.mkdir()
        lines = ['listen: "127.0.0.1:%d"' % ports[number], 'server_name: "s%d"' % number,
                 'jetstream { store_dir: "%s", max_file_store: 20GB, max_memory_store: 1MB }' % home]
        if count > 1:
            routes = ", ".join('"nats://127.0.0.1:%d"' % p for p in ports[count:])
            lines.append('cluster { name: bench, listen: "127.0.0.1:%d", routes: [%s] }' % (ports[count + number], routes))
        (home / "conf").write_text("\n".join(lines) + "\n")
        log = open(home / "log", "wb")
        servers.append(subprocess.Popen(["nats-server", "-c", home / "conf"], stdout=log, stderr=log))
    return servers, "nats://127.0.0.1:%d" % ports[0]


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    program = pathlib.Path(sys.argv[1]) / "bench" / "engine_bench"
    entries, rounds = (sys.argv[2:] + ["100000", "3"][len(sys.argv) - 2:])[:2]
    for count in (1, 3):
        with tempfile.TemporaryDirectory(prefix="tarn-engine-bench-") as directory:
            servers, url = start(pathlib.Path(directory), count)
            try:
                print("%d server%s" % (count, "s" if count > 1 else ""), flush=True)
                # A cluster takes a moment until it has a leader.
                for attempt in range(30):
                    time.sleep(1)
                    if subprocess.run([program, url, str(count), "10", "1"], capture_output=True).returncode == 0:
                        break
                subprocess.run([program, url, str(count), entries, rounds], check=True)
            finally:
                for server in servers:
                    server.kill()
                    server.wait()


if __name__ == "__main__":
    main()
