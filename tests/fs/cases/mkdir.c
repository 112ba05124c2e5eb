// SPDX-License-Identifier: GPL-2.0
// mkdir(): modes, masks, names that are there, and places where it cannot be.
#include "case.h"

static void run_case(void) {
  put("f", "x");
  SETUP(symlink("missing", "dangling"));
  OP(mkdir("d", 0755));
  say_stat("d");
  OP(mkdir("d", 0755));
  OP(mkdir("f", 0755));
  OP(mkdir("dangling", 0755));
  OP(mkdir("missing/d", 0755));
  OP(mkdir("f/d", 0755));
  OP(mkdir("", 0755));
  OP(mkdir(".", 0755));
  OP(mkdir("..", 0755));
  OP(mkdir("/", 0755));
  OP(mkdir("slash/", 0755));
  OP(mkdir("d/e", 0700));
  OP(mkdir("d/e/f", 0777));
  say_stat("d");
  say_stat("d/e");
  umask(0);
  OP(mkdir("all", 07777));
  say_stat("all");
  umask(0777);
  OP(mkdir("none", 0777));
  say_stat("none");
  umask(022);
  const int dir = FD(open("d", O_RDONLY));
  OP(mkdirat(dir, "at", 0755));
  OP(mkdirat(FD(open("f", O_RDONLY)), "at", 0755));
  say_stat(".");
}
