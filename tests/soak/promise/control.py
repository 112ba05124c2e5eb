# SPDX-License-Identifier: GPL-2.0
"""Memory that the coordinator shares with its workers: what they are to do, and the call that each is inside.

The coordinator writes the head, each worker its own slot. A worker that stays inside one call longer than the time
limit is stuck: the coordinator reads from the slot which call that is.
"""
import mmap
import struct
import time

RUN, PAUSE, END = 0, 1, 2

HEAD = struct.Struct("<iid")  # what to do, the number of the round, how much to remove
SLOT = struct.Struct("<diiii")  # since when, paused in which round, calls, length of the text, end
SLOT_SIZE = 8192


class Control:
    def __init__(self, workers):
        self.memory = mmap.mmap(-1, SLOT_SIZE * (workers + 1))
        self.say(RUN, 0, 1.0)

    def say(self, order, number, removal):
        HEAD.pack_into(self.memory, 0, order, number, removal)

    def order(self):
        """(what to do, the number of the round, how much to remove)"""
        return HEAD.unpack_from(self.memory, 0)

    def slot(self, index):
        return Slot(self.memory, SLOT_SIZE * (index + 1))


class Slot:
    def __init__(self, memory, offset):
        self.memory, self.offset = memory, offset
        self.since, self.paused, self.calls = 0.0, -1, 0

    def _put(self, text=b""):
        text = text[:SLOT_SIZE - SLOT.size]
        start = self.offset + SLOT.size
        self.memory[start:start + len(text)] = text
        SLOT.pack_into(self.memory, self.offset, self.since, self.paused, self.calls, len(text), 0)

    def enter(self, text):
        self.since = time.monotonic()
        self.calls += 1
        self._put(text)
        return self.since

    def leave(self):
        self.since = 0.0
        self._put()

    def pause(self, number):
        self.paused = number
        self._put()

    def read(self):
        """(since when inside a call or 0, paused in which round, number of calls, the call)"""
        since, paused, calls, length, _ = SLOT.unpack_from(self.memory, self.offset)
        start = self.offset + SLOT.size
        return since, paused, calls, bytes(self.memory[start:start + length])
