#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""instructions.py RESULTS [DOCUMENT]: prints the table of the lines "count CALL SIDE N" in RESULTS, and puts it in the
place of the section that DOCUMENT has for it, which ends where the next one begins."""
import re
import sys

HEADING = "## Calls in a 2.6.18 kernel, in instructions"
TEXT = """
Written by the guest step `instructions` (tests/README.md), kept by `make bench`. Executed instructions of one call on an
emulated machine with one processor, those of the calling program included; "x" is the count divided by that of the same
call on the lower ext2. Median of 21 rounds of 32 calls, each round in a new directory. All files are in the page cache. A
write appends to an empty file, or overwrites ("again") pages that were written just before. The daemon takes its records
between the rounds, which is not counted.
"""
CALLS = {"create": "create", "open": "open", "chmod": "chmod", "append_4K": "write, 4 KiB, append",
         "append_64K": "write, 64 KiB, append", "write_4K": "write, 4 KiB, again", "write_64K": "write, 64 KiB, again",
         "read_4K": "read, 4 KiB", "rename": "rename", "unlink": "unlink"}
SIDES = {"no_rule": "tarn, no rule", "no_daemon": "a rule, no daemon", "daemon": "a rule and a daemon"}


def section(results):
    with open(results, encoding="utf-8") as lines:
        counts = {(words[1], words[2]): int(words[3]) for words in map(str.split, lines) if words and words[0] == "count"}
    yield HEADING
    yield TEXT.rstrip()
    yield ""
    yield "| call | ext2 | " + " | ".join(f"{side} | x" for side in SIDES.values()) + " |"
    yield "|---|" + "---:|" * (1 + 2 * len(SIDES))
    for call, text in CALLS.items():
        plain = counts[call, "ext2"]
        cells = (f"{counts[call, side]} | {counts[call, side] / plain:.2f}" for side in SIDES)
        yield f"| {text} | {plain} | " + " | ".join(cells) + " |"


def main(results, document=None):
    text = "\n".join(section(results)) + "\n"
    print(text)
    if not document:
        return
    with open(document, encoding="utf-8") as old:
        parts = re.split(r"^(?=## )", old.read(), flags=re.M)
    places = [at for at, part in enumerate(parts) if part.startswith(HEADING + "\n")]
    if len(places) != 1:
        sys.exit(f"instructions.py: {document} has {len(places)} sections {HEADING[3:]!r}, it needs one")
    parts[places[0]] = text + ("\n" if places[0] + 1 < len(parts) else "")
    with open(document, "w", encoding="utf-8") as new:
        new.write("".join(parts))


if __name__ == "__main__":
    main(*sys.argv[1:])
