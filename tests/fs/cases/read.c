// SPDX-License-Identifier: GPL-2.0
// read(), pread() and readv(): parts, the end, past it, and what cannot be read.
#include "case.h"
#include <sys/uio.h>

static void run_case(void) {
  char buf[64] = "", more[64] = "";
  put("f", "0123456789abcdef");
  const int fd = FD(open("f", O_RDONLY));
  OP(read(fd, buf, 0));
  OP(read(fd, buf, 4));
  say_bytes("read", buf, 4);
  OP(read(fd, buf, sizeof(buf)));
  say_bytes("read", buf, 12);
  OP(read(fd, buf, sizeof(buf)));
  OP(lseek(fd, 0, SEEK_CUR));

  OP(pread(fd, buf, 4, 10));
  say_bytes("read", buf, 4);
  OP(pread(fd, buf, 10, 12));
  OP(pread(fd, buf, 10, 16));
  OP(pread(fd, buf, 10, 1 << 20));
  OP(pread(fd, buf, 10, -1));
  OP(pread(fd, buf, 10, 0x7fffffffffffffffLL));
  OP(lseek(fd, 0, SEEK_CUR));

  OP(lseek(fd, 2, SEEK_SET));
  struct iovec parts[3] = {{buf, 3}, {more, 0}, {more, 5}};
  OP(readv(fd, parts, 3));
  say_bytes("first", buf, 3);
  say_bytes("third", more, 5);
  OP(readv(fd, parts, 0));
  OP(readv(fd, parts, opaque(-1)));
  OP(readv(fd, parts, opaque(1025)));
  parts[1].iov_len = (size_t)-1;
  OP(readv(fd, parts, 3));
  OP(lseek(fd, 0, SEEK_CUR));

  OP(read(fd, nowhere, 4));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(read(-1, buf, 4));
  const int dir = FD(open(".", O_RDONLY));
  OP(read(dir, buf, 4));
  OP(pread(dir, buf, 4, 0));
  OP(write(dir, buf, 4));
  const int writer = FD(open("f", O_WRONLY));
  OP(read(writer, buf, 4));
  OP(pread(writer, buf, 4, 0));
}
