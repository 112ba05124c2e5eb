// SPDX-License-Identifier: GPL-2.0
// Links on the way: in every part of a path, to directories, in chains, round in circles.
#include "case.h"

static void run_case(void) {
  struct stat st;
  char name[32], next[32];
  SETUP(mkdir("d", 0755));
  put("d/f", "content");
  SETUP(symlink("d", "to-d"));
  SETUP(symlink("to-d/f", "to-f"));
  SETUP(symlink("../to-f", "d/back"));
  say_file("to-d/f");
  say_file("to-f");
  say_file("to-d/back");
  say_file("to-d/../to-f");
  OP(stat("to-f/", &st));
  OP(lstat("to-d/", &st));
  OP(S_ISDIR(st.st_mode));
  OP(stat("to-f/x", &st));

  // A file that a long text leads to: dots and slashes up to what a path may have.
  static char text[4096];
  for (size_t i = 0; i + 1 < 4092; i += 2) memcpy(text + i, "./", 2);
  strcpy(text + 4092, "d/f");
  OP(symlink(text, "winding"));
  say("%zu characters", strlen(text));
  say_file("winding");
  OP(unlink("winding"));

  OP(symlink("self", "self"));
  OP(stat("self", &st));
  FD(open("self", O_RDONLY));
  FD(open("self", O_CREAT | O_WRONLY, 0644));
  OP(stat("self/x", &st));
  OP(chmod("self", 0600));
  OP(symlink("pong", "ping"));
  OP(symlink("ping", "pong"));
  OP(stat("ping", &st));
  OP(lstat("ping", &st));
  OP(unlink("ping"));
  OP(stat("pong", &st));

  // Chains end where they end; that the longest one allowed differs between kernels is not shown
  // here.
  for (int i = 0; i < 60; i++) {
    snprintf(name, sizeof(name), "chain%d", i);
    snprintf(next, sizeof(next), i ? "chain%d" : "d/f", i - 1);
    SETUP(symlink(next, name));
  }
  OP(stat("chain4", &st));
  OP(stat("chain6", &st));
  OP(stat("chain59", &st));
  OP(lstat("chain59", &st));

  // A link whose target comes and goes.
  OP(symlink("later", "waiting"));
  OP(stat("waiting", &st));
  put("later", "here");
  say_file("waiting");
  OP(unlink("later"));
  OP(mkdir("later", 0755));
  OP(stat("waiting/.", &st));
}
