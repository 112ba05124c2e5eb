#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""cut_end.py FILE: cuts the zero bytes at the end of a file off, down to a whole 4096 bytes."""
import os
import sys

BLOCK = 4096


def main(path):
    with open(path, "r+b") as file:
        size = os.path.getsize(path) // BLOCK * BLOCK
        while size:
            file.seek(size - BLOCK)
            if any(file.read(BLOCK)):
                break
            size -= BLOCK
        file.truncate(size)


if __name__ == "__main__":
    main(sys.argv[1])
