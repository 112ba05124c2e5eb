// SPDX-License-Identifier: GPL-2.0
// fsync(), fdatasync() and sync() of files, directories and what cannot be synchronised.
#include "case.h"

static void run_case(void) {
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(fsync(fd));
  OP(write(fd, "data", 4));
  OP(fsync(fd));
  OP(fdatasync(fd));
  OP(ftruncate(fd, 10000));
  OP(fdatasync(fd));
  const int reader = FD(open("f", O_RDONLY));
  OP(fsync(reader));
  OP(unlink("f"));
  OP(fsync(fd));
  const int dir = FD(open(".", O_RDONLY));
  OP(fsync(dir));
  OP(fdatasync(dir));
  OP(fsync(-1));
  SETUP(mkfifo("fifo", 0644));
  OP(fsync(FD(open("fifo", O_RDWR))));
  sync();
  put("g", "after");
  OP(sync_file_range(FD(open("g", O_RDWR)), 0, 0, SYNC_FILE_RANGE_WRITE));
  say_file("g");
}
