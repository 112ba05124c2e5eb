// SPDX-License-Identifier: GPL-2.0
// Paths as long as they may be, one character more, and trees deeper than that.
#include "case.h"

enum { kDeep = 60, kName = 100 };

static void run_case(void) {
  static char path[5000], name[kName + 1];
  struct stat st;
  put("f", "x");
  // 4095 characters: dots and slashes that lead to f.
  size_t length = 0;
  while (length < 4094) {
    memcpy(path + length, "./", 2);
    length += 2;
  }
  strcpy(path + 4094, "f");
  say("a path of %zu", strlen(path));
  OP(stat(path, &st));
  memmove(path + 1, path, strlen(path) + 1);
  path[0] = '.';
  path[1] = '/';
  path[2] = '/';
  say("a path of %zu", strlen(path));
  OP(stat(path, &st));
  FD(open(path, O_RDONLY));
  OP(mkdir(path, 0755));
  OP(rename("f", path));

  // Sixty directories of a hundred characters each: further than any path reaches at once.
  memset(name, 'd', kName);
  const int top = FD(open(".", O_RDONLY));
  int made = 0;
  for (; made < kDeep; made++)
    if (mkdir(name, 0755) < 0 || chdir(name) < 0) break;
  say("%d deep", made);
  put("bottom", "deep down");
  say_file("bottom");
  say_stat("..");
  OP(rename("bottom", "../up"));
  say_file("../up");
  OP(symlink("../up", "link"));
  say_file("link");
  OP(unlink("link"));
  OP(unlink("../up"));
  OP(stat("../../../..", &st));
  static char here[8192];
  OP(getcwd(here, 4096) != NULL);
  int removed = 0;
  for (; removed < made; removed++)
    if (chdir("..") < 0 || rmdir(name) < 0) break;
  say("%d removed", removed);
  OP(fchdir(top));
  say_stat(".");
}
