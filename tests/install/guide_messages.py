#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""Each state of a target, each reason of a gap, each warning of the service and each problem of `mirrord status` is in the
guide's "When it goes wrong".

    guide_messages.py GUIDE MIRRORD     the document, and the folder of the sources

A text of the sources is looked for without what comes into its "{}" and without blanks and marks at its ends.
"""
import glob
import os
import re
import sys

LITERALS = r'(?:"(?:[^"\\\n]|\\.)*"\s*)+'
GAPS = r"gap|as_gap|declare|missing"


def literal(text):
    return "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', text)).replace('\\"', '"')


def calls(source, names):
    """The arguments of each call of one of the functions, as they are written."""
    for match in re.finditer(r"\b(?:%s)\(" % names, source):
        depth, quoted, at = 1, False, match.end()
        while depth:
            c = source[at]
            if quoted:
                at += c == "\\"
                quoted = c != '"'
            elif c == '"':
                quoted = True
            else:
                depth += (c == "(") - (c == ")")
            at += 1
        yield source[match.end():at - 1]


def sentences(arguments):
    """The texts in them that have words."""
    return [text for text in map(literal, re.findall(LITERALS, arguments)) if " " in text.strip(" :;")]


def texts_of(name, source):
    source = re.sub(r"//[^\n]*", "", source)
    if name == "problems.cc":
        return sentences(source)
    texts = [text for call in calls(source, GAPS) for text in sentences(call)]
    texts += [text for call in calls(source, "say") if re.match(r"Level::k(Warning|Error)", call) for text in sentences(call)]
    if name == "receiver.cc":  # what an event is about is a gap's reason
        texts += [literal(text) for text in re.findall(r"what = fmt::format\((%s)" % LITERALS, source)]
    return texts


def main():
    guide, mirrord = sys.argv[1:]
    with open(guide) as file:
        section = " ".join(file.read().split("\n## When it goes wrong\n")[1].split())
    missing, count = [], 0
    others = [mirrord + "/control/problems.cc", mirrord + "/stream/publisher.cc"]
    for path in sorted(glob.glob(mirrord + "/service/*.cc")) + others:
        name = os.path.basename(path)
        with open(path) as file:
            source = file.read()
        states = re.findall(r'\.state = (?:[^;"]*\? )?"([a-z]+)"(?: : "([a-z]+)")?', source)
        for state in sorted({word for pair in states for word in pair if word}):
            count += 1
            if not re.search(r"\| [^|]*`%s`[^|]* \|" % state, section):
                missing.append("%s: the state %s" % (name, state))
        for text in texts_of(name, source):
            count += 1
            parts = [part.strip(" :;,.") for part in re.split(r"\{[^}]*\}", text)]
            if not all(part in section for part in parts):
                missing.append("%s: %s" % (name, text))
    if count < 50:
        sys.exit("only %d states and texts were found in %s" % (count, mirrord))
    if missing:
        sys.exit("%s does not tell what to do about:\n  %s" % (guide, "\n  ".join(missing)))
    print("%s: tells about all of %d states and messages" % (guide, count))


main()
