#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""A stand-in for the service manager: starts a service again whenever it ends, and keeps descriptors for it meanwhile.

usage: service_manager.py DIRECTORY SECONDS COMMAND...

SECONDS is how long it waits before it starts the service again. DIRECTORY/pid has the service's process id, and
DIRECTORY/code the exit code that it ended with last, and DIRECTORY/ready the number of starts that it has reported
ready. With DIRECTORY/no-store it closes what it is
given to keep. SIGTERM ends it: the service is stopped, and then all that it keeps is closed.
"""
import fcntl
import os
import select
import signal
import socket
import sys
import time

FIRST = 3  # the first descriptor that is passed on


class Manager:
    def __init__(self, directory, pause, command):
        self.directory, self.pause, self.command = directory, pause, command
        self.kept = []  # (name, descriptor)
        self.ready = 0
        self.stopping = False
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        self.path = os.path.join(directory, "notify")
        self.notify.bind(self.path)
        signal.signal(signal.SIGTERM, self.stop)

    def stop(self, *_):
        self.stopping = True

    def write(self, name, value):
        path = os.path.join(self.directory, name)
        with open(path + ".new", "w") as file:
            file.write(f"{value}\n")
        os.rename(path + ".new", path)

    def start(self):
        pid = os.fork()
        if pid == 0:
            # Out of the way first: a number that is to be taken may be one of them.
            high = [fcntl.fcntl(fd, fcntl.F_DUPFD, 512) for _, fd in self.kept]
            for number, fd in enumerate(high):
                os.dup2(fd, FIRST + number, inheritable=True)
            os.closerange(FIRST + len(self.kept), 1024)
            environment = dict(os.environ, NOTIFY_SOCKET=self.path)
            if high:
                names = ":".join(name for name, _ in self.kept)
                environment.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS=str(len(high)), LISTEN_FDNAMES=names)
            signal.signal(signal.SIGTERM, signal.SIG_DFL)
            os.execvpe(self.command[0], self.command, environment)
        self.write("pid", pid)
        return pid

    def take_message(self):
        message, fds, _, _ = socket.recv_fds(self.notify, 65536, 64)
        fields = dict(line.split("=", 1) for line in message.decode().splitlines() if "=" in line)
        name = fields.get("FDNAME", "stored")
        if "FDSTORE" in fields and not os.path.exists(os.path.join(self.directory, "no-store")):
            self.kept += [(name, fd) for fd in fds]
            fds = []
        if "FDSTOREREMOVE" in fields:
            fds += [fd for kept, fd in self.kept if kept == name]
            self.kept = [(kept, fd) for kept, fd in self.kept if kept != name]
        if fields.get("READY") == "1":
            self.ready += 1
            self.write("ready", self.ready)
        for fd in fds:  # also those of a barrier, which waits for this
            os.close(fd)

    def follow(self, pid):
        """Until it has ended."""
        told = False
        while True:
            ended, status = os.waitpid(pid, os.WNOHANG)
            if ended:
                break
            if self.stopping and not told:
                os.kill(pid, signal.SIGTERM)
                told = True
            if select.select([self.notify], [], [], 0.01)[0]:
                self.take_message()
        self.write("code", os.waitstatus_to_exitcode(status))
        while select.select([self.notify], [], [], 0)[0]:
            self.take_message()

    def run(self):
        while not self.stopping:
            self.follow(self.start())
            if not self.stopping:
                time.sleep(self.pause)
        for _, fd in self.kept:
            os.close(fd)


Manager(sys.argv[1], float(sys.argv[2]), sys.argv[3:]).run()
