# SPDX-License-Identifier: GPL-2.0
"""The judge of promise.sh against trees, messages and journals made for it; no mount is needed."""
import json
import os
import shutil
import stat
import sys
import tempfile
import unittest

from . import compare, declared, names
from .history import History

SOURCE = b"/lower/source"
RECORD = b"2026-11-22T10:11:12.131 mirrord: data/replica: entry %d (%s): No such file or directory"


class Trees(unittest.TestCase):
    """Each case changes one thing in a replica that was the same."""

    def setUp(self):
        top = os.fsencode(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, top)
        self.roots = (top + b"/lower", top + b"/replica")
        for root in self.roots:
            os.makedirs(root + b"/d/e")
            for name in (b"f", b"d/g", b"odd\nname"):
                with open(root + b"/" + name, "wb") as f:
                    f.write(b"<worker 1 call 2>" * 9)
            os.link(root + b"/f", root + b"/d/second")
            os.symlink(b"f", root + b"/link")
            os.mkfifo(root + b"/fifo", 0o700)
            self.set_time(root + b"/f", -5_000_000 + names.RUN_US)
            self.set_time(root + b"/d/e", names.RUN_US)
            self.set_time(root + b"/d/g", 1_000_000)

    @staticmethod
    def set_time(path, us):
        os.utime(path, ns=(us * 1000, us * 1000))

    def found(self):
        lower, replica = (compare.scan(root) for root in self.roots)
        return [d.key() for d in compare.differences(lower, replica, self.roots)]

    def replica(self, name):
        return self.roots[1] + b"/" + name

    def test_the_same(self):
        self.assertEqual(self.found(), [])

    def test_names(self):
        os.unlink(self.replica(b"odd\nname"))
        os.mkdir(self.replica(b"more"))
        self.assertEqual(self.found(), [(b"odd\nname", "missing"), (b"more", "left behind")])

    def test_types(self):
        os.unlink(self.replica(b"d/g"))
        os.mkdir(self.replica(b"d/g"))
        self.assertEqual(self.found(), [(b"d/g", "type")])

    def test_content(self):
        with open(self.replica(b"d/g"), "r+b") as f:
            f.write(b"X")
        self.assertEqual(self.found(), [(b"d/g", "content")])

    def test_modes(self):
        os.chmod(self.replica(b"d"), 0o2755)
        self.assertEqual(self.found(), [(b"d", "mode")])

    def test_owners(self):
        if os.getuid() != 0:
            self.skipTest("only root can give files away")
        os.chown(self.replica(b"d/g"), 1, 2)
        os.lchown(self.replica(b"link"), 1, 2)  # told by no record unless it was changed
        self.assertEqual(self.found(), [(b"d/g", "owner")])
        os.lchown(self.roots[0] + b"/link", 1, names.OWNED_LINK_GID)
        self.assertEqual(self.found(), [(b"d/g", "owner"), (b"link", "owner")])

    def test_targets(self):
        os.unlink(self.replica(b"link"))
        os.symlink(b"g", self.replica(b"link"))
        self.assertEqual(self.found(), [(b"link", "target")])

    def test_hard_links(self):
        os.unlink(self.replica(b"d/second"))
        shutil.copy2(self.replica(b"f"), self.replica(b"d/second"))
        self.assertEqual(self.found(), [(b"d/second", "links"), (b"f", "links")])

    def test_times_that_were_asked_for(self):
        for name in (b"f", b"d/e", b"d/g"):
            self.set_time(self.replica(name), 7_000_000)
        self.assertEqual(self.found(), [(b"d/second", "time"), (b"f", "time")])

    def test_special_files(self):
        os.unlink(self.replica(b"fifo"))
        self.assertEqual(self.found(), [(b"fifo", "missing")])
        os.chmod(self.roots[0] + b"/fifo", 0o600)  # as if nothing had been changed since it was made
        self.assertEqual(self.found(), [])

    def test_devices(self):
        if os.getuid() != 0:
            self.skipTest("only root makes devices")
        for root, number in zip(self.roots, (3, 5)):
            os.mknod(root + b"/null", stat.S_IFCHR | 0o600, os.makedev(1, number))
        self.assertEqual(self.found(), [(b"null", "device")])

    def test_the_border(self):
        shutil.rmtree(self.replica(b"d"))
        lower = compare.scan(self.roots[0], lambda path: path == b"d")
        self.assertNotIn(b"d/g", lower)
        found = compare.differences(lower, compare.scan(self.roots[1]), self.roots)
        self.assertEqual([d.key() for d in found], [])


class Declarations(unittest.TestCase):
    def history(self, *steps):
        """Of (op, path, to or None), one a second."""
        with tempfile.NamedTemporaryFile("w", suffix=".journal", delete=False) as f:
            for i, (op, path, to) in enumerate(steps):
                entry = {"t": i, "e": i + 0.5, "w": 0, "n": i, "op": op, "a": path, "r": "ok"}
                if to is not None:
                    entry["b"] = to
                f.write(json.dumps(entry) + "\n")
        self.addCleanup(os.unlink, f.name)
        return History([f.name])

    def why(self, path, lines, steps=(), log=()):
        history = self.history(*steps)
        said = declared.Declared(SOURCE, b"/replica", [(10.0, line) for line in lines], list(log))
        trace = history.trace(b"source/" + path, None, None)
        return said.why([p[len(b"source/"):] for p in trace.ever if p.startswith(b"source/")])

    def test_by_name(self):
        self.assertIsNotNone(self.why(b"d/f", [RECORD % (5, b"write /lower/source/d/f page 3")]))
        self.assertIsNotNone(self.why(b"a b", [RECORD % (5, b'write "/lower/source/a b"')]))

    def test_not_by_another_name(self):
        for other in (b"write /lower/source/d/ff", b"write /lower/source/d", b"write /lower/source/d/f/g",
                      b"setattr /lower/source/d", b'write "/lower/source/d/f (deleted)"'):
            self.assertIsNone(self.why(b"d/f", [RECORD % (5, other)]), other)

    def test_by_what_moved_a_directory_above(self):
        self.assertIsNotNone(self.why(b"d/e/f", [RECORD % (5, b"rename /lower/source/d")]))

    def test_by_an_earlier_name(self):
        steps = [("rename", "source/a", "source/b"), ("rename", "source/b", "source/c")]
        self.assertIsNotNone(self.why(b"c", [RECORD % (5, b"write /lower/source/a")], steps))

    def test_by_a_name_that_it_shared(self):
        steps = [("link", "source/a", "source/b"), ("rename", "source/b", "source/c")]
        self.assertIsNotNone(self.why(b"a", [RECORD % (5, b"write /lower/source/c")], steps))

    def test_not_by_the_name_of_what_was_there_before(self):
        steps = [("rename", "source/x", "source/a"), ("mkdir", "source/a", None)]
        self.assertIsNone(self.why(b"a", [RECORD % (5, b"write /lower/source/x")], steps))

    def test_not_by_a_gap(self):
        gap = b"2026-11-22T10:11:12.131 mirrord: data: GAP: records 7 to 7 are missing"
        self.assertIsNone(self.why(b"a", [gap], [("write", "source/a", None)]))

    def test_a_record_that_is_too_long_is_named_by_the_log(self):
        gap = b"2026-11-22T10:11:12.131 mirrord: data: GAP: records 7 to 7 are missing"
        long_path = b"d" * 250 + (b"/" + b"e" * 250) * 15 + b"/" + b"f" * 80
        log = [b"2026-11-22 <4> too long: " + SOURCE + b"/" + long_path[:700]]
        steps = [("write", "source/a", None)]
        self.assertIsNotNone(self.why(long_path, [gap], steps, log))
        self.assertIsNone(self.why(b"a", [gap], steps, log))
        self.assertIsNone(self.why(b"x" + long_path[1:], [gap], steps, log))


class Names(unittest.TestCase):
    def test_as_the_programs_show_them(self):
        for path, text in ((b"/a/b", "/a/b"), (b"a b", '"a b"'), (b"a\nb", '"a\\nb"'), (b"\xff", '"\\xff"'),
                           (b'"', '"\\""'), (b"\xc2\x85", '"\\xc2\\x85"'), ("\u00e9".encode(), "\u00e9"), (b"", '""')):
            self.assertEqual(names.printable(path), text)


if __name__ == "__main__":
    sys.exit(0 if unittest.main(exit=False, verbosity=1).result.wasSuccessful() else 1)
