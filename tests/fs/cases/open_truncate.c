// SPDX-License-Identifier: GPL-2.0
// open() with O_TRUNC, alone and beside others that have the file open.
#include "case.h"

static void run_case(void) {
  char buf[64];
  put("f", "0123456789");
  const int reader = FD(open("f", O_RDONLY));
  OP(read(reader, buf, 4));
  OP(close(FD(open("f", O_WRONLY | O_TRUNC))));
  say_stat("f");
  say_fstat("reader", reader);
  OP(read(reader, buf, 4));

  put("f", "abcdefgh");
  OP(read(reader, buf, 64));
  say_bytes("what the reader got", buf, 4);
  OP(close(FD(open("f", O_RDONLY | O_TRUNC))));
  say_stat("f");
  const int writer = FD(open("f", O_RDWR | O_CREAT | O_TRUNC, 0600));
  OP(pwrite(writer, "tail", 4, 6));
  OP(close(FD(open("f", O_WRONLY | O_TRUNC))));
  OP(write(writer, "ab", 2));
  OP(close(FD(open("f", O_WRONLY | O_TRUNC))));
  OP(write(writer, "cd", 2));
  say_file("f");
  say_stat("f");
  FD(open("missing", O_WRONLY | O_TRUNC));
  OP(close(FD(open("new", O_WRONLY | O_CREAT | O_TRUNC, 0644))));
  say_stat("new");
}
