#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""device_node.py NAME MAJOR MINOR ...: a cpio archive (newc) of character and block devices, to follow another archive.

Only root can make such nodes in a directory; in an archive anybody can. Loop devices are block devices.
"""
import stat
import sys


def entry(name, mode, major, minor):
    encoded = name.encode() + b"\0"
    fields = [0, mode, 0, 0, 1, 0, 0, 0, 0, major, minor, len(encoded), 0]
    header = b"070701" + b"".join(b"%08X" % field for field in fields)
    return padded(header + encoded)


def padded(data):
    return data + b"\0" * (-len(data) % 4)


def main(words):
    for name, major, minor in zip(words[::3], words[1::3], words[2::3]):
        kind = stat.S_IFBLK if "loop" in name else stat.S_IFCHR
        sys.stdout.buffer.write(entry(name, kind | 0o600, int(major), int(minor)))
    sys.stdout.buffer.write(entry("TRAILER!!!", 0, 0, 0))


if __name__ == "__main__":
    main(sys.argv[1:])
