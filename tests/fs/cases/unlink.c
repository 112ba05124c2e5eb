// SPDX-License-Identifier: GPL-2.0
// unlink(): what is open, mapped, of several names, and what cannot be removed.
#include "case.h"
#include <sys/mman.h>

static void run_case(void) {
  char buf[64];
  put("f", "0123456789");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  OP(unlink("d"));
  OP(unlink("missing"));
  OP(unlink("f/"));
  OP(unlink("f/x"));
  OP(unlink(""));
  OP(unlink("."));
  OP(unlink(".."));
  OP(unlink("link"));
  say_stat("f");

  // An open file lives on without a name, for all that have it open.
  const int fd = FD(open("f", O_RDWR));
  const int reader = FD(open("f", O_RDONLY));
  unsigned char *map = MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  OP(unlink("f"));
  say_stat("f");
  say_fstat("open", fd);
  OP(pread(reader, buf, 10, 0));
  say_bytes("read", buf, 10);
  OP(pwrite(fd, "written later", 13, 20));
  OP(pread(reader, buf, 64, 0));
  say_bytes("read", buf, 33);
  if (map != MAP_FAILED) memcpy(map, "mapped", 6);
  OP(pread(reader, buf, 8, 0));
  say_bytes("read", buf, 8);
  OP(ftruncate(fd, 4));
  OP(fchmod(fd, 0600));
  OP(fsync(fd));
  say_fstat("open", reader);
  // The name can be given anew meanwhile.
  put("f", "another");
  say_file("f");
  OP(pread(reader, buf, 8, 0));
  OP(close(fd));
  OP(close(reader));
  OP(munmap(map, kPage));
  say_file("f");

  OP(link("f", "g"));
  OP(unlink("f"));
  say_stat("g");
  say_file("g");
  const int dir = FD(open("d", O_RDONLY));
  SETUP(mkfifo("d/fifo", 0644));
  OP(unlinkat(dir, "fifo", 0));
  OP(unlinkat(dir, "fifo", 0));
  OP(unlinkat(dir, "fifo", 1 << 20));
}
