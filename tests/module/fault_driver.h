/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Fails the first, the second, ... allocation of an operation until it runs through without
 * reaching the one that was to fail, and looks after each run at what every run must leave: the
 * result and the log lines are the caller's to judge; that no block is missing, no lock is held and
 * the address limit is as it was is seen to here. Only what the calling thread allocates is failed.
 */
#ifndef TESTS_MODULE_FAULT_DRIVER_H
#define TESTS_MODULE_FAULT_DRIVER_H

#include "ox_types.h"
#include "tests/module/kit/log.h"
#include "tests/module/kit/mount.h"
#include "ukern/testing/uk_fault.h"
#include "ukern/mm/alloc_track.h"
#include "ukern/sched/task.h"
#include "ukern/sync/lockcheck.h"
#include "rule_set.h"
#include "dir_set.h"

/* One run of the operation. */
struct fault_run {
  unsigned long n;        /* the allocation that was to fail */
  bool failed;            /* it was reached */
  long result;            /* the operation's */
  unsigned long long log; /* its first log line, if it wrote any */
  long allocated;         /* what it left counted in g_total_alloc */
  long blocks; /* kmalloc blocks that it left allocated, if they are counted (debug builds) */
};

/* More than any operation allocates. */
constexpr unsigned long kMostFaults = 2000;

/* Blocks that are out, of the kinds that no file system keeps for later. In release builds nobody
 * counts them; what the shutdown reports remains. */
inline long blocks_out(const struct kmem_cache *cache) {
#if UKERN_DEBUG
  return static_cast<long>(alloc_track_count(cache, nullptr));
#else
  (void)cache;
  return 0;
#endif
}

class block_balance {
 public:
  /* What this scope has taken and not given back, and the same in ox_malloc's count. */
  long names() const { return blocks_out(names_cachep) - names_; }
  long hits() const { return hit_rule_cache ? blocks_out(hit_rule_cache) - hits_ : 0; }
  long plain() const { return blocks_out(nullptr) - plain_; }
  int counted() const { return counted_(); }

 private:
  long names_ = blocks_out(names_cachep);
  long hits_ = hit_rule_cache ? blocks_out(hit_rule_cache) : 0;
  long plain_ = blocks_out(nullptr);
  alloc_balance counted_;
};

/* Every lock of the rules can be had, none is held, and the task stands as a program's does. */
inline void expect_at_rest(const mm_segment_t &limit) {
  ukern_lock_check_none("after a failed allocation");
  EXPECT_EQ(preempt_count(), 0);
  EXPECT_TRUE(segment_eq(get_fs(), limit));
  {
    write_try_guard rules(get_prule_set()->rwlock);
    EXPECT_TRUE(rules);
  }
  write_try_guard directories(get_dir_set()->rwlock);
  EXPECT_TRUE(directories);
}

/*
 * prepare() before each run, operation() with its n-th allocation failing, check(run) afterwards.
 * The runs with a failure; the last one, without, is checked too.
 */
template <typename Prepare, typename Operation, typename Check>
unsigned long fail_each(Prepare prepare, Operation operation, Check check) {
  const mm_segment_t limit = get_fs();
  for (unsigned long n = 1; n < kMostFaults; n++) {
    prepare();
    struct fault_run run = {n, false, 0, log_end(), 0, 0};
    {
      const block_balance balance;
      uk_fault_arm(n);
      run.result = operation();
      run.failed = uk_fault_count() >= n;
      uk_fault_arm(0);
      EXPECT_EQ(balance.names(), 0);
      EXPECT_EQ(balance.hits(), 0);
      run.allocated = balance.counted();
      run.blocks = balance.plain();
    }
    expect_at_rest(limit);
    check(static_cast<const struct fault_run &>(run));
    if (!run.failed) return n - 1;
  }
  EXPECT_TRUE(false); /* there is no end to it */
  return 0;
}

#endif
