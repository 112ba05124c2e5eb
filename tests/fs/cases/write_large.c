// SPDX-License-Identifier: GPL-2.0
// A write of several MiB in one call, and one that is read in other portions than it was written
// in.
#include "case.h"

enum { kLarge = 5 * 1024 * 1024 + 123 };

static void run_case(void) {
  unsigned char *data = malloc(kLarge), *back = malloc(kLarge);
  for (size_t i = 0; i < kLarge; i++) data[i] = (unsigned char)(i * 2654435761u >> 13);
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(write(fd, data, kLarge));
  OP(lseek(fd, 0, SEEK_CUR));
  say_stat("f");
  OP(pread(fd, back, kLarge, 0));
  OP(memcmp(data, back, kLarge));

  memset(back, 0, kLarge);
  const int reader = FD(open("f", O_RDONLY));
  size_t at = 0;
  for (ssize_t got; (got = read(reader, back + at, 10007)) > 0;) at += (size_t)got;
  say("read %zu bytes in portions", at);
  OP(memcmp(data, back, kLarge));
  free(data);
  free(back);
}
