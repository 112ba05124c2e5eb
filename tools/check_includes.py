#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Checks that includes follow the arrows between folders and that kernel headers have one door only."""
import pathlib
import re
import subprocess
import sys

# Folder -> folders of this tree whose headers it may include, besides its own. A room inside a folder may have a line of
# its own; then it is a folder as any other.
ALLOWED = {
    "module": set(),
    "kmod": {"module"},
    "ukern": set(),
    "base": set(),
    "tarnd": {"base", "ukern/door", "module/os_public", "tarnd/process", "tarnd/fuse", "tarnd/channel"},
    "tarnd/process": {"base", "ukern/door", "module/os_public"},
    "tarnd/fuse": {"base", "ukern/door", "module/os_public", "tarnd/process"},
    "tarnd/channel": {"base", "ukern/door", "module/os_public", "tarnd/process", "tarnd/fuse"},
    "client": {"base", "module/os_public"},
    "tarn": {"base", "client", "module/os_public"},
    "mirrord": {"base", "client", "module/os_public"},
    "packaging": {"base", "client", "tarn", "module/os_public"},
    "tests": {"*"},
    "fuzz": {"*"},
    "bench": {"*"},
}
# Parts of a folder that more may include than the rest of it.
PARTS = ("module/os_public", "ukern/door", "ukern/testing")
# The kernel does not know who calls it: what it includes of the door is plain data.
ABOVE_THE_KERNEL = ("ukern/door", "ukern/testing")
PLAIN_DATA = ("uk_types.h", "module_table.h")
KERNEL_DOOR = "module/kernel.h"
KERNEL_HEADER = re.compile(r"^(linux|asm|asm-generic|net)/")
INCLUDE = re.compile(r'^\s*#\s*include\s+([<"])([^>"]+)[>"]')


def room(rel):
    """The folder, or the room in it, that a file of this tree belongs to."""
    inner = "/".join(rel.parts[:2])
    return inner if inner in ALLOWED else rel.parts[0]


def home(root, source, bracket, name):
    """The folder of this tree that an include names, or None for a header from elsewhere."""
    if bracket == "<":
        places = [root / name]  # <link.h> is libc's, whatever one of our own folders holds
    else:
        places = [source.parent / name, root / name]
        places += [root / p / name for p in
                   ("module", "module/include", "module/os_public/Include", "client")]
    for place in places:
        if place.is_file():
            rel = place.resolve().relative_to(root)
            return next((p for p in PARTS if str(rel).startswith(p + "/")), room(rel))
    return None


def check(root, source):
    rel = source.relative_to(root)
    top = room(rel)
    if top not in ALLOWED:
        return
    for number, line in enumerate(source.read_text(errors="replace").splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        bracket, name = match.groups()
        if top == "module" and KERNEL_HEADER.match(name) and str(rel) != KERNEL_DOOR:
            yield "%s:%d: <%s> goes round %s" % (rel, number, name, KERNEL_DOOR)
            continue
        if top == "ukern" and rel.parts[1] == "host" and KERNEL_HEADER.match(name):
            continue
        target = home(root, source, bracket, name)
        if target in ABOVE_THE_KERNEL and top == "ukern" and name.split("/")[-1] not in PLAIN_DATA:
            if not str(rel).startswith(tuple(p + "/" for p in ABOVE_THE_KERNEL)):
                yield "%s:%d: %s is above the kernel" % (rel, number, name)
        if target is None or top in (target, target.split("/")[0]):
            continue
        if not ALLOWED[top] & {target, "*"}:
            yield "%s:%d: %s/ may not include %s (%s/)" % (rel, number, top, name, target)


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.cc", "*.h", "*.c"],
                           cwd=root, check=True, capture_output=True, text=True).stdout.split()
    errors = [e for n in names for e in check(root, root / n)]
    print("\n".join(errors) if errors else "includes: %d files follow the arrows" % len(names))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
