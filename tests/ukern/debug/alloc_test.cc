// SPDX-License-Identifier: GPL-2.0
// Failing allocations, leaks and wrong frees.
#include <linux/err.h>
#include <linux/kthread.h>
#include <linux/slab.h>

#include "tests/harness/case.h"
#include "ukern/mm/fault.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

namespace {

kmem_cache_t *make_cache() {
  return kmem_cache_create("leaky_cache", 32, 0, 0, NULL, NULL);
}

int nothing(void *) {
  return 0;
}

#if UKERN_DEBUG

void destroy_with_object() {
  kmem_cache_t *cache = make_cache();
  kmem_cache_alloc(cache, GFP_KERNEL);
  kmem_cache_destroy(cache);
}

void free_twice() {
  void *block = kmalloc(10, GFP_KERNEL);
  kfree(block);
  kfree(block);
}

void free_into_other_cache() {
  kmem_cache_t *cache = make_cache();
  kmem_cache_free(names_cachep, kmem_cache_alloc(cache, GFP_KERNEL));
}

void zero_flag() {
  kmalloc(10, GFP_KERNEL | __GFP_ZERO);
}

#endif

}  // namespace

CASE(fault, the_nth_allocation_fails_once) {
  uk_fault_arm(2);
  void *blocks[3];
  for (auto &block : blocks) block = kmalloc(10, GFP_KERNEL);
  EXPECT_EQ(uk_fault_count(), 3ul);
  uk_fault_arm(0);
  EXPECT_NE(blocks[0], (void *)NULL);
  EXPECT_EQ(blocks[1], (void *)NULL);
  EXPECT_NE(blocks[2], (void *)NULL);
  for (auto *block : blocks) kfree(block);
}

CASE(fault, each_kind_of_allocation_is_a_point) {
  kmem_cache_t *cache = make_cache();
  REQUIRE_TRUE(cache != NULL);
  uk_fault_arm(1);
  EXPECT_EQ(kmem_cache_alloc(cache, GFP_KERNEL), (void *)NULL);
  uk_fault_arm(1);
  EXPECT_EQ(kmem_cache_zalloc(cache, GFP_KERNEL), (void *)NULL);
  uk_fault_arm(1);
  EXPECT_EQ(__getname(), (void *)NULL);
  uk_fault_arm(1);
  EXPECT_EQ(kmem_cache_create("another", 32, 0, 0, NULL, NULL), (kmem_cache_t *)NULL);
  uk_fault_arm(1);
  EXPECT_EQ(PTR_ERR(kthread_create(nothing, NULL, "never")), (long)-ENOMEM);
  uk_fault_arm(2);
  EXPECT_EQ(PTR_ERR(kthread_create(nothing, NULL, "never")), (long)-ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
}

CASE(fault, no_points_while_paused) {
  uk_fault_arm(1);
  fault_pause();
  void *block = kmalloc(10, GFP_KERNEL);
  fault_resume();
  EXPECT_NE(block, (void *)NULL);
  EXPECT_EQ(uk_fault_count(), 0ul);
  uk_fault_arm(0);
  kfree(block);
}

CASE(alloc, duplicate_cache_name_is_refused) {
  kmem_cache_t *cache = make_cache();
  EXPECT_EQ(make_cache(), (kmem_cache_t *)NULL);
  EXPECT_TRUE(case_logged("kmem_cache_create: duplicate cache leaky_cache"));
  EXPECT_EQ(kmem_cache_destroy(cache), 0);
}

CASE(alloc, too_large_a_block_is_refused) {
  EXPECT_EQ(kmalloc(128 * 1024 + 1, GFP_KERNEL), (void *)NULL);
}

#if UKERN_DEBUG

CASE(alloc, destroying_a_cache_in_use_is_reported) {
  EXPECT_REPORT(destroy_with_object, "1 objects of leaky_cache still allocated");
  EXPECT_REPORT(destroy_with_object, "alloc_test.cc");
}

CASE(alloc, leaked_block_is_reported_at_shutdown) {
  kmalloc(77, GFP_KERNEL);
  EXPECT_LEAK("1 objects of kmalloc still allocated at shutdown");
  EXPECT_LEAK("77 bytes, allocated at");
  EXPECT_LEAK("alloc_leaked_block_is_reported_at_shutdown");
}

CASE(alloc, leaked_cache_and_object_are_reported_at_shutdown) {
  kmem_cache_alloc(make_cache(), GFP_KERNEL);
  EXPECT_LEAK("1 objects of leaky_cache still allocated at shutdown");
  EXPECT_LEAK("cache leaky_cache still exists at shutdown");
}

CASE(alloc, task_left_behind_is_reported) {
  uk_cred cred = {};
  cred.pid = 77;
  uk_task_new(&cred);
  EXPECT_LEAK("task 77 (user) is still there at shutdown, with 1 references");
}

CASE(alloc, wrong_frees_are_reported) {
  EXPECT_REPORT(free_twice, "given back to kfree, but nobody gave it out");
  EXPECT_REPORT(free_into_other_cache, "given back to names_cache, which did not give it out");
}

CASE(alloc, zero_flag_is_not_for_the_allocator) {
  EXPECT_REPORT(zero_flag, "BUG at");
}

#endif
