#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Writes NAME.mod.c for a linked module object: what the module loader of the tree's kernel asks of it.

The version string is read from the tree's vmlinux, so that it is the one the kernel compares with, whichever compiler
built it. Every symbol that the object needs must be exported by the kernel or by a module named with --with.

The checksum of what a module itself exports is a weak symbol that only the kernel's own build defines, out of C
declarations. Nobody defines it here: the loader reads 0, and whoever imports the symbol asks for 0.
"""
import argparse
import pathlib
import re
import subprocess
import sys

TEXT = """\
#include <linux/module.h>

MODULE_INFO(vermagic, "{vermagic}");
MODULE_INFO(depends, "{depends}");

struct module __this_module __attribute__((section(".gnu.linkonce.this_module"))) = {{
  .name = KBUILD_MODNAME,
  .init = init_module,
#ifdef CONFIG_MODULE_UNLOAD
  .exit = cleanup_module,
#endif
}};
"""

VERSIONS = """
static const struct modversion_info symbol_versions[] __attribute_used__
    __attribute__((section("__versions"))) = {{
{entries}
}};
"""


class Refused(Exception):
    """The module cannot be made for this tree; the text says why."""


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def config(kdir, name):
    return f"#define CONFIG_{name} 1" in (kdir / "include/linux/autoconf.h").read_text().splitlines()


def kernel_vermagic(kdir):
    release = re.search(r'UTS_RELEASE "([^"]+)"', (kdir / "include/linux/utsrelease.h").read_text()).group(1)
    pattern = re.compile(rb"\0(" + re.escape(release).encode() + rb" [ -~]*gcc-[0-9]+\.[0-9]+)\0")
    found = pattern.search((kdir / "vmlinux").read_bytes())
    if not found:
        raise Refused(f"{kdir}/vmlinux has no version string of {release}: was the tree changed after it was built?")
    vermagic = found.group(1).decode()
    words = vermagic.split()[1:-1]
    wanted = [word for name, word in (("SMP", "SMP"), ("PREEMPT", "preempt"), ("MODULE_UNLOAD", "mod_unload"))
              if config(kdir, name)]
    if words != wanted:
        raise Refused(f"{kdir} is configured for \"{' '.join(wanted)}\" but its vmlinux was built for "
                      f"\"{' '.join(words)}\": build it again")
    return vermagic


def exported(symvers):
    """Symbol -> checksum."""
    return {name: int(crc, 16) for crc, name, *_ in (line.split("\t") for line in symvers.read_text().splitlines())}


def module_exports(path):
    names = (line.split()[-1] for line in run("nm", path).splitlines())
    return {name.removeprefix("__ksymtab_") for name in names if name.startswith("__ksymtab_")}


def undefined(path):
    names = {line.split()[-1] for line in run("nm", "-u", path).splitlines()}
    own_checksums = {f"__crc_{name}" for name in module_exports(path)}
    return sorted(names - own_checksums - {"__this_module"})


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kdir", type=pathlib.Path, required=True, help="the kernel's tree")
    parser.add_argument("--with", dest="others", type=pathlib.Path, action="append", default=[],
                        help="a module whose exports may be used")
    parser.add_argument("object", type=pathlib.Path)
    args = parser.parse_args()

    kernel = exported(args.kdir / "Module.symvers")
    others = {other.stem: module_exports(other) for other in args.others}
    needed = undefined(args.object)
    missing = [name for name in needed if name not in kernel and not any(name in has for has in others.values())]
    if missing:
        raise Refused(f"{args.object} needs what {args.kdir} does not export: {' '.join(missing)}")

    depends = [other for other, has in others.items() if any(name in has for name in needed)]
    print(TEXT.format(vermagic=kernel_vermagic(args.kdir), depends=",".join(depends)), end="")
    if config(args.kdir, "MODVERSIONS"):
        entries = [f'  {{ 0x{kernel.get(name, 0):08x}, "{name}" }},' for name in ["struct_module", *needed]]
        print(VERSIONS.format(entries="\n".join(entries)), end="")


if __name__ == "__main__":
    try:
        main()
    except Refused as reason:
        sys.exit(f"kmod: {reason}")
