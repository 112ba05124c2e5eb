// SPDX-License-Identifier: GPL-2.0
// Advice about access: posix_fadvise(), readahead(), and reading after it.
#include "case.h"

static void run_case(void) {
  static char data[200000], back[200000];
  for (size_t i = 0; i < sizeof(data); i++) data[i] = (char)(i * 13 >> 4);
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(write(fd, data, sizeof(data)));
  OP(posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL));
  OP(posix_fadvise(fd, 0, 100000, POSIX_FADV_WILLNEED));
  OP(posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM));
  OP(posix_fadvise(fd, 0, 0, POSIX_FADV_NOREUSE));
  OP(posix_fadvise(fd, 0, 0, 77));
  OP(fsync(fd));
  OP(posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED));
  OP(readahead(fd, 0, 100000));
  OP(pread(fd, back, sizeof(back), 0));
  OP(memcmp(data, back, sizeof(data)));
  OP(readahead(FD(open("f", O_WRONLY)), 0, 100));
  OP(posix_fadvise(-1, 0, 0, POSIX_FADV_NORMAL));
}
