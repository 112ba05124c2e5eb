// SPDX-License-Identifier: GPL-2.0
// truncate() and ftruncate(): to less, to more, to too much, of what cannot be.
#include "case.h"

static void run_case(void) {
  put("f", "0123456789");
  OP(truncate("f", 4));
  say_file("f");
  OP(truncate("f", 8));
  say_file("f");
  OP(truncate("f", 8));
  OP(truncate("f", 5000));
  OP(truncate("f", 4096));
  OP(truncate("f", 4097));
  OP(truncate("f", 0));
  say_stat("f");
  OP(truncate("f", -1));
  OP(truncate("f", 0x7fffffffffffffffLL));
  say_stat("f");

  const int fd = FD(open("f", O_RDWR));
  OP(write(fd, "abcdefgh", 8));
  OP(ftruncate(fd, 3));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(write(fd, "ij", 2));
  say_file("f");
  // What was cut off does not come back when the file grows again.
  OP(ftruncate(fd, 1));
  OP(ftruncate(fd, 12));
  say_file("f");
  OP(ftruncate(fd, -5));
  OP(ftruncate(fd, 1LL << 33));
  say_stat("f");
  OP(ftruncate(fd, 6));
  say_file("f");

  const int reader = FD(open("f", O_RDONLY));
  OP(ftruncate(reader, 0));
  OP(ftruncate(-1, 0));
  SETUP(mkdir("d", 0755));
  OP(truncate("d", 0));
  OP(truncate("missing", 0));
  OP(truncate("f/x", 0));
  SETUP(symlink("f", "link"));
  OP(truncate("link", 2));
  say_file("f");
  SETUP(mkfifo("fifo", 0644));
  OP(truncate("fifo", 0));
  OP(ftruncate(FD(open("d", O_RDONLY)), 0));
}
