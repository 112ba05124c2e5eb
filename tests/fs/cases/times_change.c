// SPDX-License-Identifier: GPL-2.0
// Which times each operation moves on, of the object itself and of its directory.
#include "case.h"
#include <utime.h>

// Every name gets old times first. The change time cannot be set: that it moves is seen after a
// pause longer than the coarsest clock of a file system.
static const char *const kNames[] = {"read",    "write",  "empty-write", "truncate", "same-size",
                                     "chmod",   "link",   "rename",      "unlink",   "open",
                                     "stat",    "map",    "d-list",      "d-new",    "d-gone",
                                     "d-moved", "d-name", "l-name"};
enum { kCount = sizeof(kNames) / sizeof(kNames[0]) };
static struct stat before[kCount];

static void say_moved(const char *path, const struct stat *old) {
  struct stat st;
  if (lstat(path, &st) < 0) {
    say("%s: %s", path, errno_name(errno));
    return;
  }
  say("%s: modification time %s, change time %s", path,
      st.st_mtime == old->st_mtime ? "stays" : "moves",
      st.st_ctime == old->st_ctime ? "stays" : "moves");
}

static void run_case(void) {
  char buf[16];
  const struct utimbuf old = {1000000000, 1000000000};
  for (int i = 0; i < kCount; i++) {
    if (strncmp(kNames[i], "d-", 2) == 0) {
      SETUP(mkdir(kNames[i], 0755));
    } else if (strncmp(kNames[i], "l-", 2) == 0) {
      SETUP(symlink("stat", kNames[i]));
    } else {
      put(kNames[i], "0123456789");
    }
  }
  put("d-gone/f", "x");
  put("d-moved/f", "x");
  SETUP(link("unlink", "unlink-other"));
  for (int i = 0; i < kCount; i++) SETUP(utime(kNames[i], &old));
  for (int i = 0; i < kCount; i++) SETUP(lstat(kNames[i], &before[i]));
  usleep(1100000);

  int fd = open("read", O_RDONLY);
  SETUP(read(fd, buf, 4));
  SETUP(close(fd));
  fd = open("write", O_WRONLY);
  SETUP(write(fd, "x", 1));
  SETUP(close(fd));
  fd = open("empty-write", O_WRONLY);
  SETUP(write(fd, "x", 0));
  SETUP(close(fd));
  SETUP(truncate("truncate", 2));
  SETUP(truncate("same-size", 10));
  SETUP(chmod("chmod", 0600));
  SETUP(link("link", "linked"));
  SETUP(rename("rename", "renamed"));
  SETUP(rename("renamed", "rename"));
  SETUP(unlink("unlink-other"));
  SETUP(close(open("open", O_RDWR)));
  struct stat st;
  SETUP(stat("stat", &st));
  put("d-new/f", "x");
  SETUP(unlink("d-gone/f"));
  SETUP(rename("d-moved/f", "moved"));
  SETUP(rename("d-name", "d-other"));
  SETUP(rename("d-other", "d-name"));
  SETUP(rename("l-name", "l-other"));
  SETUP(rename("l-other", "l-name"));
  for (int i = 0; i < kCount; i++) say_moved(kNames[i], &before[i]);
}
