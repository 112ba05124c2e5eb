# SPDX-License-Identifier: GPL-2.0
"""Hosts on one machine: network namespaces around a bridge, each with one line that can be cut or made slow; and the certificates
that they show each other."""
import subprocess

from service.programs import run

SUBJECT = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
SLOW = ["rate", "4mbit", "burst", "32kb", "latency", "500ms"]


class Hosts:
    def __init__(self, settings):
        self.settings, self.made = settings, []

    def name(self, host):
        return "%s-%s" % (self.settings.hub, host)

    def make(self):
        hub = self.name("hub")
        self.add(hub)
        run("ip", "-n", hub, "link", "add", "bridge", "type", "bridge")
        run("ip", "-n", hub, "link", "set", "bridge", "up")
        for host in self.settings.host_names:
            own = self.name(host)
            self.add(own)
            run("ip", "-n", hub, "link", "add", "to-" + host, "type", "veth", "peer", "name", "line", "netns", own)
            run("ip", "-n", hub, "link", "set", "to-" + host, "master", "bridge", "up")
            run("ip", "-n", own, "addr", "add", self.settings.address(host) + "/24", "dev", "line")
            for device in ("lo", "line"):
                run("ip", "-n", own, "link", "set", device, "up")

    def add(self, name):
        run("ip", "netns", "add", name)
        self.made.append(name)

    def on(self, host):
        """What comes in front of a command that runs there. It sees the machine's own mounts."""
        return ["nsenter", "--net=/run/netns/" + self.name(host), "--"]

    def cut(self, host, off=True):
        run("ip", "-n", self.name("hub"), "link", "set", "to-" + host, "down" if off else "up")

    def slow(self, host, on=True):
        """In both directions."""
        for name, device in ((self.name("hub"), "to-" + host), (self.name(host), "line")):
            if on:
                run("tc", "-n", name, "qdisc", "replace", "dev", device, "root", "tbf", *SLOW)
            else:
                run("tc", "-n", name, "qdisc", "del", "dev", device, "root", check=False)

    def remove(self):
        for name in reversed(self.made):
            subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL, check=False)
        self.made = []


def make_keys(directory, names, hosts):
    """An authority in `directory`, which has signed a certificate for each name that holds for all hosts."""
    run("openssl", "req", "-x509", *SUBJECT, "-days", "2", "-subj", "/CN=ca", "-keyout", directory + "/ca.key",
        "-out", directory + "/ca.pem")
    with open(directory + "/names", "w", encoding="ascii") as f:
        f.write("subjectAltName=%s\n" % ",".join("IP:" + host for host in hosts))
    for name in names:
        base = "%s/%s" % (directory, name)
        run("openssl", "req", *SUBJECT, "-subj", "/CN=" + name, "-keyout", base + ".key", "-out", base + ".csr")
        run("openssl", "x509", "-req", "-in", base + ".csr", "-CA", directory + "/ca.pem", "-CAkey", directory + "/ca.key",
            "-CAcreateserial", "-days", "2", "-extfile", directory + "/names", "-out", base + ".pem")
