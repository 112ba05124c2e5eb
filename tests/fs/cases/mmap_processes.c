// SPDX-License-Identifier: GPL-2.0
// A shared mapping in two processes, and mappings that grow, are locked and looked at.
#include "case.h"
#include <sys/mman.h>

static void run_case(void) {
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(ftruncate(fd, 2 * kPage));
  unsigned char *map = MAP(mmap(NULL, 2 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  if (map == MAP_FAILED) return;
  struct turn to_child, to_parent;
  make_turn(&to_child);
  make_turn(&to_parent);
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    wait_for(&to_child);
    say_bytes("the child sees", map, 12);
    memcpy(map + kPage, "from child", 10);
    pass(&to_parent);
    wait_for(&to_child);
    _exit(0);
  }
  memcpy(map, "from parent", 11);
  pass(&to_child);
  wait_for(&to_parent);
  say_bytes("the parent sees", map + kPage, 10);
  pass(&to_child);
  say_end("the child", pid);

  OP(ftruncate(fd, 4 * kPage));
  map = MAP(mremap(map, 2 * kPage, 4 * kPage, MREMAP_MAYMOVE));
  if (map == MAP_FAILED) return;
  memcpy(map + 3 * kPage, "grown", 5);
  OP(madvise(map, 4 * kPage, MADV_WILLNEED));
  OP(madvise(map, 4 * kPage, MADV_RANDOM));
  OP(mlock(map, kPage));
  OP(munlock(map, kPage));
  unsigned char in_core[4];
  OP(mincore(map, 4 * kPage, in_core));
  OP(madvise(map, 4 * kPage, MADV_DONTNEED));
  say_bytes("after the pages were given up", map + 3 * kPage, 6);
  // A mount reads over NFS what the lower file has, and when the pages come there is the kernel's
  // affair.
  if (over_nfs()) SETUP(msync(map, 4 * kPage, MS_SYNC));
  OP(munmap(map, 4 * kPage));
  say_file("f");
}
