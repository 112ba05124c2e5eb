// SPDX-License-Identifier: GPL-2.0
// sendfile() into a file, which Linux 2.6.18 refuses, and copy_file_range(), which it lacks.
#include "case.h"
#include <sys/sendfile.h>
#include <sys/syscall.h>

static long copy_range(int in, loff_t *from, int out, loff_t *to, size_t size) {
  return syscall(SYS_copy_file_range, in, from, out, to, size, 0);
}

static void run_case(void) {
  put("in", "0123456789abcdef");
  const int in = FD(open("in", O_RDONLY)), out = FD(open("out", O_RDWR | O_CREAT, 0644));
  off_t at = 2;
  OP(sendfile(out, in, &at, 8));
  say_file("out");
  loff_t from = 4, to = 1;
  OP(copy_range(in, &from, out, &to, 5));
  say_file("out");
  OP(copy_range(in, NULL, out, NULL, 100));
  say_file("out");
  OP(copy_range(out, NULL, in, NULL, 1));
}
