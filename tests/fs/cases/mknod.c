// SPDX-License-Identifier: GPL-2.0
// mknod() and mkfifo(): FIFOs, sockets and files.
#include "case.h"

static void run_case(void) {
  OP(mkfifo("fifo", 0644));
  say_stat("fifo");
  OP(mkfifo("fifo", 0644));
  OP(mknod("socket", S_IFSOCK | 0600, 0));
  say_stat("socket");
  OP(mknod("file", S_IFREG | 0640, 0));
  say_stat("file");
  OP(mknod("plain", 0644, 0));
  say_stat("plain");
  OP(mknod("dir", S_IFDIR | 0755, 0));
  OP(mknod("link", S_IFLNK | 0755, 0));
  OP(mknod("missing/x", S_IFIFO | 0644, 0));
  OP(mknod("file/x", S_IFIFO | 0644, 0));
  FD(open("socket", O_RDWR));
  OP(close(FD(open("file", O_RDWR))));
  umask(077);
  OP(mkfifo("masked", 0666));
  say_stat("masked");
  umask(022);
  OP(unlink("fifo"));
  OP(unlink("socket"));
  say_stat("fifo");
}
