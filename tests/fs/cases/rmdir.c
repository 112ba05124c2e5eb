// SPDX-License-Identifier: GPL-2.0
// rmdir(): what is not empty, not a directory, in use, and how links are counted.
#include "case.h"

static void run_case(void) {
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(mkdir("d/e", 0755));
  put("d/e/f", "x");
  SETUP(symlink("d", "link"));
  OP(rmdir("d"));
  OP(rmdir("d/e"));
  OP(rmdir("f"));
  OP(rmdir("link"));
  OP(rmdir("missing"));
  OP(rmdir("d/."));
  OP(rmdir("d/.."));
  OP(rmdir("d/e/.."));
  OP(rmdir("."));
  OP(rmdir(""));
  OP(rmdir("f/d"));
  OP(unlink("d/e"));
  OP(unlink("d/e/f"));
  say_stat("d");
  OP(rmdir("d/e/"));
  say_stat("d");

  // What is removed may be known to an NFS client still, or not.
  if (over_nfs()) return;
  const int dir = FD(open("d", O_RDONLY));
  OP(rmdir("d"));
  say_fstat("the removed directory", dir);
  struct stat st;
  OP(fstatat(dir, "x", &st, 0));
  FD(openat(dir, "x", O_CREAT | O_WRONLY, 0644));
  OP(mkdirat(dir, "x", 0755));
  OP(fstatat(dir, ".", &st, 0));
  OP(stat("d", &st));
  OP(mkdir("d", 0700));
  say_stat("d");
  say_fstat("the removed directory", dir);
  const int again = FD(open("d", O_RDONLY));
  OP(unlinkat(again, "missing", AT_REMOVEDIR));
  OP(mkdir("d/at", 0755));
  OP(unlinkat(again, "at", AT_REMOVEDIR));
  say_stat(".");
}
