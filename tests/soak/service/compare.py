# SPDX-License-Identifier: GPL-2.0
"""Compares the source with a target: names, types, data, modes, owners, times to the nanosecond, groups of links,
extended attributes, access lists, device numbers. The kinds of differences are those of `mirrord verify`.

`by_records` says which of them no record tells: those may be there until somebody has them mended.
"""
import os
import stat

from promise import compare, names

KERNEL_ATTRIBUTES = ("security.selinux", "security.ima", "security.evm")
NAMELESS = {"missing", "extra"}  # nothing is said of what is below


class Difference:
    def __init__(self, path, kind, text, recorded):
        self.path, self.kind, self.text, self.recorded = path, kind, text, recorded

    def __str__(self):
        return "%s: %s: %s" % (names.shown(self.path), self.kind, self.text)


def attributes(root, path):
    """Longer paths than a call takes have none here: the workers set none there."""
    whole = os.path.join(root, path)
    if len(whole) >= 4096:
        return {}
    return {name: os.getxattr(whole, name, follow_symlinks=False)
            for name in os.listxattr(whole, follow_symlinks=False) if name not in KERNEL_ATTRIBUTES}


def shown_attributes(found):
    return ", ".join("%s (%d bytes)" % (name, len(value)) for name, value in sorted(found.items())) or "none"


class Comparison:
    def __init__(self, source, target, outside):
        self.roots = os.fsencode(source), os.fsencode(target)
        self.mine, self.theirs = (compare.scan(root, outside) for root in self.roots)
        self.found = []
        # Making a special file is in no record, so neither is what it does to its directory.
        self.with_special = {os.path.dirname(path) for path, entry in self.mine.items()
                             if names.is_special(entry.info.st_mode)}

    def note(self, path, kind, text, recorded=True):
        self.found.append(Difference(path, kind, text, recorded))

    def run(self):
        for path in sorted(self.mine.keys() - self.theirs.keys()):
            info = self.mine[path].info
            if os.path.dirname(path) in self.theirs or b"/" not in path:
                self.note(path, "missing", compare.describe(info), not compare.may_be_missing(info))
        for path in sorted(self.theirs.keys() - self.mine.keys()):
            if os.path.dirname(path) in self.mine or b"/" not in path:
                self.note(path, "extra", compare.describe(self.theirs[path].info))
        common = self.mine.keys() & self.theirs.keys()
        for path in sorted(common):
            self.one(path, self.mine[path], self.theirs[path])
        self.root()
        groups, target_groups = (compare.link_groups(tree, common) for tree in (self.mine, self.theirs))
        for path in sorted(common):
            both = groups.get(path), target_groups.get(path)
            if both[0] != both[1]:
                shown = [", ".join(names.shown(name, 60) for name in sorted(group or ())) for group in both]
                self.note(path, "link", "one file with: %s; in the target with: %s" % tuple(shown))
        return self.found

    def root(self):
        """A replica's own directory may be closed to others."""
        a, b = (os.stat(root) for root in self.roots)
        if a.st_mode != b.st_mode and stat.S_IMODE(b.st_mode) != 0o700:
            self.note(b"", "mode", "mode %04o; in the target %04o" % (stat.S_IMODE(a.st_mode), stat.S_IMODE(b.st_mode)))
        self.owner_and_time(b"", a, b)

    def owner_and_time(self, path, a, b):
        if (a.st_uid, a.st_gid) != (b.st_uid, b.st_gid):
            self.note(path, "owner", "owner %d:%d; in the target %d:%d" % (a.st_uid, a.st_gid, b.st_uid, b.st_gid),
                      not stat.S_ISLNK(a.st_mode) or a.st_gid == names.OWNED_LINK_GID)
        if a.st_mtime_ns != b.st_mtime_ns:
            self.note(path, "mtime", "modified at %d ns; in the target %d ns" % (a.st_mtime_ns, b.st_mtime_ns),
                      path not in self.with_special)

    def one(self, path, x, y):
        a, b = x.info, y.info
        if stat.S_IFMT(a.st_mode) != stat.S_IFMT(b.st_mode):
            self.note(path, "type", "%s; in the target %s" % (compare.describe(a), compare.describe(b)),
                      not compare.may_be_missing(a))
            return
        link = stat.S_ISLNK(a.st_mode)
        lists = self.compare_attributes(path)
        if a.st_mode != b.st_mode and not link:
            self.note(path, "mode", "mode %04o; in the target %04o" % (stat.S_IMODE(a.st_mode), stat.S_IMODE(b.st_mode)),
                      not lists)
        if link and x.detail != y.detail:
            self.note(path, "symlink", "leads to %r; in the target to %r" % (x.detail, y.detail))
        if stat.S_ISREG(a.st_mode) and a.st_size != b.st_size:
            self.note(path, "size", "size %d; in the target %d" % (a.st_size, b.st_size))
        elif stat.S_ISREG(a.st_mode) and x.detail != y.detail:
            self.note(path, "data", compare.first_difference(self.roots, path))
        if stat.S_ISCHR(a.st_mode) or stat.S_ISBLK(a.st_mode):
            if a.st_rdev != b.st_rdev:
                self.note(path, "device", "device %#x; in the target %#x" % (a.st_rdev, b.st_rdev))
        self.owner_and_time(path, a, b)

    def compare_attributes(self, path):
        """True if an access list, which is a part of the mode, differs."""
        mine, theirs = (attributes(root, path) for root in self.roots)
        if mine == theirs:
            return False
        self.note(path, "xattr", "%s; in the target %s" % (shown_attributes(mine), shown_attributes(theirs)), False)
        return mine.get("system.posix_acl_access") != theirs.get("system.posix_acl_access")


def differences(source, target, excluded):
    """A list of Difference, and how many entries the source has. `excluded`: relative to both."""
    excluded = {os.fsencode(path) for path in excluded}
    comparison = Comparison(source, target, lambda path: path in excluded)
    return comparison.run(), len(comparison.mine)
