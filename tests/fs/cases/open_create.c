// SPDX-License-Identifier: GPL-2.0
// open() that makes files: exclusively, with each mode and mask, through links, where it cannot.
#include "case.h"

static void run_case(void) {
  int fd;
  SETUP(mkdir("d", 0755));
  OP(close(FD(open("a", O_CREAT | O_WRONLY, 0644))));
  FD(open("a", O_CREAT | O_EXCL | O_WRONLY, 0644));
  OP(close(FD(open("a", O_CREAT | O_WRONLY, 0600))));
  say_stat("a");
  OP(close(FD(open("b", O_CREAT | O_EXCL | O_RDWR, 0777))));
  say_stat("b");
  umask(0);
  OP(close(FD(open("c", O_CREAT | O_EXCL | O_RDWR, 07777))));
  say_stat("c");
  umask(077);
  OP(close(creat("e", 0666)));
  say_stat("e");
  umask(022);

  // The mode binds later opens, not the descriptor that comes with the creation.
  fd = FD(open("no-rights", O_CREAT | O_EXCL | O_RDWR, 0));
  OP(write(fd, "abc", 3));
  OP(lseek(fd, 0, SEEK_SET));
  char buf[8];
  OP(read(fd, buf, sizeof(buf)));
  OP(close(fd));
  say_stat("no-rights");

  FD(open("missing/f", O_CREAT | O_WRONLY, 0644));
  FD(open("a/f", O_CREAT | O_WRONLY, 0644));
  FD(open("new/", O_CREAT | O_WRONLY, 0644));
  FD(open("d", O_CREAT | O_WRONLY, 0644));
  FD(open("d", O_CREAT | O_RDONLY, 0644));
  FD(open("d", O_CREAT | O_EXCL | O_RDONLY, 0644));
  FD(open("", O_CREAT | O_WRONLY, 0644));
  FD(open(".", O_CREAT | O_WRONLY, 0644));

  // Through a link that points to nothing yet a file is made; exclusively it is not.
  SETUP(symlink("target", "dangling"));
  FD(open("dangling", O_CREAT | O_EXCL | O_WRONLY, 0644));
  OP(close(FD(open("dangling", O_CREAT | O_WRONLY, 0644))));
  say_stat("target");
  SETUP(symlink("a", "to-a"));
  FD(open("to-a", O_CREAT | O_EXCL | O_WRONLY, 0644));
  OP(close(FD(open("to-a", O_CREAT | O_WRONLY, 0644))));
  SETUP(symlink("missing/x", "nowhere"));
  FD(open("nowhere", O_CREAT | O_WRONLY, 0644));

  const int dir = FD(open("d", O_RDONLY));
  OP(close(FD(openat(dir, "inside", O_CREAT | O_WRONLY, 0640))));
  say_stat("d/inside");
}
