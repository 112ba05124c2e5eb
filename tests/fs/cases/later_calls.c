// SPDX-License-Identifier: GPL-2.0
// What came after Linux 2.6.18: O_TMPFILE, fallocate(), O_PATH, statx().
#include "case.h"
#include <sys/syscall.h>

#ifndef O_TMPFILE
#define O_TMPFILE (020000000 | O_DIRECTORY)
#endif

static void run_case(void) {
  FD(open(".", O_TMPFILE | O_RDWR, 0600));
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(syscall(SYS_fallocate, fd, 0, 0L, 10000L));
  say_stat("f");
  OP(syscall(SYS_fallocate, fd, 1, 0L, 20000L));
  OP(syscall(SYS_fallocate, fd, 3, 0L, 4096L));
  say_stat("f");
}
