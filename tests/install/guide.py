#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Types what a document tells to type, and compares what is printed with what the document says.

    guide.py DOCUMENT COMMAND...     COMMAND is a shell that reads from its standard input

In blocks of ```console a line that begins with "# " is a command, and one with "far# " is typed in another shell; lines behind
it that begin with "> " belong to it. Those up to the next command are what it prints, on both outputs. "..." stands for any text within a line, and on a line of its own for any number of lines. Blanks are alike,
however many. A command exits with 0 unless "(exit status N)" is the last line. What only looks, or waits, is tried again
for a while when it says something else: a document says "then you see", not "at once".
"""
import os
import re
import subprocess
import sys
import time

PATIENCE = 60
PROMPT = re.compile(r"(\w*)# (.*)")
LOOKS = re.compile(r"mirrord (status|targets|wait)( --config \S+)?$|ls ")


def commands(path):
    """Yields (line number, host, command, expected lines, expected exit status)."""
    current, inside = None, False
    with open(path) as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            if line.startswith("```"):
                inside = line == "```console"
            elif inside and PROMPT.fullmatch(line):
                if current:
                    yield current
                current = (number, *PROMPT.fullmatch(line).groups(), [], 0)
            elif inside:
                if not current:
                    sys.exit("%s:%d: what is printed before the first command?" % (path, number))
                status = re.fullmatch(r"\(exit status (\d+)\)", line)
                if status:
                    current = current[:4] + (int(status[1]),)
                elif line.startswith("> ") and not current[3]:
                    current = current[:2] + (current[2] + "\n" + line[2:],) + current[3:]
                else:
                    current[3].append(line)
    if current:
        yield current


def pattern(lines):
    parts = []
    for line in lines:
        if line == "...":
            parts.append(r"(?:.*\n)*?")
        else:
            words = " ".join(line.split())
            parts.append(".*".join(re.escape(part) for part in words.split("...")) + r"\n")
    return re.compile("".join(parts))


class Shell:
    END = "end-of-output-%d" % os.getpid()

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def run(self, command):
        """Returns what it printed, and its exit status."""
        text = "{ %s\n} </dev/null 2>&1; printf '\\n%s %%d\\n' $?\n" % (command, self.END)
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()
        printed = []
        for line in self.process.stdout:
            line = line.decode(errors="replace")
            if line.startswith(self.END):
                if printed and printed[-1] == "\n":
                    printed.pop()
                return "".join(printed), int(line.split()[1])
            printed.append(line)
        sys.exit("the shell ended at: %s\n%s" % (command, "".join(printed)))


def right(printed, status, lines, expected_status):
    plain = "".join(" ".join(line.split()) + "\n" for line in printed.splitlines())
    return status == expected_status and pattern(lines).fullmatch(plain)


def main():
    path, *shell = sys.argv[1:]
    shells = {host: Shell(shell) for host in ("", "far")}
    count = 0
    for number, host, command, lines, expected_status in commands(path):
        print("%d: %s" % (number, command), flush=True)
        deadline = time.monotonic() + PATIENCE
        while True:
            printed, status = shells[host].run(command)
            if right(printed, status, lines, expected_status):
                break
            if not LOOKS.match(command) or time.monotonic() > deadline:
                sys.exit("%s:%d: %s\nprinted, with exit status %d:\n%s\nexpected, with exit status %d:\n%s"
                         % (path, number, command, status, printed, expected_status, "\n".join(lines)))
            time.sleep(0.2)
        count += 1
    if count == 0:
        sys.exit("%s has no command" % path)
    print("%s: %d commands did what it says" % (path, count))


main()
