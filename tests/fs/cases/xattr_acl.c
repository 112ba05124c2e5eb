// SPDX-License-Identifier: GPL-2.0
// Access control lists, and the rights of a program that lie in an attribute.
#include "case.h"
#include <sys/xattr.h>

// Version 2; owner rw-, group ---, others r--.
static const unsigned char kList[] = {2, 0,   0,   0,   1,   0,  6, 0, 255, 255, 255, 255, 4,  0, 0,
                                      0, 255, 255, 255, 255, 32, 0, 4, 0,   255, 255, 255, 255};
// Version 2; the right to open raw sockets, permitted.
static const unsigned char kRights[] = {0, 0, 0, 2, 0, 32, 0, 0, 0, 0,
                                        0, 0, 0, 0, 0, 0,  0, 0, 0, 0};

static void run_case(void) {
  char value[64];
  put("f", "x");
  SETUP(mkdir("d", 0755));
  OP(setxattr("f", "system.posix_acl_access", kList, sizeof(kList), 0));
  OP(getxattr("f", "system.posix_acl_access", value, sizeof(value)));
  OP(setxattr("d", "system.posix_acl_default", kList, sizeof(kList), 0));
  OP(removexattr("d", "system.posix_acl_default"));
  say_stat("f");
  need_root();
  put("program", "x");
  OP(setxattr("program", "security.capability", kRights, sizeof(kRights), 0));
  OP(getxattr("program", "security.capability", value, sizeof(value)));
  // A write takes them away.
  const int fd = FD(open("program", O_WRONLY));
  OP(write(fd, "y", 1));
  OP(getxattr("program", "security.capability", value, sizeof(value)));
}
