#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Makes the relocations of a module ones that the 2.6.18 loader knows, in place.

Assemblers write R_X86_64_PLT32 for a call, which means the same as R_X86_64_PC32 where there is no procedure linkage
table, as in a kernel. Any other type that the loader does not know is refused: the module would not load.
"""
import struct
import sys

SHT_RELA = 4
SHF_ALLOC = 2
NONE, ABS64, PC32, PLT32, ABS32, ABS32S = 0, 1, 2, 4, 10, 11
KNOWN = {NONE, ABS64, PC32, ABS32, ABS32S}

SECTION = struct.Struct("<IIQQQQIIQQ")  # name type flags addr offset size link info align entsize
RELA = struct.Struct("<QQq")  # offset info addend


def sections(image):
    offset, = struct.unpack_from("<Q", image, 0x28)
    size, count = struct.unpack_from("<HH", image, 0x3A)
    return [SECTION.unpack_from(image, offset + i * size) for i in range(count)]


def rewrite(path):
    with open(path, "rb") as file:
        image = bytearray(file.read())
    if image[:6] != b"\x7fELF\x02\x01":
        sys.exit(f"kmod: {path} is not a 64-bit little-endian ELF file")
    every = sections(image)
    for _, kind, _, _, offset, size, _, target, _, _ in every:
        if kind != SHT_RELA or not every[target][2] & SHF_ALLOC:
            continue
        for at in range(offset, offset + size, RELA.size):
            place, info, addend = RELA.unpack_from(image, at)
            relocation = info & 0xFFFFFFFF
            if relocation == PLT32:
                RELA.pack_into(image, at, place, info & ~0xFFFFFFFF | PC32, addend)
            elif relocation not in KNOWN:
                sys.exit(f"kmod: {path}: relocation type {relocation} at {place:#x} is not known to the 2.6.18 loader")
    with open(path, "wb") as file:
        file.write(image)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: relocations.py MODULE.ko")
    rewrite(sys.argv[1])
