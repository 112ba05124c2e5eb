// SPDX-License-Identifier: GPL-2.0
// Background write-back: a pool of two threads for pdflush_operation, and one that wakes every
// dirty_writeback_interval and writes data that has been dirty for longer than
// dirty_expire_interval. They run only if a file system has dirty data, with the kernel address
// limit. ukern/vfs tracks the dirty inodes.
#include <linux/backing-dev.h>
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/kthread.h>
#include <linux/list.h>
#include <linux/pagemap.h>
#include <linux/sched.h>
#include <linux/swap.h>
#include <linux/wait.h>
#include <linux/writeback.h>
#include <asm/uaccess.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

int dirty_background_ratio;
int vm_dirty_ratio;
int dirty_writeback_interval;
int dirty_expire_interval;
int nr_pdflush_threads;

struct backing_dev_info default_backing_dev_info;

void default_unplug_io_fn(struct backing_dev_info *, struct page *) {}

int writeback_acquire(struct backing_dev_info *bdi) {
  return !test_and_set_bit(BDI_pdflush, &bdi->state);
}

int writeback_in_progress(struct backing_dev_info *bdi) {
  return test_bit(BDI_pdflush, &bdi->state);
}

void writeback_release(struct backing_dev_info *bdi) {
  BUG_ON(!writeback_in_progress(bdi));
  clear_bit(BDI_pdflush, &bdi->state);
}

namespace {

constexpr int kPoolThreads = 2;
constexpr long kChunk = 1024;   // pages written per round
constexpr int kRatelimit = 32;  // pages dirtied between two checks of the limits

struct worker {
  struct task_struct *task;
  void (*fn)(unsigned long);  // under pool_lock; null: idle
  unsigned long arg;
};

DEFINE_SPINLOCK(pool_lock);
worker pool[kPoolThreads];
struct task_struct *kupdate_task;
atomic_t dirtied_since_check;

struct limits {
  long background, dirty;
};

limits dirty_limits() {
  const int dirty_ratio = vm_dirty_ratio < 5 ? 5 : vm_dirty_ratio;
  const int background_ratio =
      dirty_background_ratio >= dirty_ratio ? dirty_ratio / 2 : dirty_background_ratio;
  const auto pages = static_cast<long>(totalram_pages);
  return {background_ratio * pages / 100, dirty_ratio * pages / 100};
}

long nr_dirty() {
  return atomic_read(&nr_file_dirty);
}

// An estimate: both counts may change meanwhile.
long inodes_in_use() {
  return __atomic_load_n(&inodes_stat.nr_inodes, __ATOMIC_RELAXED) -
         __atomic_load_n(&inodes_stat.nr_unused, __ATOMIC_RELAXED);
}

// Writes at least `min_pages`, and continues until the background limit is met.
void background_writeout(unsigned long min_pages) {
  long wanted = static_cast<long>(min_pages);
  struct writeback_control wbc = {};
  wbc.sync_mode = WB_SYNC_NONE;
  wbc.nonblocking = 1;
  wbc.range_cyclic = 1;
  while (wanted > 0 || nr_dirty() >= dirty_limits().background) {
    wbc.encountered_congestion = 0;
    wbc.nr_to_write = kChunk;
    wbc.pages_skipped = 0;
    writeback_inodes(&wbc);
    wanted -= kChunk - wbc.nr_to_write;
    if (wbc.nr_to_write > 0 || wbc.pages_skipped > 0) {
      if (!wbc.encountered_congestion) break;  // nothing left to write
      schedule_timeout_uninterruptible(HZ / 10);
    }
  }
}

void write_old_inodes() {
  sync_supers();
  unsigned long oldest = jiffies - static_cast<unsigned long>(dirty_expire_interval);
  long budget = nr_dirty() + inodes_in_use();
  struct writeback_control wbc = {};
  wbc.sync_mode = WB_SYNC_NONE;
  wbc.older_than_this = &oldest;
  wbc.nonblocking = 1;
  wbc.for_kupdate = 1;
  wbc.range_cyclic = 1;
  while (budget > 0) {
    wbc.encountered_congestion = 0;
    wbc.nr_to_write = kChunk;
    writeback_inodes(&wbc);
    budget -= kChunk - wbc.nr_to_write;
    if (wbc.nr_to_write > 0) {
      if (!wbc.encountered_congestion) break;  // all the old data is written
      schedule_timeout_uninterruptible(HZ / 10);
    }
  }
}

void become_flusher() {
  current->flags |= PF_FLUSHER;
  set_fs(KERNEL_DS);
}

bool has_work(worker *w) {
  SpinGuard guard(pool_lock);
  return w->fn != nullptr;
}

int pdflush_thread(void *data) {
  auto *w = static_cast<worker *>(data);
  become_flusher();
  for (;;) {
    set_current_state(TASK_INTERRUPTIBLE);
    const bool busy = has_work(w);
    if (!busy && kthread_should_stop()) break;
    if (!busy) {
      schedule();
      continue;
    }
    __set_current_state(TASK_RUNNING);
    w->fn(w->arg);
    SpinGuard guard(pool_lock);
    w->fn = nullptr;
  }
  __set_current_state(TASK_RUNNING);
  return 0;
}

int kupdate_thread(void *) {
  become_flusher();
  while (!kthread_should_stop()) {
    set_current_state(TASK_INTERRUPTIBLE);
    if (!kthread_should_stop())
      schedule_timeout(dirty_writeback_interval ? dirty_writeback_interval : HZ);
    __set_current_state(TASK_RUNNING);
    if (!kthread_should_stop() && dirty_writeback_interval) write_old_inodes();
  }
  return 0;
}

// Over the limit, the task that dirties pages writes until the limit is met or it has done its
// share.
void balance_dirty_pages(struct address_space *mapping) {
  const long chunk = kRatelimit + kRatelimit / 2;
  for (long written = 0; written < chunk && nr_dirty() > dirty_limits().dirty;) {
    struct writeback_control wbc = {};
    wbc.bdi = mapping->backing_dev_info;
    wbc.sync_mode = WB_SYNC_NONE;
    wbc.nr_to_write = chunk;
    wbc.range_cyclic = 1;
    writeback_inodes(&wbc);
    const long now = chunk - wbc.nr_to_write;
    if (now == 0) schedule_timeout_uninterruptible(HZ / 10);
    written += now > 0 ? now : 1;
  }
  if (nr_dirty() > dirty_limits().background && !writeback_in_progress(mapping->backing_dev_info))
    pdflush_operation(background_writeout, 0);
}

}  // namespace

void balance_dirty_pages_ratelimited_nr(struct address_space *mapping,
                                        unsigned long nr_pages_dirtied) {
  might_sleep();
  if (atomic_add_return(static_cast<int>(nr_pages_dirtied), &dirtied_since_check) < kRatelimit)
    return;
  atomic_set(&dirtied_since_check, 0);
  balance_dirty_pages(mapping);
}

int pdflush_operation(void (*fn)(unsigned long), unsigned long arg0) {
  BUG_ON(!fn);
  struct task_struct *task = nullptr;
  {
    SpinGuard guard(pool_lock);
    for (worker &w : pool) {
      if (!w.task || w.fn) continue;
      w.fn = fn;
      w.arg = arg0;
      task = w.task;
      break;
    }
  }
  if (!task) return -1;
  wake_up_process(task);
  return 0;
}

int wakeup_pdflush(long nr_pages) {
  return pdflush_operation(background_writeout,
                           static_cast<unsigned long>(nr_pages ? nr_pages : nr_dirty()));
}

void writeback_init(void) {
  dirty_background_ratio = 10;
  vm_dirty_ratio = 40;
  dirty_writeback_interval = 5 * HZ;
  dirty_expire_interval = 30 * HZ;
  default_backing_dev_info = {};
  default_backing_dev_info.ra_pages = VM_MAX_READAHEAD * 1024 / PAGE_CACHE_SIZE;
  default_backing_dev_info.capabilities = BDI_CAP_MAP_COPY;
  default_backing_dev_info.unplug_io_fn = default_unplug_io_fn;
  atomic_set(&nr_file_dirty, 0);
  atomic_set(&dirtied_since_check, 0);
}

int writeback_threads_start(void) {
  for (worker &w : pool) {
    w.fn = nullptr;
    struct task_struct *task = kthread_run(pdflush_thread, &w, "pdflush");
    if (IS_ERR(task)) {
      writeback_threads_stop();
      return static_cast<int>(PTR_ERR(task));
    }
    SpinGuard guard(pool_lock);
    w.task = task;
    nr_pdflush_threads++;
  }
  struct task_struct *task = kthread_run(kupdate_thread, nullptr, "kupdate");
  if (IS_ERR(task)) {
    writeback_threads_stop();
    return static_cast<int>(PTR_ERR(task));
  }
  kupdate_task = task;
  return 0;
}

void writeback_threads_stop(void) {
  if (kupdate_task) kthread_stop(kupdate_task);
  kupdate_task = nullptr;
  for (worker &w : pool) {
    struct task_struct *task;
    {
      SpinGuard guard(pool_lock);
      task = w.task;
      w.task = nullptr;
    }
    if (task) kthread_stop(task);
  }
  nr_pdflush_threads = 0;
}
