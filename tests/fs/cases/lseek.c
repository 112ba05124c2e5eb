// SPDX-License-Identifier: GPL-2.0
// lseek(): each origin, far away, before the beginning, on what has no place.
#include "case.h"

static void run_case(void) {
  put("f", "0123456789");
  const int fd = FD(open("f", O_RDWR));
  OP(lseek(fd, 4, SEEK_SET));
  OP(lseek(fd, 3, SEEK_CUR));
  OP(lseek(fd, -2, SEEK_CUR));
  OP(lseek(fd, 0, SEEK_END));
  OP(lseek(fd, -4, SEEK_END));
  OP(lseek(fd, 5, SEEK_END));
  OP(lseek(fd, -1, SEEK_SET));
  OP(lseek(fd, -100, SEEK_CUR));
  OP(lseek(fd, -100, SEEK_END));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(lseek(fd, 0, 77));
  OP(lseek(fd, 1LL << 32, SEEK_SET));
  OP(lseek(fd, 1LL << 40, SEEK_SET));
  char buf[4];
  OP(read(fd, buf, 4));
  OP(lseek(fd, 0x7fffffffffffffffLL, SEEK_CUR));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(lseek(fd, 20, SEEK_SET));
  OP(write(fd, "x", 1));
  say_file("f");

  // The end is where another descriptor has moved it.
  const int other = FD(open("f", O_WRONLY | O_APPEND));
  OP(write(other, "12345", 5));
  OP(lseek(fd, 0, SEEK_END));
  OP(ftruncate(other, 2));
  OP(lseek(fd, 0, SEEK_END));
  OP(lseek(-1, 0, SEEK_SET));
  SETUP(mkfifo("fifo", 0644));
  OP(lseek(FD(open("fifo", O_RDWR)), 0, SEEK_SET));
}
