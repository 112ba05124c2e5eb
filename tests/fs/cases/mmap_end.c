// SPDX-License-Identifier: GPL-2.0
// Mappings beyond the end of the file, of one that shrinks, and of one that grows.
#include "case.h"
#include <signal.h>
#include <sys/mman.h>

static unsigned char *map;

static void touch_second_page(void) {
  _exit(((volatile unsigned char *)map)[kPage]);
}
static void write_second_page(void) {
  ((volatile unsigned char *)map)[kPage] = 1;
  _exit(0);
}

static void run_case(void) {
  put("f", "short");
  const int fd = FD(open("f", O_RDWR));
  map = MAP(mmap(NULL, 2 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  if (map == MAP_FAILED) return;
  say_bytes("the first page", map, kPage);
  in_child(touch_second_page);
  in_child(write_second_page);
  OP(ftruncate(fd, kPage + 1));
  in_child(touch_second_page);
  in_child(write_second_page);
  OP(ftruncate(fd, kPage));
  in_child(touch_second_page);
  OP(ftruncate(fd, 2));
  say_bytes("after it was cut", map, 8);
  OP(ftruncate(fd, 8));
  say_bytes("after it grew again", map, 8);

  // What is written into the last page beyond the end is not of the file.
  memcpy(map + 8, "beyond", 6);
  OP(msync(map, kPage, MS_SYNC));
  OP(munmap(map, 2 * kPage));
  say_file("f");
}
