// SPDX-License-Identifier: GPL-2.0
// renameat2(), which came after Linux 2.6.18.
#include "case.h"
#include <sys/syscall.h>

enum { kNoReplace = 1, kExchange = 2, kWhiteout = 4, kUnknown = 64 };

static int rename_with(const char *from, const char *to, unsigned flags) {
  return (int)syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, flags);
}

static void run_case(void) {
  put("a", "of a");
  put("b", "of b");
  OP(rename_with("a", "b", kUnknown));
  OP(rename_with("a", "b", kNoReplace | kExchange));
  OP(rename_with("missing", "b", kExchange));
  OP(rename_with("a", "b", 0));
  say_file("b");
  OP(rename_with("b", "c", kNoReplace));
  put("d", "of d");
  OP(rename_with("d", "c", kNoReplace));
  OP(rename_with("d", "b", kExchange));
  say_stat("b");
  say_stat("c");
  say_stat("d");
  OP(rename_with("d", "e", kWhiteout));
}
