// SPDX-License-Identifier: GPL-2.0
// Direct I/O: aligned as every file system wants it, and not.
#include "case.h"

static void run_case(void) {
  unsigned char *area = NULL;
  if (posix_memalign((void **)&area, kPage, 4 * kPage) != 0) say("setting up: no memory");
  memset(area, 'd', 4 * kPage);
  const int fd = FD(open("f", O_RDWR | O_CREAT | O_DIRECT, 0644));
  if (fd < 0) return;
  OP(write(fd, area, 2 * kPage));
  OP(pwrite(fd, area, kPage, 4 * kPage));
  OP(lseek(fd, 0, SEEK_CUR));
  memset(area, 'x', 4 * kPage);
  OP(pread(fd, area, 4 * kPage, 0));
  say_bytes("read", area, 4 * kPage);
  OP(pread(fd, area, 4 * kPage, 4 * kPage));
  OP(pread(fd, area, kPage, 64 * kPage));
  OP(pwrite(fd, area + 1, 100, 3));
  OP(pread(fd, area + 1, 100, 3));

  // Beside one that goes through the page cache.
  const int cached = FD(open("f", O_RDWR));
  OP(pwrite(cached, "cached", 6, 0));
  OP(pread(fd, area, kPage, 0));
  say_bytes("read", area, 16);
  memset(area, 'D', kPage);
  OP(pwrite(fd, area, kPage, 0));
  OP(pread(cached, area + kPage, 16, 0));
  say_bytes("read", area + kPage, 16);
  OP(close(fd));
  OP(close(cached));
  say_stat("f");
}
