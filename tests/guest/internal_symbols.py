#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""internal_symbols.py KDIR OBJECT: the addresses of kernel functions that the object needs and that are not exported.

Written as a linker script. What is linked with it loads into the kernel of that tree's vmlinux and into no other, which
does for test cases of functions that modules cannot call.
"""
import pathlib
import subprocess
import sys


def symbols(path, *options):
    lines = subprocess.run(["nm", *options, path], check=True, capture_output=True, text=True).stdout.splitlines()
    return [line.split() for line in lines]


def main(kdir, needy):
    exported = {line.split("\t")[1] for line in (kdir / "Module.symvers").read_text().splitlines()}
    needed = {words[-1] for words in symbols(needy, "-u")} - exported
    for address, _, name in (words for words in symbols(kdir / "vmlinux") if len(words) == 3):
        if name in needed:
            print(f"{name} = 0x{address};")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), sys.argv[2])
