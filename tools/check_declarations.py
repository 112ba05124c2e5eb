#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Finds functions and variables that a header declares and nobody uses, or that have no definition.

What counts is the name: a use is any mention in code other than a declaration or the definition itself. Members of
classes are not looked at, nor are macros.
"""
import collections
import pathlib
import re
import subprocess
import sys

COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S)
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n\\]|\\.)*", re.M | re.S)
WORD = re.compile(r"[A-Za-z_]\w*")
SCOPE = re.compile(r'^(?:extern ""|(?:inline )?namespace(?: [\w:]+)?)$')
ATTRIBUTE = re.compile(r"__attribute__\s*\(\(.*?\)\)(?!\))|__attribute__\s*\(\([^()]*\([^()]*\)\s*\)\)|\[\[.*?\]\]|\balignas\([^()]*\)")
NOT_A_NAME = {"if", "for", "while", "switch", "return", "sizeof", "alignas", "static_assert", "decltype", "operator",
              "__attribute__", "asm", "defined", "typeof", "__typeof__", "requires"}
# What the linker or a program's start looks for by its name, and what the kernel in a process has from libc.
FOUND_BY_NAME = re.compile(r"^(main|LLVMFuzzer\w+|__(start|stop)_\w+)$")
FROM_LIBC = re.compile(r"^(mem(cmp|cpy|move|set)|str(cat|cmp|cpy|cspn|len|ncmp|ncpy|nlen|spn))$")


def code_of(text):
    """The text without comments and the contents of strings."""
    return COMMENT.sub(lambda m: '""' if m.group(0)[0] == '"' else " ", text)


def statements(code):
    """(text, is_definition) of each declaration and definition outside of functions and classes."""
    depth = 0
    start = 0
    opened = []  # for each brace: True when what is in it is as if it were outside
    head = ""
    for at, char in enumerate(code):
        if char == "{":
            text = " ".join(code[start:at].split())
            transparent = bool(SCOPE.match(text))
            opened.append(transparent)
            if transparent:
                start = at + 1
            else:
                if depth == 0:
                    head = text
                depth += 1
        elif char == "}":
            if opened and not opened.pop():
                depth -= 1
                if depth == 0:
                    if is_function(head):
                        yield head, True
                        start = at + 1
            elif depth == 0:
                start = at + 1
        elif char == ";" and depth == 0:
            text = " ".join(code[start:at].split())
            if text:
                yield text, "{" in text and not is_function(text.split("{")[0])
            start = at + 1


def is_function(head):
    head = ATTRIBUTE.sub(" ", head)
    return "(" in head and not re.match(r"^(struct|class|union|enum)\b[^(]*$", head) and "=" not in head.split("(")[0]


def declared_name(text):
    """The name of a function, or of a variable declared extern; None for anything else."""
    text = ATTRIBUTE.sub(" ", text).strip()
    text = re.sub(r"^template\s*<[^{}]*?>\s*(?=\w)", "", text)
    if re.match(r"^(typedef|using|friend|static_assert|template|class|namespace)\b", text):
        return None
    before = text.split("(")[0]
    if "(" in text and "=" not in before:
        match = re.search(r"([A-Za-z_]\w*)\s*$", before)
        words = WORD.findall(before)
        if match and len(words) > 1 and match.group(1) not in NOT_A_NAME:
            return match.group(1)
        return None
    if text.startswith("extern ") and "{" not in text.split("=")[0]:
        match = re.search(r"([A-Za-z_]\w*)\s*(?:\[[^\]]*\]\s*)*$", text.split("=")[0])
        return match.group(1) if match else None
    return None


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.cc", "*.h", "*.c", "*.lds"], cwd=root,
                           check=True, capture_output=True, text=True).stdout.split()
    mentions = collections.Counter()
    stated = collections.Counter()  # declarations and definitions
    defined = set()
    in_sources = set()
    functions = set()
    declared = {}  # name -> first header
    for name in names:
        path = root / name
        if not path.is_file():
            continue
        with_directives = code_of(path.read_text(errors="replace"))
        mentions.update(WORD.findall(with_directives))
        code = DIRECTIVE.sub(" ", with_directives)
        for text, is_definition in statements(code):
            what = declared_name(text)
            if not what:
                continue
            stated[what] += 1
            if "(" in ATTRIBUTE.sub(" ", text).split("=")[0]:
                functions.add(what)
            if is_definition:
                defined.add(what)
            if name.endswith(".h"):
                declared.setdefault(what, name)
        if not name.endswith(".h"):
            in_sources.update(WORD.findall(code))
    errors = []
    for what, header in sorted(declared.items(), key=lambda item: (item[1], item[0])):
        if FOUND_BY_NAME.match(what):
            continue
        if mentions[what] <= stated[what]:
            errors.append("%s: nobody uses %s" % (header, what))
        elif what not in defined and not FROM_LIBC.match(what) and (what in functions or what not in in_sources):
            errors.append("%s: %s is defined nowhere" % (header, what))
    print("\n".join(errors) if errors else "declarations: %d, all defined and used" % len(declared))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
