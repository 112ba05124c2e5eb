#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Compares two directory trees: names, types, content, size, mode, owner, link targets, hard-link groups and
modification times (to the microsecond, which is what a change record carries).

usage: tree_compare.py LEFT RIGHT [--no-mtime-of FILE] [--without-special] [--without-link-owners]

FILE holds relative paths, NUL-terminated, whose modification time no program has set last and which is
therefore not compared. The other two leave out what the module does not capture: devices, FIFOs and sockets; the
owners of symbolic links. Prints one line for each difference (the first 20 in full) and a summary; exits 1
when anything differs.
"""
import argparse
import os
import stat
import sys

CHUNK = 1 << 20
SHOWN = 20


def is_special(info):
    return not (stat.S_ISREG(info.st_mode) or stat.S_ISDIR(info.st_mode) or stat.S_ISLNK(info.st_mode))


def scan(root, without_special):
    """Relative path (bytes) -> lstat result, the root itself as b'.'."""
    found = {b".": os.lstat(root)}
    stack = [b""]
    while stack:
        rel = stack.pop()
        with os.scandir(os.path.join(root, rel) if rel else root) as entries:
            for entry in entries:
                path = os.path.join(rel, entry.name) if rel else entry.name
                info = entry.stat(follow_symlinks=False)
                if without_special and is_special(info):
                    continue
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


def differences(left, right, a, b, skip_mtime, link_owners):
    for path in sorted(a.keys() - b.keys()):
        yield path, "only on the left"
    for path in sorted(b.keys() - a.keys()):
        yield path, "only on the right"
    groups_a, groups_b = link_groups(a), link_groups(b)
    for path in sorted(a.keys() & b.keys()):
        x, y = a[path], b[path]
        # mirrord lets nobody into a replica where set-user-id files could be run.
        mask = ~0o077 if path == b"." else ~0
        if (x.st_mode ^ y.st_mode) & mask:
            yield path, "mode %o, %o" % (x.st_mode, y.st_mode)
        owned = link_owners or not stat.S_ISLNK(x.st_mode)
        if owned and (x.st_uid, x.st_gid) != (y.st_uid, y.st_gid):
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
    parser.add_argument("--without-special", action="store_true")
    parser.add_argument("--without-link-owners", action="store_true")
    args = parser.parse_args()
    # The trees' own roots were made by whoever set them up, not through the mount.
    skip_mtime = {b"."}
    if args.no_mtime_of:
        with open(args.no_mtime_of, "rb") as f:
            skip_mtime.update(path for path in f.read().split(b"\0") if path)
    left = scan(args.left, args.without_special)
    right = scan(args.right, args.without_special)
    count = 0
    for path, what in differences(args.left, args.right, left, right, skip_mtime, not args.without_link_owners):
        count += 1
        if count <= SHOWN:
            print("%s: %s" % (os.fsdecode(path), what))
    if count:
        print("%d differences in %d entries" % (count, len(left)))
        return 1
    print("identical: %d entries" % len(left))
    return 0


if __name__ == "__main__":
    sys.exit(main())
