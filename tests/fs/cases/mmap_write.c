// SPDX-License-Identifier: GPL-2.0
// Shared mappings that are written: seen by read(), kept by msync(), munmap() and close().
#include "case.h"
#include <sys/mman.h>

static void run_case(void) {
  char buf[16];
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(ftruncate(fd, 3 * kPage));
  unsigned char *map = MAP(mmap(NULL, 3 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  if (map == MAP_FAILED) return;
  memcpy(map + 10, "mapped", 6);
  memcpy(map + kPage - 2, "over", 4);
  OP(pread(fd, buf, 8, 9));
  say_bytes("read", buf, 8);
  OP(msync(map, kPage, MS_SYNC));
  OP(msync(map, 3 * kPage, MS_SYNC));
  say_file("f");
  memcpy(map + 2 * kPage, "third", 5);
  OP(msync(map, 3 * kPage, MS_ASYNC));
  OP(pread(fd, buf, 5, 2 * kPage));
  say_bytes("read", buf, 5);
  // Neighbours in one page: one written through the mapping, one with write().
  OP(pwrite(fd, "W", 1, 100));
  map[101] = 'M';
  OP(pwrite(fd, "W", 1, 102));
  map[103] = 'M';
  OP(pread(fd, buf, 4, 100));
  say_bytes("read", buf, 4);
  say_bytes("mapped", map + 100, 4);
  OP(fsync(fd));
  map[200] = 'U';
  OP(munmap(map, 3 * kPage));
  OP(fsync(fd));
  OP(close(fd));
  say_file("f");

  // Written through a mapping whose descriptor and name are gone.
  const int gone = FD(open("gone", O_RDWR | O_CREAT, 0644));
  OP(ftruncate(gone, kPage));
  unsigned char *kept = MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, gone, 0));
  SETUP(link("gone", "still"));
  OP(unlink("gone"));
  OP(close(gone));
  if (kept == MAP_FAILED) return;
  memcpy(kept, "kept", 4);
  OP(msync(kept, kPage, MS_SYNC));
  OP(munmap(kept, kPage));
  say_file("still");

  // A descriptor that appends writes where the mapping lies all the same.
  put("appended", "0123456789");
  const int append = FD(open("appended", O_RDWR | O_APPEND));
  unsigned char *start = MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, append, 0));
  if (start == MAP_FAILED) return;
  memcpy(start, "MAP", 3);
  OP(msync(start, kPage, MS_SYNC));
  OP(write(append, "end", 3));
  memcpy(start + 4, "PED", 3);
  OP(munmap(start, kPage));
  OP(close(append));
  say_file("appended");
}
