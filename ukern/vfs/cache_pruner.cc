// SPDX-License-Identifier: GPL-2.0
// Limits the unused dentries and inodes: a kernel thread frees those above the limit. Memory alone
// is no sufficient limit, since inodes of some file systems hold host resources.

#include "ukern/vfs/vfs.h"

#include <linux/kthread.h>
#include <linux/sched.h>
#include <linux/wait.h>

int ukern_cache_limit = UKERN_CACHE_LIMIT_DEFAULT;

static wait_queue_head_t pruner_wait;
static struct task_struct *pruner;

static bool too_many(int count) {
  return count > stat_read(&ukern_cache_limit);
}

static bool has_work(void) {
  return too_many(stat_read(&dentry_stat.nr_unused)) || too_many(stat_read(&inodes_stat.nr_unused));
}

void cache_pruner_kick(void) {
  if (pruner && has_work()) wake_up(&pruner_wait);
}

// Prunes to seven eighths of the limit, in batches so that the locks are not held for long.
static void prune_to_limit(void) {
  const int kPiece = 256;
  const int limit = stat_read(&ukern_cache_limit);
  const int target = limit - limit / 8;

  for (int rounds = 0; rounds < 1024; rounds++) {
    const int dentries = stat_read(&dentry_stat.nr_unused) - target;
    const int inodes = stat_read(&inodes_stat.nr_unused) - target;
    if (dentries <= 0 && inodes <= 0) return;
    if (dentries > 0) prune_dcache(min(dentries, kPiece));
    if (inodes > 0) prune_icache(min(inodes, kPiece));
    cond_resched();
  }
}

static int pruner_main(void *) {
  while (!kthread_should_stop()) {
    DEFINE_WAIT(wait);
    prepare_to_wait(&pruner_wait, &wait, TASK_INTERRUPTIBLE);
    // The time-out retries objects that could not be freed.
    if (!kthread_should_stop()) schedule_timeout(has_work() ? HZ / 10 : 10 * HZ);
    finish_wait(&pruner_wait, &wait);
    if (has_work()) prune_to_limit();
  }
  return 0;
}

int cache_pruner_start(void) {
  struct task_struct *task;

  ukern_cache_limit = UKERN_CACHE_LIMIT_DEFAULT;
  init_waitqueue_head(&pruner_wait);
  task = kthread_run(pruner_main, nullptr, "kswapd0");
  if (IS_ERR(task)) return static_cast<int>(PTR_ERR(task));
  pruner = task;
  return 0;
}

void cache_pruner_stop(void) {
  struct task_struct *task = pruner;
  if (!task) return;
  pruner = nullptr;
  kthread_stop(task);
}

void set_cache_limit(unsigned limit) {
  __atomic_store_n(&ukern_cache_limit, static_cast<int>(min_t(unsigned, limit, INT_MAX / 4)),
                   __ATOMIC_RELAXED);
  cache_pruner_kick();
}

static int cached(void) {
  return stat_read(&dentry_stat.nr_dentry) + stat_read(&inodes_stat.nr_inodes);
}

void drop_caches(void) {
  // Freeing a dentry may leave its parent and its inode unused, so repeat until nothing is freed.
  int before;
  do {
    before = cached();
    // Twice the number: the first visit to a recently used dentry only clears DCACHE_REFERENCED.
    prune_dcache(2 * stat_read(&dentry_stat.nr_unused));
    prune_icache(stat_read(&inodes_stat.nr_unused));
  } while (cached() < before);
}
