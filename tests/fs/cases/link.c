// SPDX-License-Identifier: GPL-2.0
// link(): one file with several names, and what cannot have another one.
#include "case.h"

static void run_case(void) {
  struct stat one, two;
  put("f", "content");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "to-f"));
  SETUP(mkfifo("fifo", 0644));
  OP(link("f", "g"));
  say_stat("f");
  say_stat("g");
  SETUP(stat("f", &one));
  SETUP(stat("g", &two));
  OP(one.st_ino == two.st_ino);
  put("g", "other content");
  say_file("f");
  OP(chmod("f", 0600));
  say_stat("g");
  OP(link("f", "g"));
  OP(link("f", "f"));
  OP(link("missing", "h"));
  OP(link("f", "missing/h"));
  OP(link("f", "f/h"));
  OP(link("d", "h"));
  OP(link("f", "d"));
  OP(link("f", "d/h"));
  OP(link("f", "h/"));
  OP(link("f", ""));
  OP(link("", "h"));
  say_stat("f");
  // Of the link itself, or of what it points to.
  OP(link("to-f", "also-link"));
  say_stat("also-link");
  say_stat("to-f");
  OP(linkat(AT_FDCWD, "to-f", AT_FDCWD, "followed", AT_SYMLINK_FOLLOW));
  say_stat("followed");
  OP(link("fifo", "also-fifo"));
  say_stat("also-fifo");

  // The last name counts: a removed one can come back, a file without one cannot get one.
  const int fd = FD(open("f", O_RDWR));
  OP(unlink("f"));
  OP(unlink("followed"));
  OP(unlink("d/h"));
  say_fstat("open", fd);
  OP(link("g", "f"));
  say_fstat("open", fd);
  OP(unlink("f"));
  OP(unlink("g"));
  say_fstat("open", fd);
  OP(link("f", "again"));
  OP(write(fd, "still", 5));
  const int dir = FD(open("d", O_RDONLY));
  OP(linkat(AT_FDCWD, "to-f", dir, "at", 0));
  say_stat("d/at");
}
