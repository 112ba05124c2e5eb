// SPDX-License-Identifier: GPL-2.0
// Names that are and are not there, and paths of every odd shape.
#include "case.h"

static void run_case(void) {
  struct stat st;
  SETUP(mkdir("d", 0755));
  put("d/f", "x");
  put("f", "x");

  OP(stat("missing", &st));
  OP(stat("d/f", &st));
  OP(stat("d//f", &st));
  OP(stat("./d/./f", &st));
  OP(stat("d/../d/f", &st));
  OP(stat("d/", &st));
  OP(stat("d/.", &st));
  OP(stat("d/..", &st));
  OP(stat("f/", &st));
  OP(stat("f/.", &st));
  OP(stat("f/below", &st));
  OP(stat("missing/below", &st));
  OP(stat("d/missing/..", &st));
  OP(stat("", &st));
  OP(stat(nowhere, &st));
  OP(stat("D", &st));
  OP(stat("d/f ", &st));

  // A name is bytes, whatever they mean.
  put("d/\xff\xfe", "x");
  put("d/line\nfeed", "x");
  put("d/ ", "x");
  put("d/-", "x");
  put("d/...", "x");
  OP(stat("d/\xff\xfe", &st));
  OP(stat("d/line\nfeed", &st));
  OP(stat("d/ ", &st));
  OP(stat("d/-", &st));
  OP(stat("d/...", &st));

  // A name that was looked up in vain is found once it is there, and gone once it is removed.
  OP(stat("late", &st));
  put("late", "x");
  OP(stat("late", &st));
  OP(unlink("late"));
  OP(stat("late", &st));
  OP(mkdir("late", 0755));
  OP(stat("late/", &st));
  OP(rmdir("late"));
  OP(stat("late", &st));

  const int dir = FD(open("d", O_RDONLY | O_DIRECTORY));
  OP(fstatat(dir, "f", &st, 0));
  OP(fstatat(dir, "missing", &st, 0));
  OP(fstatat(dir, "../f", &st, 0));
  const int file = FD(open("f", O_RDONLY));
  OP(fstatat(file, "f", &st, 0));
  close(dir);
  OP(fstatat(dir, "f", &st, 0));
}
