#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Compiles, syntax only, every source of a build folder's compile_commands.json and every header alone.

usage: check_compile.py BUILD-FOLDER [--headers | --aarch64 | --tidy]

With --headers, each header of the tree is compiled by itself with the flags of a source of its own folder. With
--aarch64, Debian's cross compiler takes the sources; the headers of our libraries are the same for every machine. With
--tidy, clang-tidy takes those of the hosted programs; BUILD-FOLDER is one of clang's.
"""
import concurrent.futures
import itertools
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

# Made for a real kernel, and programs for a machine that runs one: their own makefiles compile them.
ELSEWHERE = ("kmod/", "tests/fs/cases/", "tests/guest/")

# What clang-tidy looks at (.clang-tidy). It reports what the compiler would say, too.
TIDY = ("base/", "client/", "mirrord/", "tarn/", "tarnd/")


def syntax_only(entry, source):
    words = shlex.split(entry["command"])
    out = []
    skip = False
    for word in words:
        if skip:
            skip = False
        elif word == "-o":
            skip = True
        elif word != "-c" and word != entry["file"]:
            out.append(word)
    return out + ["-fsyntax-only", "-x", "c" if source.endswith(".c") else "c++", source]


LIBRARIES = ("CLI", "benchmark", "fmt", "fuse3", "gmock", "gtest", "libmount", "nats", "nlohmann", "rapidcheck", "rapidcheck.h",
             "spdlog", "systemd", "toml++", "xxhash.h", "zstd.h")


def for_aarch64(command, includes):
    """The same command for the cross compiler. What the compiler brings itself is its own."""
    if os.path.basename(command[0]) == "ccache":
        command = command[1:]
    c_only = os.path.basename(command[0]) in ("cc", "gcc")
    out = ["aarch64-linux-gnu-gcc" if c_only else "aarch64-linux-gnu-g++"]
    for word in command[1:]:
        word = word.replace("/usr/lib/gcc/x86_64-linux-gnu/", "/usr/lib/gcc-cross/aarch64-linux-gnu/")
        out.append(re.sub(r"^(-I)?/usr/include", r"\g<1>" + str(includes), word))
    return out + ["-isystem", str(includes)]


def library_headers(build):
    includes = (build / "aarch64-include").resolve()
    includes.mkdir(exist_ok=True)
    for name in LIBRARIES:
        link = includes / name
        if not link.is_symlink() and os.path.exists("/usr/include/" + name):
            link.symlink_to("/usr/include/" + name)
    return includes


def tidy(command, source):
    """A syntax-only command for clang-tidy: the flags without the names of a launcher and the compiler."""
    flags = itertools.dropwhile(lambda word: not word.startswith("-"), command[:-1])
    return ["clang-tidy", "--quiet", source, "--", *flags]


def run(job):
    name, command, folder = job
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True)
    return name, done.returncode, done.stdout + done.stderr


def header_jobs(root, entries):
    """A header takes the flags of a source in its folder, or of the nearest folder above that has one; where both
    worlds have sources in the folder, those of a hosted one."""
    by_folder = {}
    for entry in sorted(entries, key=lambda e: "-nostdinc " in e["command"]):
        by_folder.setdefault(os.path.dirname(entry["file"]), entry)
    lender = {"module/include": "module", "module/os_public/Include": "module", "ukern": "ukern/vfs",
              "ukern/include": "ukern/vfs", "tests/harness": None}
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.h"], cwd=root, check=True,
                           capture_output=True, text=True).stdout.split()
    for name in names:
        if name.startswith(ELSEWHERE):
            continue
        folder = os.path.dirname(name)
        while folder and str(root / folder) not in by_folder:
            folder = lender.get(folder) or os.path.dirname(folder)
        if not folder:
            if any(e["file"].startswith(str(root / name.split("/")[0]) + "/") for e in entries):
                sys.exit("%s: no source lends it its flags" % name)
            continue  # the whole part is not built here
        entry = by_folder[str(root / folder)]
        command = syntax_only(entry, str(root / name)) + ["-Wno-pragma-once-outside-header"]
        yield name, command, entry["directory"]


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    build = pathlib.Path(sys.argv[1])
    entries = json.loads((build / "compile_commands.json").read_text())
    if "--headers" in sys.argv:
        jobs = list(header_jobs(root, entries))
    else:
        # A source of several targets is compiled once for each set of flags.
        jobs = {(e["directory"], *syntax_only(e, e["file"])): e["file"] for e in entries}
        jobs = [(name, list(command), folder) for (folder, *command), name in jobs.items()]
    if "--aarch64" in sys.argv:
        includes = library_headers(build)
        jobs = [(name, for_aarch64(command, includes), folder) for name, command, folder in jobs]
    if "--tidy" in sys.argv:
        tidied = tuple(str(root / folder) + "/" for folder in TIDY)
        jobs = [(name, tidy(command, name) if name.startswith(tidied) else command, folder)
                for name, command, folder in jobs]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for name, code, text in pool.map(run, jobs):
            if code:
                failed += 1
                print("%s:\n%s" % (name, text))
    what = "headers" if "--headers" in sys.argv else "for aarch64" if "--aarch64" in sys.argv else "sources"
    print("%s: %d compiled, %d failed" % (what, len(jobs), failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
