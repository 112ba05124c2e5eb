// SPDX-License-Identifier: GPL-2.0
// Sticky directories: who may remove and move what is in them.
#include "case.h"

static void as_user(void) {
  become(kUser, kUser, 0);
  OP(unlink("t/of-root"));
  OP(unlink("t/of-other"));
  OP(rename("t/of-root", "t/x"));
  OP(rename("t/mine", "t/of-other"));
  OP(rename("t/mine", "t/still-mine"));
  OP(rmdir("t/d-of-other"));
  OP(rmdir("t/d-mine"));
  OP(unlink("t/still-mine"));
  put("t/new", "x");
  OP(unlink("t/new"));
  // In one's own sticky directory everything may go.
  OP(unlink("own/of-root"));
  OP(rename("own/of-other", "own/x"));
}

static void make(const char *path, uid_t owner) {
  put(path, path);
  SETUP(chown(path, owner, owner));
}

static void run_case(void) {
  need_root();
  SETUP(mkdir("t", 0777));
  SETUP(chmod("t", 01777));
  SETUP(mkdir("own", 0777));
  SETUP(chmod("own", 01777));
  SETUP(chown("own", kUser, kUser));
  make("t/of-root", 0);
  make("t/of-other", kOtherUser);
  make("t/mine", kUser);
  make("own/of-root", 0);
  make("own/of-other", kOtherUser);
  SETUP(mkdir("t/d-of-other", 0777));
  SETUP(chown("t/d-of-other", kOtherUser, kOtherUser));
  SETUP(mkdir("t/d-mine", 0777));
  SETUP(chown("t/d-mine", kUser, kUser));
  in_child(as_user);
}
