/* SPDX-License-Identifier: GPL-2.0 */
/*
 * load_unload bare|mounted: loading and unloading a hundred times leaves nothing behind, and the
 * exports work for another module.
 *
 * A kernel that proves its locking remembers each load for good, and stops proving when it has no
 * room left. There it is as many times as leave it some.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "guest.h"
#include "image.h"
#include "proof.h"

enum { kCycles = 100, kFewestCycles = 30, kWarmUp = 5, kMaxCaches = 300, kFullPercent = 85 };

/* ---- the object caches, from /proc/slabinfo ---- */

struct cache {
  char name[64];
  long objects; /* in use */
};

struct caches {
  struct cache cache[kMaxCaches];
  int count;
};

static void count_objects(struct caches *all) {
  char line[512];
  FILE *info;

  EXPECT_EQ(write_text("/proc/sys/vm/drop_caches", "3"), 0);
  info = fopen("/proc/slabinfo", "re");
  REQUIRE(info != NULL);
  all->count = 0;
  while (all->count < kMaxCaches && fgets(line, sizeof(line), info)) {
    struct cache *it = &all->cache[all->count];
    if (sscanf(line, "%63s %ld", it->name, &it->objects) == 2) all->count++;
  }
  fclose(info);
}

static const struct cache *find_cache(const struct caches *all, const char *name) {
  for (int i = 0; i < all->count; i++) {
    if (strcmp(all->cache[i].name, name) == 0) return &all->cache[i];
  }
  return NULL;
}

static long growth(const struct caches *before, const struct caches *after, const char *name) {
  const struct cache *was = find_cache(before, name), *is = find_cache(after, name);

  return (is ? is->objects : 0) - (was ? was->objects : 0);
}

/* Objects left behind in each cycle are at least as many as there were cycles, in both rows of them
 * (`after`: behind the second one, if there was any). Those that only wait to be freed, or lie in a
 * processor's own stock, do not go on growing. */
static void expect_no_growth(const struct caches *before, const struct caches *middle, int first,
                             const struct caches *after, int second) {
  for (int i = 0; i < middle->count; i++) {
    const char *name = middle->cache[i].name;
    const long grown = growth(before, middle, name);
    const long more = after ? growth(middle, after, name) : second;
    if (grown < first || more < second) continue;
    printf("  cache %s: %ld objects more after %d cycles, %ld after %d\n", name, grown, first, more,
           second);
    EXPECT(grown < first || more < second);
  }
}

/* ---- cycles ---- */

static void load_and_unload(void) {
  REQUIRE(load_module("/tarn.ko", "") == 0);
  REQUIRE(unload_module("tarn") == 0);
}

/* A bit of everything that holds objects, then all of it away. */
static void use_a_mount(void) {
  REQUIRE(load_module("/tarn.ko", "") == 0);
  REQUIRE(mount_image("/ext2.img", "ext2", "user_xattr,acl", "/lower") == 0);
  REQUIRE(mount("/lower", "/mnt", "tarn", 0, NULL) == 0);
  EXPECT_EQ(mkdir("/mnt/dir", 0755), 0);
  EXPECT_EQ(put_file("/mnt/dir/file", "text", 4), 0);
  EXPECT_EQ(link("/mnt/dir/file", "/mnt/link"), 0);
  EXPECT_EQ(rename("/mnt/link", "/mnt/dir/other"), 0);
  EXPECT(file_holds("/mnt/dir/other", "text", 4));
  EXPECT_EQ(unlink("/mnt/dir/other"), 0);
  EXPECT_EQ(access("/mnt/none", F_OK), -1);
  REQUIRE(umount("/mnt") == 0);
  REQUIRE(unmount_image("/lower") == 0);
  REQUIRE(unload_module("tarn") == 0);
}

static int proof_has_room(void) {
  struct proof proof;

  return !read_proof(&proof) || !proof.on || proof.fullest_percent < kFullPercent;
}

static int repeat_row(void (*cycle)(void), int most) {
  int done = 0;

  for (; done < most && proof_has_room(); done++) cycle();
  return done;
}

static void repeat(void (*cycle)(void)) {
  static struct caches before, middle, after;

  for (int i = 0; i < kWarmUp; i++) cycle();
  count_objects(&before);
  const int first = repeat_row(cycle, kFewestCycles);
  count_objects(&middle);
  const int second = repeat_row(cycle, kCycles - kFewestCycles);
  count_objects(&after);
  if (first + second < kCycles)
    printf("  %d times: there is no room to prove the locks of more\n", first + second);
  EXPECT_EQ(first, kFewestCycles);
  expect_no_growth(&before, &middle, first, second ? &after : NULL, second);
}

static void a_hundred_times(void) {
  repeat(load_and_unload);
}

static void a_hundred_times_with_a_mount(void) {
  repeat(use_a_mount);
}

static void a_mounted_module_stays(void) {
  EXPECT_EQ(unload_module("tarn"), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
}

static void a_second_load_is_refused(void) {
  EXPECT_EQ(load_module("/tarn.ko", ""), -1);
  EXPECT_EQ(errno, EEXIST);
}

static void the_exports_serve_another_module(void) {
  char log[512];

  unlink("/tmp/ox_debug");
  REQUIRE(load_module("/tarn_exports.ko", "") == 0);
  EXPECT_EQ(unload_module("tarn"), -1);
  EXPECT_EQ(unload_module("tarn_exports"), 0);
  EXPECT(read_text("/tmp/ox_debug", log, sizeof(log)) > 0);
  EXPECT(strncmp(log, "I[", 2) == 0);
  EXPECT(strstr(log, "]exports_use.cc:") != NULL);
  EXPECT(strstr(log, ":use_log:line 1\n") != NULL);
  EXPECT(strstr(log, "not written") == NULL);
}

int main(int argc, char **argv) {
  static const struct guest_case bare[] = {
      {"a_hundred_times", GUEST_BARE, a_hundred_times},
      {"a_second_load_is_refused", GUEST_LOADED, a_second_load_is_refused},
      {"the_exports_serve_another_module", GUEST_LOADED, the_exports_serve_another_module},
      {NULL, GUEST_BARE, NULL},
  };
  static const struct guest_case mounted[] = {
      {"a_hundred_times_with_a_mount", GUEST_BARE, a_hundred_times_with_a_mount},
      {"a_mounted_module_stays", GUEST_MOUNTED, a_mounted_module_stays},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("load_unload", argc > 1 && strcmp(argv[1], "mounted") == 0 ? mounted : bare);
}
