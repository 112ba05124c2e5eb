// SPDX-License-Identifier: GPL-2.0
// Private mappings that are written: the file does not change.
#include "case.h"
#include <sys/mman.h>

static void run_case(void) {
  put("f", "original");
  const int fd = FD(open("f", O_RDONLY));
  unsigned char *map = MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0));
  if (map == MAP_FAILED) return;
  memcpy(map, "MINE", 4);
  say_bytes("mapped", map, 8);
  say_file("f");
  OP(msync(map, kPage, MS_SYNC));
  const int writer = FD(open("f", O_RDWR));
  OP(pwrite(writer, "yours", 5, 0));
  say_bytes("mapped", map, 8);
  say_file("f");
  OP(mprotect(map, kPage, PROT_READ));
  OP(mprotect(map, kPage, PROT_READ | PROT_WRITE));
  OP(munmap(map, kPage));
  // A shared mapping of what is open for reading cannot become writable.
  map = MAP(mmap(NULL, kPage, PROT_READ, MAP_SHARED, fd, 0));
  OP(mprotect(map, kPage, PROT_READ | PROT_WRITE));
}
