#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Compares what a case said on a plain directory with what it said on a mount.

Where the two differ, the difference must be in the list; what the list has for this case must be there. The list
is text: blocks with an empty line between them, each line a keyword and what it says.

    case NAME            the case
    kind tmpfs|ext4|...  only over this lower file system (else over each)
    runs-in process|kernel  only with the module in tarnd, or in a kernel (else in both)
    plain LINE           what the case says on a plain directory; repeated for each line of the difference
    mount LINE           what it says on the mount
    because TEXT         why that is so; repeated for each line of text
"""

import argparse
import difflib
import sys


class Difference:
    def __init__(self):
        self.fields = {"case": [], "kind": [], "runs-in": [], "plain": [], "mount": [], "because": []}

    def add(self, line, place):
        keyword, _, text = line.partition(" ")
        if keyword not in self.fields:
            sys.exit(f"{place}: '{keyword}' is none of {', '.join(self.fields)}")
        self.fields[keyword].append(text)

    def check(self, place):
        if len(self.fields["case"]) != 1 or not self.fields["because"]:
            sys.exit(f"{place}: a difference needs one 'case' and a 'because'")
        if not self.fields["plain"] and not self.fields["mount"]:
            sys.exit(f"{place}: a difference needs lines that differ")

    def concerns(self, case, kind, runs_in):
        return (
            self.fields["case"] == [case]
            and (not self.fields["kind"] or kind in self.fields["kind"])
            and (not self.fields["runs-in"] or runs_in in self.fields["runs-in"])
        )

    def lines(self):
        return self.fields["plain"], self.fields["mount"]


def read_differences(path):
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
                current = Difference()
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

    listed = [d for d in read_differences(args.differences) if d.concerns(args.case, args.kind, args.runs_in)]
    plain = read_transcript(args.plain)
    if len(plain) < 2:
        sys.exit(f"{args.case}: it says nothing")
    bad = 0
    for hunk in hunks(plain, read_transcript(args.mount)):
        known = next((d for d in listed if d.lines() == hunk), None)
        if known:
            listed.remove(known)
            continue
        bad += 1
        print(f"{args.case} over {args.kind}: a difference")
        show(*hunk)
    for difference in listed:
        bad += 1
        print(f"{args.case} over {args.kind}: a listed difference that is not there")
        show(*difference.lines())
    print(f"{args.case} over {args.kind}: {len(plain)} lines, {bad} unexpected")
    sys.exit(1 if bad else 0)


if __name__ == "__main__":
    main()
