// SPDX-License-Identifier: GPL-2.0
// rename() of everything over everything, within a directory and across two.
#include "case.h"

static const char *const kKinds[] = {"nothing", "file", "empty", "full", "link", "fifo"};
enum { kCount = sizeof(kKinds) / sizeof(kKinds[0]) };

static void make(const char *path, const char *kind) {
  char inside[64];
  if (strcmp(kind, "file") == 0) put(path, path);
  if (strcmp(kind, "empty") == 0 || strcmp(kind, "full") == 0) SETUP(mkdir(path, 0755));
  snprintf(inside, sizeof(inside), "%s/inside", path);
  if (strcmp(kind, "full") == 0) put(inside, path);
  if (strcmp(kind, "link") == 0) SETUP(symlink(path, path));
  if (strcmp(kind, "fifo") == 0) SETUP(mkfifo(path, 0644));
}

static void clear(const char *path) {
  char inside[64];
  snprintf(inside, sizeof(inside), "%s/inside", path);
  unlink(inside);
  unlink(path);
  rmdir_emptied(path);
}

static void run_case(void) {
  static const char *const targets[] = {"here/new", "there/new"};
  SETUP(mkdir("here", 0755));
  SETUP(mkdir("there", 0755));
  for (int where = 0; where < 2; where++)
    for (int from = 0; from < kCount; from++)
      for (int to = 0; to < kCount; to++) {
        make("here/old", kKinds[from]);
        make(targets[where], kKinds[to]);
        say("%s over %s, to %s", kKinds[from], kKinds[to], targets[where]);
        OP(rename("here/old", targets[where]));
        say_stat("here/old");
        say_stat(targets[where]);
        say_stat("here");
        say_stat("there");
        if (strcmp(kKinds[from], "file") == 0) say_file(targets[where]);
        clear("here/old");
        clear(targets[where]);
      }
}
