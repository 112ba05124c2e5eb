// SPDX-License-Identifier: GPL-2.0
// Writes and truncations at 16 TiB, which is past the largest size of some file systems and not of
// others.
#include "case.h"
#include <signal.h>

static const off_t kFar = 1LL << 44;
static const off_t kBlock = 4096;

static void run_case(void) {
  static char data[8192];
  memset(data, 'x', sizeof(data));
  signal(SIGXFSZ, SIG_IGN);
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(pwrite(fd, data, 1, kFar - kBlock - 1));
  OP(ftruncate(fd, 0));
  OP(pwrite(fd, data, 1, kFar - kBlock));
  OP(pwrite(fd, data, 1, kFar));
  OP(pwrite(fd, data, 0, kFar));
  OP(pwrite(fd, data, 8192, kFar + 100));
  OP(ftruncate(fd, 5));
  // As much as there is room for.
  OP(pwrite(fd, data, 8192, kFar - 2 * kBlock));
  OP(lseek(fd, 0, SEEK_END));
  OP(write(fd, data, 10));
  OP(ftruncate(fd, 5));
  OP(write(fd, data, 10));
  OP(lseek(fd, 0, SEEK_CUR));

  OP(ftruncate(fd, kFar - kBlock));
  OP(ftruncate(fd, kFar - kBlock + 1));
  OP(truncate("f", kFar));
  OP(truncate("f", kFar - kBlock));
  const int appending = FD(open("f", O_WRONLY | O_APPEND));
  OP(write(appending, data, 10));
  OP(ftruncate(fd, 3));
  OP(write(appending, data, 10));
  OP(pwrite(fd, data, 1, 1));
  say_stat("f");
}
