# SPDX-License-Identifier: GPL-2.0
"""What mirrord and the module have said of losses: which differences they declare.

mirrord heals what it has missed, so a gap explains no difference. One is declared when
- a message of mirrord names the object, by any name that it had in this round, or names a directory above it in a
  record that makes, moves or removes that directory; or
- a line of the module's log names it: the record of a path that is too long to be sent.
"""
import os
import re
import subprocess
import time

from . import names

ABOUT_ATTRIBUTES = re.compile(rb"\((setattr|write) ")
LONG_PATH = 3900  # shorter ones have records
BOUNDARY = b" ):,;\"'\n"


class Messages:
    """mirrord's messages as they come, each with its time."""

    def __init__(self, path):
        self.path, self.offset, self.lines, self.rest = path, 0, [], b""

    def poll(self):
        now = time.monotonic()
        with open(self.path, "rb") as f:
            f.seek(self.offset)
            data = f.read()
        self.offset += len(data)
        *whole, self.rest = (self.rest + data).split(b"\n")
        self.lines += [(now, line) for line in whole]

    def since(self, count):
        return self.lines[count:]


class Log:
    """The lines of the module's log that name something below `lower`. It keeps only the last ones: it must be read
    more often than it is filled."""

    def __init__(self, lower):
        self.lower, self.seen, self.lines = lower, set(), []

    def poll(self):
        out = subprocess.run(["tarn", "log"], capture_output=True, check=True).stdout
        lines = [line for line in out.split(b"\n") if self.lower + b"/" in line]
        self.lines += [line for line in lines if line not in self.seen]
        self.seen = set(lines)


def names_path(line, text):
    """Does the line show this path, and not a longer one? Shown without quotes, a path has no space in it."""
    quoted = text.startswith(b'"')
    at = line.find(text)
    while at >= 0:
        end = at + len(text)
        if quoted or (line[at - 1:at] != b'"' and (end == len(line) or line[end:end + 1] in BOUNDARY)):
            return True
        at = line.find(text, at + 1)
    return False


class Declared:
    """The messages of one round."""

    def __init__(self, lower, replica, lines, log):
        self.lower, self.replica = lower, replica
        self.lines = lines
        self.text = b"\n".join(line for _, line in lines) + b"\n"
        self.log = [line[line.find(lower + b"/"):].rstrip(b"'\". ") for line in log]

    def by_log(self, path):
        whole = self.lower + b"/" + path
        if len(whole) < LONG_PATH:
            return False
        return any(len(os.path.commonprefix([line, whole])) >= min(len(whole), len(line) - 8, 900) for line in self.log)

    def by_message(self, path):
        """The message that names the path itself or moves, makes or removes a directory above it."""
        above = [path[:i] for i, c in enumerate(path) if c == 0x2f]
        for candidate in [path] + above:
            for root in (self.lower, self.replica):
                text = names.printable(root + b"/" + candidate).encode("utf-8")
                if text not in self.text:
                    continue
                for _, line in self.lines:
                    if names_path(line, text) and (candidate == path or not ABOUT_ATTRIBUTES.search(line)):
                        return line
        return None

    def why(self, paths):
        """What declares a difference of an object that went by these paths in the source; None if nothing does."""
        for path in paths:
            line = self.by_message(path)
            if line is not None:
                return line.decode("utf-8", "replace")
            if self.by_log(path):
                return "a line of the module's log"
        return None
