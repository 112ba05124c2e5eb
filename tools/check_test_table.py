#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""The tests that tests/README.md names exist.

In the last column of its tables a name in backquotes is SUITE.CASE of a test program, possibly behind the program's
name and a slash, or a file or folder of tests/ or fuzz/ without its ending. '*' and '?' stand for any text.
"""
import fnmatch
import glob
import os
import re
import sys

TABLE = "tests/README.md"
CASE = re.compile(r"\b(?:[A-Z_]*CASE[A-Z_]*|TEST|TEST_F|TEST_P|TYPED_TEST)\(\s*(\w+),\s*(\w+)")
GUEST_CASE = re.compile(r'\{"(\w+)",\s*GUEST_')
PROGRAMS = ("replicate", "tarnd_test", "oracle", "mirrord")
PLACEHOLDER = re.compile(r"\b[A-Z]{4,}\b")
# The same cases once for each lower file system.
OVER_LOWER = re.compile(r"over_[a-z_*]+\.")


def all_cases():
    cases = set()
    for path in glob.glob("tests/**/*", recursive=True):
        if not path.endswith((".cc", ".c", ".h")):
            continue
        with open(path) as file:
            text = file.read()
        cases.update(m[1] + "." + m[2] for m in CASE.finditer(text))
        program = os.path.basename(path).rsplit(".", 1)[0]
        cases.update(program + "." + m[1] for m in GUEST_CASE.finditer(text))
    return cases


def is_case(name, cases):
    if OVER_LOWER.match(name + "."):
        return True  # these are checked by their own program, which lists them
    suites = {case.split(".")[0] for case in cases}
    head, _, rest = name.partition("/")
    if rest and head in PROGRAMS:
        name = rest
    # Of parameters: INSTANCE/Suite.Case, Suite/INSTANCE.Case.
    plain = re.sub(r"^[^./]+/(?=[^./]+\.)", "", name)
    typed = re.sub(r"/[^./]+(?=\.)", "", name)
    return any(fnmatch.filter(cases, text) or fnmatch.filter(suites, text) for text in (name, plain, typed))


def is_file(name):
    name = name.removesuffix("/*")
    below_cases = re.sub(r"^(fs)/(?=[^/]+$)", r"\1/cases/", name)
    return any(
        glob.glob(pattern)
        for place in (name, below_cases)
        for pattern in (place, "tests/" + place, "tests/" + place + ".*", "tests/*/" + place, "tests/*/" + place + ".*", place + "_fuzz.cc")
    )


def main():
    cases = all_cases()
    missing = []
    with open(TABLE) as table:
        for number, line in enumerate(table, 1):
            if not line.startswith("|"):
                continue
            column = line.rstrip().rstrip("|").rsplit("|", 1)[-1]
            for name in re.findall(r"`([^`]+)`", column):
                if PLACEHOLDER.search(name) or is_case(name, cases) or is_file(name):
                    continue
                missing.append("%s:%d: there is no test %s" % (TABLE, number, name))
    if missing:
        sys.exit("\n".join(missing))
    print("table of tests: %d cases known, all named ones exist" % len(cases))


if __name__ == "__main__":
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    main()
