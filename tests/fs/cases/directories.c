// SPDX-License-Identifier: GPL-2.0
// Deep and wide trees: made, walked and removed, with the counts of links.
#include "case.h"

static int made, removed;

static void make_tree(int depth) {
  char name[16];
  for (int i = 0; i < 4; i++) {
    snprintf(name, sizeof(name), "d%d", i);
    SETUP(mkdir(name, 0755));
    made++;
    put("f", name);
    if (depth == 0) continue;
    SETUP(chdir(name));
    make_tree(depth - 1);
    SETUP(chdir(".."));
  }
}

static void remove_tree(int depth) {
  char name[16];
  struct stat st;
  for (int i = 0; i < 4; i++) {
    snprintf(name, sizeof(name), "d%d", i);
    if (depth > 0) {
      SETUP(chdir(name));
      SETUP(stat(".", &st));
      if (st.st_nlink != 6) say("a directory of four has %lu links", (unsigned long)st.st_nlink);
      remove_tree(depth - 1);
      SETUP(stat(".", &st));
      if (st.st_nlink != 2) say("an empty directory has %lu links", (unsigned long)st.st_nlink);
      SETUP(chdir(".."));
    }
    if (rmdir_emptied(name) == 0) removed++;
  }
  SETUP(unlink("f"));
}

static void run_case(void) {
  make_tree(3);
  say("made %d", made);
  say_stat(".");
  say_stat("d1/d2/d3");
  remove_tree(3);
  say("removed %d", removed);
  say_stat(".");
}
