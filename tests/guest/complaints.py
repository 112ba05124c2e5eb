#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""complaints.py LOG: prints what a kernel's log complains about, and is false when there is any.

Whatever the 2.6.18 kernel says when it is used wrongly: an oops, BUG, a sleeping function in the wrong place, its lock
and slab checks, objects and inodes that were left behind.
"""
import re
import sys

COMPLAINT = re.compile(
    r"Oops|\bBUG\b|sleeping function called|scheduling while atomic|Badness|WARNING|Kernel panic|Unable to handle kernel"
    r"|general protection fault|double fault|Bad page state|bad: |INFO: |possible .* deadlock|bad unlock balance"
    r"|inconsistent .*lock state|lock held when|spinlock .* on CPU|spinlock bad|rwlock bad|slab error|[Ss]lab corruption"
    r"|Redzone|double free|Can't free all objects|Busy inodes|still mounted|VFS: .*[Bb]usy|soft lockup|stack overflow"
    r"|Out of Memory|Out of memory|page allocation failure|Call Trace|tainted: |version magic|Unknown symbol"
    r"|Unknown rela|Dead loop|[Kk]ernel BUG|lockdep|unregister_netdevice|Attempt to release|refcount"
    r"|turning off|EXT[23]-fs (warning|error)|kernel tainted|disagrees about version"
)
# What a kernel says at each start and means no harm by.
HARMLESS = re.compile(
    r"MCE: warning|warning: many lost ticks|NR_CPUS limit|Lock dependency validator|\.\.\. MAX_LOCK"
    r"|memory used by lock dependency|lockdep: not fixing up alternatives"
)


def complaints(lines):
    return [(number, line) for number, line in enumerate(lines, 1)
            if COMPLAINT.search(line) and not HARMLESS.search(line) and "@guest " not in line]


def main(path):
    with open(path, encoding="utf-8", errors="replace") as log:
        lines = [line.rstrip() for line in log]
    found = complaints(lines)
    for number, _ in found[:20]:
        print("\n".join(f"kernel log {at + 1}: {lines[at]}" for at in range(number - 1, min(number + 2, len(lines)))))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
