// SPDX-License-Identifier: GPL-2.0
// write(), pwrite() and writev(): over, across the end, past it, and what cannot be written.
#include "case.h"
#include <sys/uio.h>

static void run_case(void) {
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(write(fd, "", 0));
  say_stat("f");
  OP(write(fd, "hello", 5));
  OP(write(fd, " world", 6));
  OP(pwrite(fd, "J", 1, 0));
  OP(pwrite(fd, "across", 6, 8));
  OP(lseek(fd, 0, SEEK_CUR));
  say_file("f");
  OP(pwrite(fd, "x", 1, -1));
  OP(pwrite(fd, "", 0, 100));
  say_stat("f");

  char first[] = "one", third[] = "three";
  struct iovec parts[3] = {{first, 3}, {first, 0}, {third, 5}};
  OP(writev(fd, parts, 3));
  say_file("f");
  OP(writev(fd, parts, 0));
  OP(writev(fd, parts, opaque(-1)));
  OP(writev(fd, parts, opaque(1025)));
  parts[2].iov_len = (size_t)-1;
  OP(writev(fd, parts, 3));
  OP(write(fd, nowhere, 4));
  OP(lseek(fd, 0, SEEK_CUR));
  say_file("f");

  // As the pages of the file lie: within one, over a border, several at once.
  static char large[5 * kPage];
  memset(large, 'l', sizeof(large));
  OP(pwrite(fd, large, 10, kPage - 5));
  OP(pwrite(fd, large, 3 * kPage, 2 * kPage));
  memset(large, 'm', sizeof(large));
  OP(pwrite(fd, large, kPage, 3 * kPage));
  OP(pwrite(fd, large, 2 * kPage, 3 * kPage + 100));
  say_file("f");
  say_stat("f");

  const int reader = FD(open("f", O_RDONLY));
  OP(write(reader, "x", 1));
  OP(pwrite(reader, "x", 1, 0));
  OP(write(-1, "x", 1));
}
