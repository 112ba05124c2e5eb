#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Processes that write one file at once, some through shared memory mappings, some with write calls.

usage: mapped_writers.py FILE ROUNDS [PROCESSES]

The file is divided into stripes that are no multiple of a page, so that each page is shared by several writers, of
both kinds. In each round a process writes all its stripes anew, in an order of its own, and now and then asks for
write-back. At the end the file must hold what each process wrote last. Exits 1 with a line about the first stripe
that does not.
"""
import mmap
import os
import random
import sys

STRIPE = 1111
STRIPES = 400


def content(owner, round_number, stripe):
    seed = b"%d/%d/%d " % (owner, round_number, stripe)
    return (seed * (STRIPE // len(seed) + 1))[:STRIPE]


def stripes_of(owner, processes):
    return [stripe for stripe in range(STRIPES) if stripe % processes == owner]


def write_mapped(path, owner, processes, rounds, order):
    fd = os.open(path, os.O_RDWR)
    with mmap.mmap(fd, STRIPE * STRIPES, mmap.MAP_SHARED) as area:
        for number in range(rounds):
            mine = stripes_of(owner, processes)
            order.shuffle(mine)
            for stripe in mine:
                area[stripe * STRIPE:(stripe + 1) * STRIPE] = content(owner, number, stripe)
            if order.random() < 0.5:
                area.flush()
    os.close(fd)


def write_plain(path, owner, processes, rounds, order):
    fd = os.open(path, os.O_RDWR)
    for number in range(rounds):
        mine = stripes_of(owner, processes)
        order.shuffle(mine)
        for stripe in mine:
            if os.pwrite(fd, content(owner, number, stripe), stripe * STRIPE) != STRIPE:
                sys.exit("a short write")
        if order.random() < 0.2:
            os.fsync(fd)
    os.close(fd)


def main():
    path, rounds = sys.argv[1], int(sys.argv[2])
    processes = int(sys.argv[3]) if len(sys.argv) > 3 else 6
    with open(path, "wb") as f:
        f.truncate(STRIPE * STRIPES)
    children = []
    for owner in range(processes):
        pid = os.fork()
        if pid == 0:
            write = write_mapped if owner % 2 else write_plain
            write(path, owner, processes, rounds, random.Random(owner))
            os._exit(0)
        children.append(pid)
    for pid in children:
        if os.waitpid(pid, 0)[1] != 0:
            sys.exit("a writer failed")
    with open(path, "rb") as f:
        data = f.read()
    for stripe in range(STRIPES):
        wanted = content(stripe % processes, rounds - 1, stripe)
        found = data[stripe * STRIPE:(stripe + 1) * STRIPE]
        if found != wanted:
            sys.exit("%s: stripe %d of %d holds %r instead of %r" % (path, stripe, STRIPES, found[:30], wanted[:30]))


if __name__ == "__main__":
    main()
