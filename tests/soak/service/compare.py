# SPDX-License-Identifier: GPL-2.0
"""Compares the source with a target: names, types, data, modes, owners, times to the nanosecond, groups of links.

Not the owners of symbolic links and not extended attributes: a change of these alone is in no record.
"""
import os
import stat

from promise import compare, names


def of_one(path, x, y, roots):
    a, b = x.info, y.info
    if stat.S_IFMT(a.st_mode) != stat.S_IFMT(b.st_mode):
        yield "%s; in the target %s" % (compare.describe(a), compare.describe(b))
        return
    link = stat.S_ISLNK(a.st_mode)
    if a.st_mode != b.st_mode:
        yield "mode %04o; in the target %04o" % (stat.S_IMODE(a.st_mode), stat.S_IMODE(b.st_mode))
    if not link and (a.st_uid, a.st_gid) != (b.st_uid, b.st_gid):
        yield "owner %d:%d; in the target %d:%d" % (a.st_uid, a.st_gid, b.st_uid, b.st_gid)
    if link and x.detail != y.detail:
        yield "leads to %r; in the target to %r" % (x.detail, y.detail)
    if stat.S_ISREG(a.st_mode) and (a.st_size != b.st_size or x.detail != y.detail):
        yield "size %d; in the target %d; %s" % (a.st_size, b.st_size, compare.first_difference(roots, path))
    if a.st_mtime_ns != b.st_mtime_ns:
        yield "modified at %d ns; in the target %d ns" % (a.st_mtime_ns, b.st_mtime_ns)


def differences(source, target):
    """A text for each."""
    roots = os.fsencode(source), os.fsencode(target)
    mine, theirs = compare.scan(roots[0]), compare.scan(roots[1])
    found = []

    def note(path, text):
        found.append("%s: %s" % (names.shown(path), text))

    for path in sorted(mine.keys() - theirs.keys()):
        note(path, "not in the target: " + compare.describe(mine[path].info))
    for path in sorted(theirs.keys() - mine.keys()):
        note(path, "only in the target: " + compare.describe(theirs[path].info))
    common = mine.keys() & theirs.keys()
    groups, target_groups = compare.link_groups(mine, common), compare.link_groups(theirs, common)
    for path in sorted(common):
        for text in of_one(path, mine[path], theirs[path], roots):
            note(path, text)
        both = groups.get(path), target_groups.get(path)
        if both[0] != both[1]:
            shown = [", ".join(names.shown(name, 60) for name in sorted(group or ())) for group in both]
            note(path, "one file with: %s; in the target with: %s" % tuple(shown))
    return found, len(mine)
