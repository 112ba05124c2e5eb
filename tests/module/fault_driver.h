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
#include "tests/module/mounted.h"
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

/* ---- the log of a run ---- */

/* How many lines from number `from` on are `text`. */
inline int log_count(unsigned long long from, const char *text) {
  struct uk_klog_line line;
  char buf[512];
  int count = 0;
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    if (!strcmp(buf, text)) count++;
    from = line.number + 1;
  }
  return count;
}

/* What the worker thread writes comes when it likes; a lower write that fails says so, whatever
 * becomes of its capture. */
inline bool log_is_beside(const char *text) {
  return !strncmp(text, "tarn_thd_trans:", 15) || !strncmp(text, "tarn_write_lower:", 17);
}

/* How many lines there are from number `from` on, those beside the call left out. */
inline int log_length(unsigned long long from) {
  struct uk_klog_line line;
  char buf[64];
  int count = 0;
  for (; uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1; from = line.number + 1)
    count += !log_is_beside(buf);
  return count;
}

/* Whether the lines from number `from` on are these and no others, in this order; those beside
 * the call are left out. */
template <unsigned N>
bool log_is(unsigned long long from, const char *const (&expected)[N]) {
  struct uk_klog_line line;
  char buf[512];
  unsigned at = 0;
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    from = line.number + 1;
    if (log_is_beside(buf)) continue;
    if (at == N || !expected[at] || strcmp(buf, expected[at])) return false;
    at++;
  }
  return at == N || !expected[at];
}

/* ---- what may be missing ---- */

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
  long counted() const { return atomic_read(&g_total_alloc) - counted_; }

 private:
  long names_ = blocks_out(names_cachep);
  long hits_ = hit_rule_cache ? blocks_out(hit_rule_cache) : 0;
  long plain_ = blocks_out(nullptr);
  long counted_ = atomic_read(&g_total_alloc);
};

/* The rule whose UUID is sixteen times `id`, with a reference; null if there is none. */
inline struct prule_node *find_rule(int id) {
  uuid_t uuid;
  memset(uuid, id, sizeof(uuid));
  return findnode_byuuid(uuid);
}

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
    struct fault_run run = {n, false, 0, test_log_end(), 0, 0};
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
