#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Compares two directory trees: names, types, content, size, mode, owner, link targets, hard-link groups and
modification times (to the microsecond, which is what a change record carries).

usage: tree_compare.py LEFT RIGHT [--no-mtime-of FILE]

FILE holds relative paths, NUL-terminated, whose modification time no program has set last and which is
therefore not compared. Prints one line for each difference (the first 20 in full) and a summary; exits 1 when
anything differs.
"""
import argparse
import os
import stat
import sys

CHUNK = 1 << 20
SHOWN = 20


def scan(root):
    """Relative path (bytes) -> lstat result, the root itself as b'.'."""
    found = {b".": os.lstat(root)}
    stack = [b""]
    while stack:
        rel = stack.pop()
        with os.scandir(os.path.join(root, rel) if rel else root) as entries:
            for entry in entries:
                path = os.path.join(rel, entry.name) if rel else entry.name
                info = entry.stat(follow_symlinks=False)
                found[path] = info
                if stat.S_ISDIR(info.st_mode):
                    stack.append(path)
    return found


def same_content(left, right):
    with open(left, "rb") as a, open(right, "rb") as b:
        while True:
            x, y = a.read(CHUNK), b.read(CHUNK)
            if x != y:
                return False
            if not x:
                return True


def link_groups(tree):
    """Each hard-linked file's set of names."""
    groups = {}
    for path, info in tree.items():
        if not stat.S_ISDIR(info.st_mode) and info.st_nlink > 1:
            groups.setdefault((info.st_dev, info.st_ino), set()).add(path)
    return {path: frozenset(names) for names in groups.values() for path in names}


def differences(left, right, skip_mtime):
    a, b = scan(left), scan(right)
    for path in sorted(a.keys() - b.keys()):
        yield path, "only on the left"
    for path in sorted(b.keys() - a.keys()):
        yield path, "only on the right"
    groups_a, groups_b = link_groups(a), link_groups(b)
    for path in sorted(a.keys() & b.keys()):
        x, y = a[path], b[path]
        if x.st_mode != y.st_mode:
            yield path, "mode %o, %o" % (x.st_mode, y.st_mode)
        if (x.st_uid, x.st_gid) != (y.st_uid, y.st_gid):
            yield path, "owner %d:%d, %d:%d" % (x.st_uid, x.st_gid, y.st_uid, y.st_gid)
        if stat.S_IFMT(x.st_mode) != stat.S_IFMT(y.st_mode):
            continue
        full_a, full_b = os.path.join(left, path), os.path.join(right, path)
        if stat.S_ISREG(x.st_mode):
            if x.st_size != y.st_size:
                yield path, "size %d, %d" % (x.st_size, y.st_size)
            elif not same_content(full_a, full_b):
                yield path, "content differs"
        elif stat.S_ISLNK(x.st_mode) and os.readlink(full_a) != os.readlink(full_b):
            yield path, "link target %r, %r" % (os.readlink(full_a), os.readlink(full_b))
        elif stat.S_ISBLK(x.st_mode) or stat.S_ISCHR(x.st_mode):
            if x.st_rdev != y.st_rdev:
                yield path, "device %d, %d" % (x.st_rdev, y.st_rdev)
        if groups_a.get(path) != groups_b.get(path):
            yield path, "hard links differ"
        if path not in skip_mtime and x.st_mtime_ns // 1000 != y.st_mtime_ns // 1000:
            yield path, "modified %d us, %d us" % (x.st_mtime_ns // 1000, y.st_mtime_ns // 1000)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("left", type=os.fsencode)
    parser.add_argument("right", type=os.fsencode)
    parser.add_argument("--no-mtime-of", metavar="FILE")
    args = parser.parse_args()
    # The trees' own roots were made by whoever set them up, not through the mount.
    skip_mtime = {b"."}
    if args.no_mtime_of:
        with open(args.no_mtime_of, "rb") as f:
            skip_mtime.update(path for path in f.read().split(b"\0") if path)
    count = 0
    for path, what in differences(args.left, args.right, skip_mtime):
        count += 1
        if count <= SHOWN:
            print("%s: %s" % (os.fsdecode(path), what))
    entries = len(scan(args.left))
    if count:
        print("%d differences in %d entries" % (count, entries))
        return 1
    print("identical: %d entries" % entries)
    return 0


if __name__ == "__main__":
    sys.exit(main())
