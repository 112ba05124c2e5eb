# SPDX-License-Identifier: GPL-2.0
"""What the workers did in one round, from their journals: by which names an object went, and what was done to it.

A name is known by its path, as a worker saw it, and by its directory's inode number and its last component, which stay
true while directories above it are renamed.
"""
import json

from . import names

MAKES = {"mkdir", "symlink", "mknod", "bind"}
MOVES = {"rename", "link"}
ENOUGH = 300
BESIDE = 0.005  # seconds


class Step:
    __slots__ = ("began", "ended", "worker", "number", "op", "path", "to", "detail", "result", "key", "to_key", "inode")

    def __init__(self, entry):
        self.began, self.ended, self.worker, self.number = entry["t"], entry["e"], entry["w"], entry["n"]
        self.op, self.result, self.detail = entry["op"], entry["r"], entry.get("x", "")
        self.path = entry["a"].encode("latin-1")
        self.to = entry["b"].encode("latin-1") if "b" in entry else None
        self.key = key_of(entry.get("d"), self.path)
        self.to_key = key_of(entry.get("D"), self.to)
        self.inode = entry.get("i")

    def line(self, start):
        to = " -> " + names.shown(self.to, 100) if self.to is not None else ""
        inode = " inode %d" % self.inode if self.inode else ""
        return "%9.4f..%.4f  w%d #%d  %s %s%s%s %s = %s" % (
            self.began - start, self.ended - start, self.worker, self.number, self.op, names.shown(self.path, 100), to,
            inode, self.detail, self.result)


def key_of(parent, path):
    return (parent, path[path.rfind(b"/") + 1:]) if parent is not None and path is not None else None


def exchanged(path, old, new):
    """The path as it is when `old` is called `new`; None if it has nothing to do with that."""
    if path == old:
        return new
    return new + path[len(old):] if path.startswith(old + b"/") else None


class Trace:
    """The names of one object in a round: all, and those that it had when the round began."""

    def __init__(self, path, key, inode):
        self.ever, self.live = {path}, {path}
        self.keys, self.live_keys = {key}, {key}
        self.inode = inode

    def back(self, step):
        """Follows one step into the past."""
        if step.op in MAKES:
            self.live.discard(step.path)
            self.live_keys.discard(step.key)
            return
        for name in list(self.live):
            before = exchanged(name, step.to, step.path) if step.op == "rename" or name == step.to else None
            if before is not None:
                if step.op == "rename":
                    self.live.discard(name)
                self.live.add(before)
            elif step.op == "link" and name == step.path:
                self.live.add(step.to)
        if step.to_key in self.live_keys and step.to_key:
            if step.op == "rename":
                self.live_keys.discard(step.to_key)
            self.live_keys.add(step.key)
            self.live.add(step.path)
        elif step.op == "link" and step.key in self.live_keys:
            self.live_keys.add(step.to_key)
            self.live.add(step.to)
        self.ever |= self.live
        self.keys |= self.live_keys

    def forward(self, step):
        """Follows one step of names that it shared to where they are now."""
        if step.key in self.keys:
            self.keys.add(step.to_key)
        for name in list(self.ever):
            after = exchanged(name, step.path, step.to)
            if after is not None:
                self.ever.add(after)


class History:
    def __init__(self, files):
        self.steps = []
        for name in files:
            try:
                with open(name, "rb") as f:
                    self.steps += [Step(json.loads(line)) for line in f]
            except FileNotFoundError:
                pass  # a worker that did not come to anything in this round
        self.steps.sort(key=lambda step: step.began)
        done = [step for step in self.steps if step.result == "ok"]
        self.removals = [step for step in done if step.op == "rmdir"]
        self.moves = [step for step in done if step.op in MOVES]
        self.changes = [step for step in done if step.op in MOVES or step.op in MAKES]

    def trace(self, path, parent, inode):
        """`parent`, `inode`: the numbers in the lower directory, None if it has none."""
        trace = Trace(path, key_of(parent, path), inode)
        for step in reversed(self.changes):
            trace.back(step)
            if len(trace.ever) > ENOUGH:
                break
        for step in self.moves:
            if len(trace.ever) > ENOUGH:
                break
            trace.forward(step)
        return trace

    def own(self, trace):
        """The steps on the object itself and on its names."""
        keys = trace.keys - {None}
        return [step for step in self.steps
                if step.path in trace.ever or step.to in trace.ever or step.key in keys or step.to_key in keys or
                (trace.inode is not None and step.inode == trace.inode)]

    def above(self, trace):
        """The steps that moved, made or removed a directory above it."""
        above = {name[:i] for name in trace.ever for i, c in enumerate(name) if c == 0x2f}
        return [step for step in self.changes + self.removals
                if step.op != "link" and step.path != step.to and (step.path in above or step.to in above)]

    def story(self, trace):
        """What explains its state: its own steps, and those above it that lasted while one of them did."""
        own = self.own(trace)
        beside = [step for step in self.above(trace)
                  if any(step.began <= one.ended + BESIDE and step.ended >= one.began - BESIDE for one in own)]
        known = set(map(id, own))
        return sorted(own + [step for step in beside if id(step) not in known], key=lambda step: step.began)
