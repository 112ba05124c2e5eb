# SPDX-License-Identifier: GPL-2.0
"""Names, modes, sizes and marks that the workers choose from.

The marks make a state of the lower directory say what was done to it last, so that the judge knows what must have
reached the replica without a log of all operations: see compare.py.
"""
import os
import stat

PLAIN = [bytes([c]) for c in b"abcdefgh"] + [b"file", b"abc", b"abcdef", b"dir", b"tmp.1", b"new"]
ODD = [b"a (deleted)", b"file (deleted)", b" (deleted)", b"x (deleted) (deleted)", b"two\nlines", b"\n", b"-rf",
       b"--help", b" ", b"\t", b"a b", b"\\", b"\\x41", b'"q"', b"\xff\xfe", b"caf\xe9", "\u00e9\u4e16".encode(),
       b"\xc2\x85", b"\x01", b"*", b"~", b"...", b".hidden", b"$(id)", b"a:b, (c) page 3", b"%s%n", b"\xed\xa0\x80"]
LONG = [b"L" * 255, b"M" * 254, b"N" * 244 + b" (deleted)X", b"O" * 245 + b" (deleted)", b"\xff" * 255, b"P" * 200]

# Of a file or a symbolic link: the last change of its modification time was asked for by a program while others worked.
RUN_US = 271828
# It was asked for while nothing else went on. The seconds tell one such sweep from another.
SWEEP_US = 314159
# Of a symbolic link: its owner was set behind its creation, which does not tell the owner.
OWNED_LINK_GID = 7777
# Special files are made without a right to execute. One that has it had its mode changed.
CHANGED_SPECIAL = stat.S_IXUSR

SOURCE, EXCLUDED, OUTSIDE, NESTED = b"source", b"source/excluded", b"outside", b"private"
PARENTS = [b"p%d" % n for n in range(6)]
NESTS = [b"nest-a", b"nest-b", b"nest-c"]

MODES = [0o666, 0o644, 0o600, 0o777, 0o755, 0o700, 0o666, 0o640, 0o444, 0, 0o4777, 0o2755, 0o1777]
DIRECTORY_MODES = [0o777, 0o777, 0o777, 0o1777, 0o755, 0o2777, 0o700, 0o555]
SET_ID_MODES = [0o4777, 0o6777, 0o2777, 0o4755, 0o2766, 0o4666, 0o6711]


def size(rng):
    return rng.choice([0, 1, 17, 100, 511, 512, 3000, 4028, 4036, 4096, 4097, 5000, 8192, 12345, 40000])


def run_time(rng, before_1970):
    seconds = rng.randrange(1, 2_000_000_000)
    if before_1970 and rng.random() < 0.5:
        seconds = -rng.choice([1, 2, 3600, 86400, 123456789, 2_000_000_000])
    return (seconds * 1_000_000 + RUN_US) * 1000


def sweep_time(number):
    return ((1_000_000_000 + number) * 1_000_000 + SWEEP_US) * 1000


def printable(path):
    """As the messages of the programs show a path."""
    text, plain = [], bool(path)
    for c in path.decode("utf-8", "surrogateescape"):
        code = ord(c)
        if 0xdc80 <= code <= 0xdcff:
            text.append("\\x%02x" % (code - 0xdc00))
            plain = False
        elif c in "\n\t\"\\":
            text.append({"\n": "\\n", "\t": "\\t", '"': '\\"', "\\": "\\\\"}[c])
            plain = False
        elif code < 0x20 or 0x7f <= code < 0xa0:
            text.extend("\\x%02x" % byte for byte in c.encode())
            plain = False
        else:
            text.append(c)
            plain = plain and c != " "
    joined = "".join(text)
    return joined if plain else '"%s"' % joined


def shown(path, limit=160):
    """For the report: a path of 4096 bytes would bury everything else."""
    text = printable(path)
    if len(text) <= limit:
        return text
    return "%s...[%d bytes]...%s" % (text[:limit // 2], len(path), text[-limit // 2:])


def join(directory, name):
    return directory + b"/" + name if directory else name


def below(path, directory):
    return path == directory or path.startswith(directory + b"/")


def type_name(mode):
    for test, name in ((stat.S_ISREG, "file"), (stat.S_ISDIR, "directory"), (stat.S_ISLNK, "symbolic link"),
                       (stat.S_ISFIFO, "FIFO"), (stat.S_ISSOCK, "socket"), (stat.S_ISCHR, "character device"),
                       (stat.S_ISBLK, "block device")):
        if test(mode):
            return name
    return "object of type %o" % stat.S_IFMT(mode)


def is_special(mode):
    return stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode) or stat.S_ISCHR(mode) or stat.S_ISBLK(mode)


DEVICES = [(stat.S_IFCHR, os.makedev(1, 3)), (stat.S_IFCHR, os.makedev(1, 5)), (stat.S_IFBLK, os.makedev(240, 77))]
