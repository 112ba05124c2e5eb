// SPDX-License-Identifier: GPL-2.0
// rename() that cannot be: odd paths, into itself, of what is in use.
#include "case.h"

static void run_case(void) {
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(mkdir("d/e", 0755));
  SETUP(mkdir("d/e/f", 0755));
  SETUP(symlink("d", "to-d"));
  OP(rename("missing", "new"));
  OP(rename("missing", "f"));
  OP(rename("f", "missing/new"));
  OP(rename("f", "f/new"));
  OP(rename("f/x", "new"));
  OP(rename("", "new"));
  OP(rename("f", ""));
  OP(rename("f", "f"));
  OP(rename("d", "d"));
  OP(rename("d", "d/new"));
  OP(rename("d", "d/e/new"));
  OP(rename("d", "d/e/f"));
  OP(rename("d/e/f", "d"));
  OP(rename("d/e", "d"));
  OP(rename(".", "new"));
  OP(rename("..", "new"));
  OP(rename("d/.", "new"));
  OP(rename("d/..", "new"));
  OP(rename("f", "."));
  OP(rename("f", ".."));
  OP(rename("f", "d/."));
  OP(rename("f", "new/"));
  OP(rename("f/", "new"));
  OP(rename("f", "d/"));
  OP(rename("d/", "d2/"));
  say_stat("d2");
  OP(rename("d2", "to-d"));
  OP(rename("to-d", "d"));
  say_stat("d");
  OP(rename("d/", "x"));
  OP(rename("/", "x"));
  OP(rename("d2", "/"));
  OP(rename("d2/e/f", "d2/e/g"));
  OP(rename("d2/e/g", "g"));
  say_stat("d2/e");
  say_stat("g");
  say_stat("f");
}
