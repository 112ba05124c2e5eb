// SPDX-License-Identifier: GPL-2.0
// chmod(): every bit, of files, directories and links, by name and descriptor.
#include "case.h"

static void run_case(void) {
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  SETUP(symlink("missing", "dangling"));
  for (mode_t bit = 1; bit < 010000; bit <<= 1) {
    SETUP(chmod("f", bit));
    say_stat("f");
  }
  OP(chmod("f", 07777));
  say_stat("f");
  OP(chmod("f", 0170644));
  say_stat("f");
  OP(chmod("d", 01700));
  say_stat("d");
  OP(chmod("d", 0));
  say_stat("d");
  OP(chmod("link", 0640));
  say_stat("f");
  say_stat("link");
  OP(chmod("dangling", 0644));
  OP(chmod("missing", 0644));
  OP(chmod("f/", 0644));
  OP(chmod("", 0644));
  const int fd = FD(open("f", O_RDONLY));
  OP(fchmod(fd, 0604));
  say_stat("f");
  SETUP(unlink("f"));
  OP(fchmod(fd, 0400));
  say_fstat("unlinked", fd);
  OP(fchmod(-1, 0));
  SETUP(chmod("d", 0755));
  const int dir = FD(open("d", O_RDONLY));
  OP(fchmod(dir, 0711));
  say_stat("d");
  put("d/g", "x");
  OP(fchmodat(dir, "g", 0600, 0));
  say_stat("d/g");
}
