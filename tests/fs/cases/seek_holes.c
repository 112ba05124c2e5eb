// SPDX-License-Identifier: GPL-2.0
// lseek() to data and holes, which came after Linux 2.6.18.
#include "case.h"

#ifndef SEEK_DATA
#define SEEK_DATA 3
#define SEEK_HOLE 4
#endif

static void run_case(void) {
  put("full", "0123456789");
  int fd = FD(open("full", O_RDWR));
  OP(lseek(fd, 0, SEEK_DATA));
  OP(lseek(fd, 5, SEEK_DATA));
  OP(lseek(fd, 0, SEEK_HOLE));
  OP(lseek(fd, 10, SEEK_DATA));
  OP(lseek(fd, 11, SEEK_HOLE));
  OP(lseek(fd, -1, SEEK_DATA));
  fd = FD(open("sparse", O_RDWR | O_CREAT, 0644));
  OP(lseek(fd, 0, SEEK_DATA));
  OP(ftruncate(fd, 1 << 20));
  OP(pwrite(fd, "x", 1, 1 << 19));
  OP(fsync(fd));
  OP(lseek(fd, 0, SEEK_DATA));
  OP(lseek(fd, 0, SEEK_HOLE));
  OP(lseek(fd, 1 << 19, SEEK_HOLE));
}
