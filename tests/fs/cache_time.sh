#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# For how long the host keeps names, listings and attributes: what is done through the mount is seen by the next call all the same;
# what is done below, or through another mount, when the time is over at the latest. A time that makes no sense is refused.
. "$(dirname "$0")/../lib.sh"

mkdir "$T/other"
cleanup_test() { umount -l "$T/other" 2>/dev/null; }
for time in -1 3601 soon; do
  if tarn mount --cache "$time" "$T/lower" "$T/mnt" 2>"$T/refused"; then fail "--cache $time was taken"; fi
  [ "$(wc -l <"$T/refused")" -le 2 ] || fail "--cache $time: $(cat "$T/refused")"
done
# Longer than this test takes: what is seen is not seen because the time is over.
tarn mount --cache 3600 "$T/lower" "$T/mnt"
tarn mount --cache 2 "$T/lower" "$T/other"

python3 - "$T/mnt" "$T/other" "$T/lower" <<'PY' || fail "the wrong thing was seen"
import ctypes
import os
import sys
import time

mnt, other, lower = sys.argv[1:]


def check(what, got, want):
    if got != want:
        sys.exit("%s: %r instead of %r" % (what, got, want))


def here(name):
    return os.path.lexists(mnt + "/" + name)


def status(name):
    return os.lstat(mnt + "/" + name)


# Through the mount: each change is seen by the next call.
for i in range(20):
    check("a name that is not there yet", (here("f"), here("d"), here("l")), (False, False, False))
    with open(mnt + "/f", "w") as out:
        out.write("four")
    check("a new file", (here("f"), status("f").st_size), (True, 4))
    before = status("")
    os.mkdir(mnt + "/d")
    check("a new directory, and the links of its parent", status("").st_nlink, before.st_nlink + 1)
    check("its names", os.listdir(mnt + "/d"), [])
    os.chmod(mnt + "/f", 0o600 + i % 8)
    check("the mode", status("f").st_mode & 0o777, 0o600 + i % 8)
    os.truncate(mnt + "/f", 2)
    check("the size", status("f").st_size, 2)
    os.utime(mnt + "/f", ns=(5, 7))
    check("the times", (status("f").st_atime_ns, status("f").st_mtime_ns), (5, 7))
    os.link(mnt + "/f", mnt + "/l")
    check("the links", (status("f").st_nlink, status("l").st_nlink), (2, 2))
    with open(mnt + "/l", "a") as out:
        out.write("more")
    check("the size by the other name", status("f").st_size, 6)
    check("the time of the write", status("f").st_mtime_ns > 7, True)
    os.rename(mnt + "/f", mnt + "/d/g")
    check("a name that was moved", (here("f"), here("d/g"), os.listdir(mnt + "/d")), (False, True, ["g"]))
    os.unlink(mnt + "/l")
    check("the links when one is gone", status("d/g").st_nlink, 1)
    os.setxattr(mnt + "/d/g", "user.a", b"1")
    check("an extended attribute", os.listxattr(mnt + "/d/g"), ["user.a"])
    os.unlink(mnt + "/d/g")
    os.rmdir(mnt + "/d")
    check("the names of the mount", os.listdir(mnt), [])
    check("names that are gone, and the links of their parent", (here("d"), status("").st_nlink), (False, before.st_nlink))

# Below, and through another mount: seen when the time of the mount that looks is over.
for way in lower, mnt:
    names = [other + "/" + name for name in ("new", "old", "file")]
    open(other + "/old", "w").close()
    open(other + "/file", "w").close()
    look = lambda: [os.path.exists(names[0]), os.path.exists(names[1]), os.stat(names[2]).st_size]
    begun = time.monotonic()
    check("what is there", look(), [False, True, 0])
    open(way + "/new", "w").close()
    os.unlink(way + "/old")
    with open(way + "/file", "w") as out:
        out.write("12345")
    kept = look()
    if time.monotonic() - begun < 1.5:
        check("what is kept", kept, [False, True, 0])
    time.sleep(2.1)
    check("what is there when the time is over", look(), [True, False, 5])
    os.unlink(way + "/new")
    os.unlink(way + "/file")
    time.sleep(2.1)

# A listing: by who opens the directory again, and by who reads it again through the descriptor that he has, which asks
# for no attribute.
class Directory:
    libc = ctypes.CDLL(None, use_errno=True)
    libc.opendir.restype = ctypes.c_void_p
    libc.readdir64.restype = ctypes.POINTER(ctypes.c_char)

    def __init__(self, path):
        self.stream = ctypes.c_void_p(self.libc.opendir(path.encode()))

    def names(self):
        self.libc.rewinddir(self.stream)
        names = []
        while entry := self.libc.readdir64(self.stream):
            names.append(ctypes.string_at(ctypes.addressof(entry.contents) + 19).decode())
        return sorted(names)[2:]

    def close(self):
        self.libc.closedir(self.stream)


os.mkdir(mnt + "/d")
time.sleep(2.1)
for way in lower, mnt:
    held = Directory(other + "/d")
    begun = time.monotonic()
    check("an empty listing", (held.names(), os.listdir(other + "/d")), ([], []))
    open(way + "/d/new", "w").close()
    kept = held.names(), os.listdir(other + "/d")
    if time.monotonic() - begun < 1.2:
        check("a listing that is kept", kept, ([], []))
    time.sleep(2.1)
    check("a listing when the time is over", (held.names(), os.listdir(other + "/d")), (["new"], ["new"]))
    os.unlink(other + "/d/new")
    check("a listing after a change through the mount", (held.names(), os.listdir(other + "/d")), ([], []))
    held.close()
    time.sleep(2.1)
os.rmdir(mnt + "/d")
PY
for where in other mnt; do tarn umount "$T/$where" || fail "umount of $where"; done
