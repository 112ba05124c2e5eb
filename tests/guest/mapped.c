/* SPDX-License-Identifier: GPL-2.0 */
/* Files of a mount mapped into memory. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "guest.h"

enum { kPage = 4096, kPages = 64, kSize = kPages * kPage };

static unsigned char data[kSize];

static unsigned char *map_file(const char *path, int flags, size_t size, int share) {
  const int fd = open(path, flags, 0644);
  unsigned char *map;

  REQUIRE(fd >= 0);
  map = mmap(NULL, size, PROT_READ | (flags & O_RDWR ? PROT_WRITE : 0), share, fd, 0);
  close(fd);
  REQUIRE(map != MAP_FAILED);
  return map;
}

static void what_is_written_is_in_the_map(void) {
  unsigned char *map;

  fill_pattern(data, kSize, 1);
  REQUIRE(put_file("/mnt/f", data, kSize) == 0);
  map = map_file("/mnt/f", O_RDONLY, kSize, MAP_SHARED);
  EXPECT(memcmp(map, data, kSize) == 0);
  EXPECT_EQ(munmap(map, kSize), 0);
}

static void what_is_stored_in_the_map_reaches_the_lower_file(void) {
  unsigned char *map;

  memset(data, 0, kSize);
  REQUIRE(put_file("/mnt/f", data, kSize) == 0);
  map = map_file("/mnt/f", O_RDWR, kSize, MAP_SHARED);
  fill_pattern(data, kSize, 2);
  memcpy(map, data, kSize);
  EXPECT_EQ(msync(map, kSize, MS_SYNC), 0);
  EXPECT(file_holds("/lower/f", data, kSize));
  EXPECT_EQ(munmap(map, kSize), 0);
  EXPECT(file_holds("/mnt/f", data, kSize));
}

static void sync_writes_what_was_stored(void) {
  unsigned char *map;

  REQUIRE(put_file("/mnt/f", data, kPage) == 0);
  map = map_file("/mnt/f", O_RDWR, kPage, MAP_SHARED);
  memset(map, 'x', kPage);
  memset(data, 'x', kPage);
  EXPECT_EQ(munmap(map, kPage), 0);
  sync();
  EXPECT(file_holds("/lower/f", data, kPage));
}

static void a_private_map_keeps_its_changes(void) {
  unsigned char *map;

  fill_pattern(data, kPage, 3);
  REQUIRE(put_file("/mnt/f", data, kPage) == 0);
  map = map_file("/mnt/f", O_RDWR, kPage, MAP_PRIVATE);
  memset(map, 0, kPage);
  EXPECT_EQ(munmap(map, kPage), 0);
  EXPECT(file_holds("/mnt/f", data, kPage));
}

static void writes_beside_a_map_are_seen_in_it(void) {
  unsigned char *map;
  int fd;

  memset(data, 'a', kPage);
  REQUIRE(put_file("/mnt/f", data, kPage) == 0);
  map = map_file("/mnt/f", O_RDWR, kPage, MAP_SHARED);
  EXPECT_EQ(map[10], 'a');
  fd = open("/mnt/f", O_RDWR);
  EXPECT_EQ(pwrite(fd, "bcd", 3, 10), 3);
  EXPECT(memcmp(map + 9, "abcda", 5) == 0);
  map[20] = 'z';
  EXPECT_EQ(pread(fd, data, 3, 19), 3);
  EXPECT(memcmp(data, "aza", 3) == 0);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(munmap(map, kPage), 0);
}

static unsigned char *beyond;

static int touch_beyond(void) {
  return *(volatile unsigned char *)beyond;
}

static void beyond_the_end_is_no_memory(void) {
  REQUIRE(put_file("/mnt/f", "x", 1) == 0);
  beyond = map_file("/mnt/f", O_RDWR, 2 * kPage, MAP_SHARED) + kPage;
  EXPECT_EQ(beyond[-1], 0);
  EXPECT_EQ(in_process(touch_beyond), -1);
  EXPECT_EQ(munmap(beyond - kPage, 2 * kPage), 0);
}

static int store_from_a_child(void) {
  beyond[0] = 'c';
  return 0;
}

static void processes_share_a_map(void) {
  REQUIRE(put_file("/mnt/f", "x", 1) == 0);
  beyond = map_file("/mnt/f", O_RDWR, kPage, MAP_SHARED);
  EXPECT_EQ(in_process(store_from_a_child), 0);
  EXPECT_EQ(beyond[0], 'c');
  EXPECT_EQ(munmap(beyond, kPage), 0);
  EXPECT(file_holds("/mnt/f", "c", 1));
}

int main(void) {
  static const struct guest_case cases[] = {
      {"what_is_written_is_in_the_map", GUEST_MOUNTED, what_is_written_is_in_the_map},
      {"what_is_stored_in_the_map_reaches_the_lower_file", GUEST_MOUNTED,
       what_is_stored_in_the_map_reaches_the_lower_file},
      {"sync_writes_what_was_stored", GUEST_MOUNTED, sync_writes_what_was_stored},
      {"a_private_map_keeps_its_changes", GUEST_MOUNTED, a_private_map_keeps_its_changes},
      {"writes_beside_a_map_are_seen_in_it", GUEST_MOUNTED, writes_beside_a_map_are_seen_in_it},
      {"beyond_the_end_is_no_memory", GUEST_MOUNTED, beyond_the_end_is_no_memory},
      {"processes_share_a_map", GUEST_MOUNTED, processes_share_a_map},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("mapped", cases);
}
