// SPDX-License-Identifier: GPL-2.0
// Extended attributes that are root's, and those of users on files that are not theirs.
#include "case.h"
#include <sys/xattr.h>

static void as_user(void) {
  char value[64];
  become(kUser, kUser, 0);
  OP(setxattr("mine", "trusted.mine", "x", 1, 0));
  OP(getxattr("f", "trusted.one", value, sizeof(value)));
  OP(removexattr("f", "trusted.one"));
  OP(setxattr("mine", "security.test", "x", 1, 0));
  OP(setxattr("f", "user.mine", "x", 1, 0));
  OP(removexattr("f", "user.of-root"));
  OP(getxattr("f", "user.of-root", value, sizeof(value)));
  OP(getxattr("closed", "user.of-root", value, sizeof(value)));
  OP(setxattr("open", "user.mine", "x", 1, 0));
  OP(setxattr("sticky", "user.mine", "x", 1, 0));
}

static void run_case(void) {
  char value[64];
  need_root();
  put("f", "x");
  put("mine", "x");
  put("closed", "x");
  put("open", "x");
  SETUP(mkdir("sticky", 0777));
  SETUP(chmod("sticky", 01777));
  SETUP(chown("mine", kUser, kUser));
  SETUP(symlink("f", "link"));
  OP(setxattr("f", "user.of-root", "x", 1, 0));
  OP(setxattr("closed", "user.of-root", "x", 1, 0));
  SETUP(chmod("closed", 0600));
  SETUP(chmod("open", 0666));
  OP(setxattr("f", "trusted.one", "value", 5, 0));
  OP(getxattr("f", "trusted.one", value, sizeof(value)));
  OP(lsetxattr("link", "trusted.link", "value", 5, 0));
  OP(lgetxattr("link", "trusted.link", value, sizeof(value)));
  OP(lremovexattr("link", "trusted.link"));
  OP(setxattr("f", "security.test", "value", 5, 0));
  OP(getxattr("f", "security.test", value, sizeof(value)));
  OP(removexattr("f", "security.test"));
  in_child(as_user);
  OP(removexattr("f", "trusted.one"));
}
