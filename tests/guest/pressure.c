/* SPDX-License-Identifier: GPL-2.0 */
/* A mount while memory is short: what the kernel throws out of its caches comes back as it was. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "guest.h"

enum { kFiles = 1500, kMiB = 1 << 20, kMapped = 40 * kMiB, kChunk = kMiB };

static long free_kib(void) {
  char text[4096], *at;

  REQUIRE(read_text("/proc/meminfo", text, sizeof(text)) > 0);
  at = strstr(text, "MemFree:");
  REQUIRE(at != NULL);
  return strtol(at + 8, NULL, 10);
}

/* Takes memory until little is free, then some that the caches have to give up. */
static int take_memory(void) {
  long more = 8;

  while (more > 0) {
    char *chunk = mmap(NULL, kChunk, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (chunk == MAP_FAILED) return 1;
    memset(chunk, 1, kChunk);
    if (free_kib() < 10 * 1024) more--;
  }
  return 0;
}

static void name_of(char *path, int number) {
  sprintf(path, "/mnt/d%d/f%d", number % 10, number);
}

static void make_files(void) {
  char path[64];

  for (int i = 0; i < 10; i++) {
    sprintf(path, "/mnt/d%d", i);
    REQUIRE(mkdir(path, 0755) == 0);
  }
  for (int i = 0; i < kFiles; i++) {
    name_of(path, i);
    REQUIRE(put_file(path, path, strlen(path)) == 0);
  }
}

static void expect_files(void) {
  char path[64];

  for (int i = 0; i < kFiles; i++) {
    name_of(path, i);
    if (file_holds(path, path, strlen(path))) continue;
    printf("  %s is not as it was\n", path);
    EXPECT(0);
    return;
  }
}

static void names_come_back(void) {
  make_files();
  EXPECT_EQ(in_process(take_memory), 0);
  expect_files();
  EXPECT_EQ(write_text("/proc/sys/vm/drop_caches", "2"), 0);
  expect_files();
}

static void mapped_pages_are_written_out(void) {
  const int fd = open("/mnt/f", O_CREAT | O_RDWR, 0644);
  unsigned char *map;
  long wrong = 0;

  REQUIRE(fd >= 0 && ftruncate(fd, kMapped) == 0);
  map = mmap(NULL, kMapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  REQUIRE(map != MAP_FAILED);
  for (long i = 0; i < kMapped; i++) map[i] = pattern(9, (unsigned long)i);
  EXPECT_EQ(in_process(take_memory), 0);
  EXPECT_EQ(munmap(map, kMapped), 0);
  EXPECT_EQ(fsync(fd), 0);
  map = mmap(NULL, kMapped, PROT_READ, MAP_SHARED, fd, 0);
  REQUIRE(map != MAP_FAILED);
  for (long i = 0; i < kMapped; i++) wrong += map[i] != pattern(9, (unsigned long)i);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(munmap(map, kMapped), 0);
  EXPECT_EQ(close(fd), 0);
}

int main(void) {
  static const struct guest_case cases[] = {
      {"names_come_back", GUEST_MOUNTED, names_come_back},
      {"mapped_pages_are_written_out", GUEST_MOUNTED, mapped_pages_are_written_out},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("pressure", cases);
}
