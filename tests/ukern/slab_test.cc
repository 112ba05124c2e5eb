// SPDX-License-Identifier: GPL-2.0
#include <linux/slab.h>
#include <linux/string.h>

#include "tests/harness/case.h"

namespace {

int constructed, destroyed;
unsigned long told;

void construct(void *object, kmem_cache_t *, unsigned long flags) {
  constructed++;
  told = flags;
  *(int *)object = 42;
}

void destroy(void *, kmem_cache_t *, unsigned long) {
  destroyed++;
}

bool all_zero(const void *block, size_t size) {
  const char *bytes = (const char *)block;
  for (size_t i = 0; i < size; i++)
    if (bytes[i]) return false;
  return true;
}

}  // namespace

CASE(slab, cache_gives_and_takes_objects) {
  kmem_cache_t *cache = kmem_cache_create("slab_test", 40, 0, 0, NULL, NULL);
  REQUIRE_TRUE(cache != NULL);
  EXPECT_GE(kmem_cache_size(cache), 40u);
  EXPECT_STREQ(kmem_cache_name(cache), "slab_test");
  void *a = kmem_cache_alloc(cache, GFP_KERNEL);
  void *b = kmem_cache_zalloc(cache, GFP_ATOMIC);
  REQUIRE_TRUE(a != NULL);
  REQUIRE_TRUE(b != NULL);
  EXPECT_NE(a, b);
  EXPECT_TRUE(all_zero(b, 40));
  memset(a, 1, 40);
  kmem_cache_free(cache, a);
  kmem_cache_free(cache, b);
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
}

CASE(slab, constructor_has_run_on_every_object) {
  constructed = destroyed = 0;
  kmem_cache_t *cache = kmem_cache_create("slab_test_ctor", 64, 0, 0, construct, destroy);
  REQUIRE_TRUE(cache != NULL);
  int *object = (int *)kmem_cache_alloc(cache, GFP_KERNEL);
  REQUIRE_TRUE(object != NULL);
  EXPECT_EQ(*object, 42);
  EXPECT_GE(constructed, 1);
  EXPECT_TRUE((told & SLAB_CTOR_CONSTRUCTOR) && !(told & SLAB_CTOR_VERIFY));
  kmem_cache_free(cache, object);
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
  EXPECT_EQ(destroyed, constructed);
}

// More than wait for their next user.
CASE(slab, objects_that_were_given_back_are_given_out_once) {
  enum { COUNT = 400, SIZE = 4096 };
  kmem_cache_t *cache = kmem_cache_create("slab_test_again", SIZE, 0, 0, NULL, NULL);
  REQUIRE_TRUE(cache != NULL);
  unsigned **objects = (unsigned **)kmalloc(COUNT * sizeof(*objects), GFP_KERNEL);
  REQUIRE_TRUE(objects != NULL);
  for (int round = 0; round < 3; round++) {
    for (int i = 0; i < COUNT; i++) {
      objects[i] = (unsigned *)kmem_cache_alloc(cache, GFP_KERNEL);
      REQUIRE_TRUE(objects[i] != NULL);
      for (size_t at = 0; at < SIZE / sizeof(unsigned); at++) objects[i][at] = i;
    }
    int damaged = 0;
    for (int i = 0; i < COUNT; i++) {
      for (size_t at = 0; at < SIZE / sizeof(unsigned); at++)
        damaged += objects[i][at] != (unsigned)i;
      kmem_cache_free(cache, objects[i]);
    }
    EXPECT_EQ(damaged, 0);
  }
  kfree(objects);
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
}

CASE(slab, alignment_is_kept) {
  kmem_cache_t *cache = kmem_cache_create("slab_test_align", 24, 256, 0, NULL, NULL);
  kmem_cache_t *line = kmem_cache_create("slab_test_line", 24, 0, SLAB_HWCACHE_ALIGN, NULL, NULL);
  REQUIRE_TRUE(cache != NULL && line != NULL);
  void *object = kmem_cache_alloc(cache, GFP_KERNEL);
  EXPECT_EQ((unsigned long)object % 256, 0ul);
  kmem_cache_free(cache, object);
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
  EXPECT_EQ(kmem_cache_destroy(line), 0);
}

CASE(slab, kmalloc_zeroing_and_limits) {
  char *block = (char *)kmalloc(100, GFP_KERNEL);
  REQUIRE_TRUE(block != NULL);
  memset(block, 7, 100);
  kfree(block);

  block = (char *)kzalloc(5000, GFP_KERNEL);
  REQUIRE_TRUE(block != NULL);
  EXPECT_TRUE(all_zero(block, 5000));
  kfree(block);

  block = (char *)kcalloc(10, 30, GFP_ATOMIC);
  REQUIRE_TRUE(block != NULL);
  EXPECT_TRUE(all_zero(block, 300));
  kfree(block);
  EXPECT_EQ(kcalloc(1UL << 33, 1UL << 33, GFP_KERNEL), (void *)NULL);

  block = (char *)kmalloc(128 * 1024, GFP_KERNEL);
  EXPECT_NE(block, (char *)NULL);
  kfree(block);
  kfree(NULL);
}

CASE(slab, kmalloc_of_nothing_gives_a_block) {
  void *block = kmalloc(0, GFP_KERNEL);
  EXPECT_NE(block, (void *)NULL);
  kfree(block);
}

CASE(slab, names_hold_a_path) {
  char *name = (char *)__getname();
  REQUIRE_TRUE(name != NULL);
  memset(name, 'x', 4096);
  __putname(name);
}

CASE(slab, kstrdup_copies) {
  char *copy = kstrdup("text", GFP_KERNEL);
  EXPECT_STREQ(copy, "text");
  kfree(copy);
  EXPECT_EQ(kstrdup(NULL, GFP_KERNEL), (char *)NULL);
}
