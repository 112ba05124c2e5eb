// SPDX-License-Identifier: GPL-2.0
// Private and shared mappings that are read, beside writes, truncation and read().
#include "case.h"
#include <sys/mman.h>

static void run_case(void) {
  char page[kPage];
  memset(page, 'a', sizeof(page));
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(write(fd, page, kPage));
  OP(write(fd, "second page", 11));
  unsigned char *shared = MAP(mmap(NULL, 2 * kPage, PROT_READ, MAP_SHARED, fd, 0));
  unsigned char *private = MAP(mmap(NULL, 2 * kPage, PROT_READ, MAP_PRIVATE, fd, 0));
  if (shared == MAP_FAILED || private == MAP_FAILED) return;
  say_bytes("shared", shared, kPage + 20);
  say_bytes("private", private, kPage + 20);
  // What is written is seen at once.
  OP(pwrite(fd, "NEW", 3, 100));
  say_bytes("shared", shared + 98, 8);
  say_bytes("private", private + 98, 8);
  OP(pwrite(fd, "END", 3, kPage + 11));
  say_bytes("shared", shared + kPage, 20);
  // A mapping keeps the file, and its own pages, whatever becomes of the descriptor and the name.
  OP(close(fd));
  OP(unlink("f"));
  say_bytes("shared", shared + kPage, 20);
  OP(munmap(shared, 2 * kPage));
  say_bytes("private", private + kPage, 20);

  put("small", "small");
  const int small = FD(open("small", O_RDONLY));
  unsigned char *part = MAP(mmap(NULL, kPage, PROT_READ, MAP_SHARED, small, 0));
  if (part != MAP_FAILED) say_bytes("a page of a small file", part, kPage);
  MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, small, 0));
  MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE, small, 0));
  MAP(mmap(NULL, kPage, PROT_READ, MAP_SHARED, small, 100));
  MAP(mmap(NULL, 0, PROT_READ, MAP_SHARED, small, 0));
  MAP(mmap(NULL, kPage, PROT_READ, MAP_SHARED, FD(open("small", O_WRONLY)), 0));
  MAP(mmap(NULL, kPage, PROT_READ, MAP_SHARED, FD(open(".", O_RDONLY)), 0));
}
