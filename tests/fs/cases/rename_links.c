// SPDX-License-Identifier: GPL-2.0
// rename() between names of one file, and over files with further names.
#include "case.h"

static void run_case(void) {
  struct stat before, after;
  put("a", "content");
  SETUP(link("a", "b"));
  SETUP(mkdir("d", 0755));
  SETUP(link("a", "d/c"));
  SETUP(stat("a", &before));
  // Two names of one file: nothing happens, both stay.
  OP(rename("a", "b"));
  OP(rename("a", "d/c"));
  say_stat("a");
  say_stat("b");
  say_stat("d/c");
  OP(rename("a", "new"));
  SETUP(stat("new", &after));
  OP(before.st_ino == after.st_ino);
  say_stat("new");
  put("x", "other");
  SETUP(link("x", "y"));
  OP(rename("x", "new"));
  say_stat("new");
  say_stat("b");
  say_stat("y");
  say_file("new");
  say_file("b");
  OP(rename("y", "new"));
  OP(rename("b", "d/c"));
  say_stat("b");
  say_stat("d/c");
}
