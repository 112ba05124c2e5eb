#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Compares what a case said on a plain directory with what it said on a mount.

Where the two differ, the difference must be in the list; what the list has for this case must be there. The list
is text: blocks with an empty line between them, each line a keyword and what it says.

    case NAME            the case
    kind tmpfs|ext4|...  only over this lower file system (else over each)
    runs-in process|kernel  only with the module in tarnd, or in a kernel (else in both)
    when plain LINE      only where the case says this on a plain directory: what the lower file system has depends on how
                         the kernel was configured
    plain LINE           what the case says on a plain directory; repeated for each line of the difference
    mount LINE           what it says on the mount
    times N              the two differ in exactly these lines at N places (else at one)
    also                 what follows is the next difference of the same case, for the same reason
    because TEXT         why that is so; repeated for each line of text
"""

import argparse
import difflib
import sys


class Difference:
    """The lines at one place, or at several."""

    def __init__(self):
        self.lines = {"plain": [], "mount": []}
        self.times = 1

    def places(self):
        return [(self.lines["plain"], self.lines["mount"])] * self.times


class Block:
    """The differences of one case that have one reason."""

    def __init__(self):
        self.fields = {"case": [], "kind": [], "runs-in": [], "when": [], "because": []}
        self.differences = [Difference()]

    def add(self, line, place):
        keyword, _, text = line.partition(" ")
        if keyword in self.fields:
            self.fields[keyword].append(text)
        elif keyword in ("plain", "mount"):
            self.differences[-1].lines[keyword].append(text)
        elif keyword == "times":
            self.differences[-1].times = number_of_places(text, place)
        elif keyword == "also" and not text:
            self.differences.append(Difference())
        else:
            sys.exit(f"{place}: '{line}' begins with none of {', '.join(self.fields)}, plain, mount, times, also")

    def check(self, place):
        if len(self.fields["case"]) != 1 or not self.fields["because"]:
            sys.exit(f"{place}: a difference needs one 'case' and a 'because'")
        if not all(line.startswith("plain ") for line in self.fields["when"]):
            sys.exit(f"{place}: 'when' needs 'plain' and a line")
        if not all(any(d.lines.values()) for d in self.differences):
            sys.exit(f"{place}: a difference needs lines that differ")

    def concerns(self, case, kind, runs_in, plain):
        return (
            self.fields["case"] == [case]
            and all(line.removeprefix("plain ") in plain for line in self.fields["when"])
            and (not self.fields["kind"] or kind in self.fields["kind"])
            and (not self.fields["runs-in"] or runs_in in self.fields["runs-in"])
        )

    def places(self):
        return [place for difference in self.differences for place in difference.places()]


def number_of_places(text, place):
    if not text.isdigit() or int(text) < 2:
        sys.exit(f"{place}: 'times' needs a number, 2 or more")
    return int(text)


def read_blocks(path):
    found = []
    current = None
    with open(path, encoding="utf-8", errors="surrogateescape") as listing:
        for number, line in enumerate(listing, 1):
            line = line.rstrip("\n")
            place = f"{path}:{number}"
            if line.startswith("#"):
                continue
            if not line.strip():
                if current:
                    current.check(place)
                current = None
                continue
            if current is None:
                current = Block()
                found.append(current)
            current.add(line, place)
    if current:
        current.check(f"{path}: end")
    return found


def read_transcript(path):
    with open(path, encoding="utf-8", errors="surrogateescape") as transcript:
        return transcript.read().splitlines()


def hunks(plain, mount):
    matcher = difflib.SequenceMatcher(None, plain, mount, autojunk=False)
    for tag, plain_from, plain_to, mount_from, mount_to in matcher.get_opcodes():
        if tag != "equal":
            yield plain[plain_from:plain_to], mount[mount_from:mount_to]


def show(plain, mount):
    for line in plain:
        print("plain", line)
    for line in mount:
        print("mount", line)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--case", required=True)
    parser.add_argument("--kind", required=True, help="the lower file system")
    parser.add_argument("--runs-in", required=True, choices=["process", "kernel"], help="where the module is")
    parser.add_argument("--differences", required=True, help="the list")
    parser.add_argument("plain", help="transcript of the plain directory")
    parser.add_argument("mount", help="transcript of the mount")
    args = parser.parse_args()
    sys.stdout.reconfigure(errors="surrogateescape")

    plain = read_transcript(args.plain)
    listed = [
        place
        for block in read_blocks(args.differences)
        if block.concerns(args.case, args.kind, args.runs_in, plain)
        for place in block.places()
    ]
    if len(plain) < 2:
        sys.exit(f"{args.case}: it says nothing")
    bad = 0
    for hunk in hunks(plain, read_transcript(args.mount)):
        if hunk in listed:
            listed.remove(hunk)
            continue
        bad += 1
        print(f"{args.case} over {args.kind}: a difference")
        show(*hunk)
    for difference in listed:
        bad += 1
        print(f"{args.case} over {args.kind}: a listed difference that is not there")
        show(*difference)
    print(f"{args.case} over {args.kind}: {len(plain)} lines, {bad} unexpected")
    sys.exit(1 if bad else 0)


if __name__ == "__main__":
    main()
