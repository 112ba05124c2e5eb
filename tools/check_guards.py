#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Finds locks in ukern that are given back by hand: scopes (ukern/sync/guard.h) do that.

A lock that another function took, or that is free to go to another one, is given back by a bare call, which says so
on its line or on the one above: "hand-over:" and from or to whom. What implements the locks is not looked at.
"""
import pathlib
import re
import sys

UNLOCK = re.compile(r"\b(mutex_unlock|spin_unlock\w*|(read|write)_unlock\w*|up|up_read|up_write|task_unlock"
                    r"|unlock_super|file_list_unlock|ukern_word_unlock)\(")
DEFINITION = re.compile(r"^\w[\w *]*\bup\(struct semaphore \*")
HAND_OVER = re.compile(r"//.*\bhand-over: \w")
COMMENT = re.compile(r"//.*")


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    errors = []
    hand_overs = 0
    for path in sorted((root / "ukern").rglob("*.cc")):
        if path.parent.name == "sync":
            continue
        lines = path.read_text().split("\n")
        for at, line in enumerate(lines):
            if not UNLOCK.search(COMMENT.sub("", line)) or DEFINITION.match(line):
                continue
            if HAND_OVER.search(line) or (at > 0 and re.match(r"\s*//", lines[at - 1]) and HAND_OVER.search(lines[at - 1])):
                hand_overs += 1
            else:
                errors.append("%s:%d: a lock is given back by hand: %s" % (path.relative_to(root), at + 1, line.strip()))
    print("\n".join(errors) if errors else "guards: ok, %d locks handed over" % hand_overs)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
