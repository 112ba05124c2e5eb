// SPDX-License-Identifier: GPL-2.0
// rename() of and over what is open, mapped, or somebody's directory.
#include "case.h"

static void run_case(void) {
  char buf[64];
  struct stat st;
  put("a", "of a");
  put("b", "of b");
  const int a = FD(open("a", O_RDWR)), b = FD(open("b", O_RDWR));
  OP(rename("a", "b"));
  say_fstat("a", a);
  say_fstat("b", b);
  OP(pread(b, buf, 4, 0));
  say_bytes("b", buf, 4);
  OP(pwrite(a, "written", 7, 0));
  OP(pwrite(b, "to nobody", 9, 0));
  say_file("b");
  OP(close(b));

  SETUP(mkdir("d", 0755));
  SETUP(mkdir("d/sub", 0755));
  put("d/sub/f", "below");
  const int dir = FD(open("d/sub", O_RDONLY));
  OP(rename("d", "moved"));
  OP(fstatat(dir, "f", &st, 0));
  say_file("moved/sub/f");
  OP(stat("d/sub/f", &st));
  FD(openat(dir, "made", O_CREAT | O_WRONLY, 0644));
  say_stat("moved/sub/made");
  OP(mkdir("empty", 0755));
  const int empty = FD(open("empty", O_RDONLY));
  OP(rename("moved/sub", "empty"));
  OP(fstatat(empty, "f", &st, 0));
  OP(fstatat(dir, "f", &st, 0));
  OP(fstatat(dir, "../b", &st, 0));
  say_stat("empty");
  say_stat("moved");
  say_stat(".");

  // Replaced again and again, a name always stands for something.
  for (int i = 0; i < 50; i++) {
    put("temporary", i % 2 ? "odd" : "even");
    SETUP(rename("temporary", "replaced"));
    SETUP(stat("replaced", &st));
  }
  say_file("replaced");
}
