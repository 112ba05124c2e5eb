// SPDX-License-Identifier: GPL-2.0
// Files with holes: what is read from them, their sizes, and holes that are filled.
#include "case.h"

static void run_case(void) {
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(pwrite(fd, "middle", 6, 10000));
  say_file("f");
  OP(pwrite(fd, "start", 5, 0));
  OP(pwrite(fd, "far", 3, 100000));
  say_file("f");
  OP(pwrite(fd, "fill", 4, 50000));
  OP(pwrite(fd, "x", 1, 8191));
  say_file("f");
  OP(ftruncate(fd, 20000));
  OP(pwrite(fd, "again", 5, 40000));
  say_file("f");

  // A gap behind a partial page, within the page and over its border.
  const int small = FD(open("small", O_RDWR | O_CREAT, 0644));
  OP(write(small, "abc", 3));
  OP(pwrite(small, "def", 3, 10));
  OP(pwrite(small, "ghi", 3, 4096 + 10));
  OP(pwrite(small, "jkl", 3, 3 * 4096));
  say_file("small");

  const int sparse = FD(open("sparse", O_RDWR | O_CREAT, 0644));
  char buf[16];
  OP(pwrite(sparse, "end", 3, 3LL << 30));
  say_stat("sparse");
  OP(pread(sparse, buf, 16, (3LL << 30) - 8));
  say_bytes("read", buf, 11);
  OP(pread(sparse, buf, 16, 1LL << 30));
  say_bytes("read", buf, 16);
  OP(ftruncate(sparse, 0));
}
