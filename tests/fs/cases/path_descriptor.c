// SPDX-License-Identifier: GPL-2.0
// O_PATH, which came after Linux 2.6.18: a descriptor that stands for a name only.
#include "case.h"

#ifndef O_PATH
#define O_PATH 010000000
#endif

static void run_case(void) {
  char buf[8];
  put("f", "x");
  SETUP(symlink("f", "link"));
  SETUP(mkdir("d", 0755));
  put("d/g", "below");
  const int fd = FD(open("f", O_PATH));
  say_fstat("f", fd);
  OP(read(fd, buf, 1));
  OP(fchmod(fd, 0600));
  const int link = FD(open("link", O_PATH | O_NOFOLLOW));
  say_fstat("link", link);
  OP(readlinkat(link, "", buf, sizeof(buf)));
  const int dir = FD(open("d", O_PATH));
  OP(close(FD(openat(dir, "g", O_RDONLY))));
  OP(fchdir(dir));
  say_file("g");
}
