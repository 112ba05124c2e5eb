/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Write-back: its control, the dirty limits and the threads. The write-back threads run with the
 * kernel address limit; other callers (fsync, sync, msync) with their own.
 */
#ifndef _LINUX_WRITEBACK_H
#define _LINUX_WRITEBACK_H

#include <linux/types.h>
#include <linux/spinlock.h>
#include <linux/list.h>
#include <linux/sched.h>
#include <linux/fs.h>

#ifdef __cplusplus
extern "C" {
#endif

struct backing_dev_info;

extern spinlock_t inode_lock; /* i_state, i_list and the lists of inodes */
extern struct list_head inode_in_use;
extern struct list_head inode_unused;

static inline int task_is_pdflush(struct task_struct *task) {
  return (task->flags & PF_FLUSHER) != 0;
}
#define current_is_pdflush() task_is_pdflush(current)

enum writeback_sync_modes {
  WB_SYNC_NONE, /* start the writes that are possible, wait for nothing */
  WB_SYNC_ALL,  /* wait for every page */
  WB_SYNC_HOLD, /* as NONE; the inode stays on its super block's dirty list, for sync(2) */
};

/* On the caller's stack, without a lock; unused fields are zero. */
struct writeback_control {
  struct backing_dev_info *bdi; /* only this device, if not NULL */
  enum writeback_sync_modes sync_mode;
  unsigned long *older_than_this; /* only inodes dirtied before this (jiffies), if not NULL */
  long nr_to_write;               /* pages still to write; counted down */
  long pages_skipped;             /* pages that were not written */
  loff_t range_start; /* range in bytes, both ends included; 0 and LLONG_MAX: the whole file */
  loff_t range_end;
  unsigned nonblocking : 1;
  unsigned encountered_congestion : 1;
  unsigned for_kupdate : 1;
  unsigned for_reclaim : 1;
  unsigned for_writepages : 1;
  unsigned range_cyclic : 1; /* continue where the last call ended (mapping->writeback_index) */
};

/* Writes dirty inodes of all super blocks as `wbc` says. May sleep. */
void writeback_inodes(struct writeback_control *wbc);
void wake_up_inode(struct inode *inode);
/* Write all dirty inodes of one super block / of all; with `wait`, wait for the I/O. May sleep. */
void sync_inodes_sb(struct super_block *sb, int wait);
void sync_inodes(int wait);
/* Waits while the inode is I_LOCKed. May sleep. */
void wait_on_inode(struct inode *inode);

/* Has a write-back thread write `nr_pages` (0: all that are dirty now) soon; -1 when none is
 * idle. */
int wakeup_pdflush(long nr_pages);
/* Runs fn(arg0) in a write-back thread; -1 when none is idle. */
int pdflush_operation(void (*fn)(unsigned long), unsigned long arg0);
extern int nr_pdflush_threads;

extern int dirty_background_ratio;   /* per cent of memory at which the threads begin to write */
extern int vm_dirty_ratio;           /* per cent of memory at which writers must write themselves */
extern int dirty_writeback_interval; /* jiffies between two rounds of the threads; 0: no rounds */
extern int dirty_expire_interval;    /* jiffies after which they write a dirty inode */

/* Called after dirtying pages; may write some back, and sleep. */
void balance_dirty_pages_ratelimited_nr(struct address_space *mapping,
                                        unsigned long nr_pages_dirtied);
static inline void balance_dirty_pages_ratelimited(struct address_space *mapping) {
  balance_dirty_pages_ratelimited_nr(mapping, 1);
}
/* Writes a mapping's dirty pages: its a_ops->writepages, else mpage.h's generic_writepages. May
 * sleep. */
int do_writepages(struct address_space *mapping, struct writeback_control *wbc);
/*
 * Writes the range's pages, then takes i_mutex and writes the inode, then waits for the pages. 0 or
 * the first error. May sleep.
 */
int sync_page_range(struct inode *inode, struct address_space *mapping, loff_t pos, loff_t count);

#ifdef __cplusplus
}
#endif
#endif
