#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""image_lines.py FILE: makes FILE of lines "image KIND OFFSET BYTES" and a last one "image KIND SIZE"."""
import re
import sys

LINE = re.compile(r"image \S+ (\d+)(?: ((?:[0-9a-f]{2})+))?\n")


def main(path):
    whole = False
    with open(path, "wb") as file:
        for number, text in enumerate(sys.stdin, 1):
            line = LINE.fullmatch(text)
            if line is None or whole:
                sys.exit("image_lines: line %d is no piece of an image: %.60r" % (number, text))
            if line[2]:
                file.seek(int(line[1]))
                file.write(bytes.fromhex(line[2]))
            else:
                file.truncate(int(line[1]))
                whole = True
    if not whole:
        sys.exit("image_lines: the image has no end")


if __name__ == "__main__":
    main(sys.argv[1])
