// SPDX-License-Identifier: GPL-2.0
// As many names as the file system gives a file, which all go again.
#include "case.h"

enum { kMost = 2000 };

static void run_case(void) {
  char name[32];
  int made = 0, removed = 0;
  put("f", "x");
  for (; made < kMost; made++) {
    snprintf(name, sizeof(name), "link%d", made);
    if (link("f", name) < 0) break;
  }
  say("%d links", made);
  say_stat("f");
  say_stat("link0");
  for (int i = 0; i < made; i++) {
    snprintf(name, sizeof(name), "link%d", i);
    if (unlink(name) == 0) removed++;
  }
  say("%d removed", removed);
  say_stat("f");
}
