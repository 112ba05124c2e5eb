#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""image_lines.py FILE: makes FILE of lines "image KIND OFFSET BYTES" and a last one "image KIND SIZE"."""
import sys


def main(path):
    with open(path, "wb") as file:
        for line in sys.stdin:
            _, _, offset, *data = line.split()
            file.seek(int(offset))
            if data:
                file.write(bytes.fromhex(data[0]))
            else:
                file.truncate(int(offset))


if __name__ == "__main__":
    main(sys.argv[1])
