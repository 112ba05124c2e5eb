#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""proof.py RESULTS: says whether the kernel proved its locking to the end of each step, and with how full tables.

Reads the lines "proof STEP on|off TABLE USED MAX ..." of the guest's init. That the proof ended early is a complaint of
the kernel's; this says behind which step.
"""
import sys


def read_proofs(lines):
    """(step, whether the proof is on, {table: (used, max)}) for each step, in their order."""
    for line in lines:
        words = line.split()
        if words[:1] != ["proof"]:
            continue
        figures = words[3:]
        yield words[1], words[2] == "on", {
            figures[i]: (int(figures[i + 1]), int(figures[i + 2])) for i in range(0, len(figures), 3)
        }


def summary(proofs):
    if not proofs:
        return "locks are not proven: this kernel was built without CONFIG_PROVE_LOCKING"
    fullest = {}
    for _, _, tables in proofs:
        for name, (used, most) in tables.items():
            fullest[name] = max(fullest.get(name, (0, most)), (used, most))
    filled = ", ".join(f"{used} of {most} {name.replace('-', ' ')}" for name, (used, most) in fullest.items())
    ended = [step for step, on, _ in proofs if not on]
    if ended:
        which = f"{len(ended)} of {len(proofs)} steps ({', '.join(ended)})"
        return f"locks were NOT proven to the end of {which}, with at most {filled}"
    return f"locks were proven to the end of all {len(proofs)} steps, with at most {filled}"


def main(path):
    with open(path, encoding="utf-8", errors="replace") as results:
        print("guest: " + summary(list(read_proofs(results))))


if __name__ == "__main__":
    main(sys.argv[1])
