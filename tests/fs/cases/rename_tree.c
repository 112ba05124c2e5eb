// SPDX-License-Identifier: GPL-2.0
// rename() of directories with all that is below, to and fro and across.
#include "case.h"

static void run_case(void) {
  SETUP(mkdir("one", 0755));
  SETUP(mkdir("two", 0755));
  SETUP(mkdir("one/tree", 0755));
  SETUP(mkdir("one/tree/a", 0755));
  SETUP(mkdir("one/tree/a/b", 0755));
  put("one/tree/a/b/f", "deep");
  put("one/tree/g", "shallow");
  say_stat("one");
  say_stat("two");
  OP(rename("one/tree", "two/tree"));
  say_stat("one");
  say_stat("two");
  say_file("two/tree/a/b/f");
  say_file("one/tree/g");
  OP(rename("two/tree/a/b", "one/b"));
  say_stat("two/tree/a");
  OP(rename("two/tree/a", "one/b/a"));
  say_file("one/b/f");
  say_stat("one/b/a");
  OP(chdir("one/b/a"));
  OP(rename("../../../one", "../../../three"));
  say_stat("../f");
  put("made", "here");
  OP(chdir("../../.."));
  say_file("three/b/a/made");
  OP(rename("two/tree", "three"));
  OP(rename("three", "two"));
  OP(rename("three", "two/three"));
  say_file("two/three/b/a/made");
  const int from = FD(open("two/three", O_RDONLY)), to = FD(open(".", O_RDONLY));
  OP(renameat(from, "b", to, "at"));
  say_file("at/f");
  say_stat(".");
}
