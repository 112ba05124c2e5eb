// SPDX-License-Identifier: GPL-2.0
// Synchronous opens: O_SYNC and O_DSYNC, set at the open or after it.
#include "case.h"

static void run_case(void) {
  int fd = FD(open("f", O_RDWR | O_CREAT | O_SYNC, 0644));
  OP(write(fd, "synchronous", 11));
  OP(pwrite(fd, "S", 1, 5000));
  OP(fcntl(fd, F_GETFL) & O_SYNC);
  OP(close(fd));
  say_file("f");
  fd = FD(open("f", O_RDWR | O_DSYNC));
  OP(write(fd, "data", 4));
  OP(ftruncate(fd, 8));
  OP(close(fd));
  say_file("f");
  fd = FD(open("f", O_WRONLY | O_SYNC | O_APPEND));
  OP(write(fd, "end", 3));
  OP(close(fd));
  say_file("f");
}
