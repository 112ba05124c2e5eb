// SPDX-License-Identifier: GPL-2.0
// More names than the file system gives a file: EMLINK, until one of them goes.
#include "case.h"

enum { kMost = 65100, kInOne = 1000 };  // ext4 gives 65000, ext2 and ext3 32000

static char name[32];

// Short directories, for some file systems search them from end to end.
static const char *name_of(int link) {
  snprintf(name, sizeof(name), "d%d/%d", link / kInOne, link);
  return name;
}

static void make_directory_for(int link) {
  snprintf(name, sizeof(name), "d%d", link / kInOne);
  SETUP(mkdir(name, 0755));
}

static void remove_all(int made) {
  int removed = 0;
  for (int i = 0; i < made; i++) {
    if (unlink(name_of(i)) == 0) removed++;
    if (i % kInOne == kInOne - 1 || i == made - 1) {
      snprintf(name, sizeof(name), "d%d", i / kInOne);
      SETUP(rmdir(name));
    }
  }
  say("%d removed", removed);
}

static void run_case(void) {
  if (over_nfs()) skip("the limit is that of the server's file system");
  put("f", "x");
  int made = 0, err = 0;
  for (; made < kMost; made++) {
    if (made % kInOne == 0) make_directory_for(made);
    if (link("f", name_of(made)) < 0) {
      err = errno;
      break;
    }
  }
  if (!err || err == ENOSPC) {
    remove_all(made);
    unlink("f");
    skip("the file system gives a file as many names as there is room for");
  }
  say("after %d links: %s", made, errno_name(err));
  say_stat("f");
  OP(link("f", "other"));
  OP(link("f", "f"));
  OP(rename("d0/1", "other"));
  say_stat("other");
  OP(link("other", "d0/1"));
  OP(unlink("other"));
  say_stat("f");
  OP(link("f", "d0/1"));
  OP(link("f", "other"));
  say_stat("f");
  remove_all(made);
  say_stat("f");
  OP(unlink("f"));
}
