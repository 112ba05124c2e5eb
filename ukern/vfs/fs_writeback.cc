// SPDX-License-Identifier: GPL-2.0
// Dirty inodes: marking them, and writing them back one by one or super block by super block.
//
// An inode that is dirty, hashed and not locked is on its super block's s_dirty, newest first.
// Write-back moves the list to s_io and writes the oldest first. An inode is I_LOCKed while it is
// written, and may be dirtied again; the unlock then moves it to the right list.

#include "ukern/vfs/inode_internal.h"

#include <linux/backing-dev.h>
#include <linux/mm.h>
#include <linux/pagemap.h>
#include <linux/writeback.h>

#include "ukern/sync/guard.h"

void __mark_inode_dirty(struct inode *inode, int flags) {
  struct super_block *sb = inode->i_sb;
  const unsigned long bits = static_cast<unsigned long>(flags);

  if ((flags & (I_DIRTY_SYNC | I_DIRTY_DATASYNC)) && sb->s_op->dirty_inode)
    sb->s_op->dirty_inode(inode);

  SpinGuard guard(inode_lock);
  const bool was_dirty = inode->i_state & I_DIRTY;
  inode->i_state |= bits;
  // The unlock moves a locked inode to the right list; an unhashed one is not written back.
  const bool listed = S_ISBLK(inode->i_mode) || !hlist_unhashed(&inode->i_hash);
  if (!was_dirty && listed && !(inode->i_state & (I_LOCK | I_FREEING | I_CLEAR))) {
    inode->dirtied_when = jiffies;
    list_move(&inode->i_list, &sb->s_dirty);
  }
}

// Moves an inode that was just written to the right list. inode_lock is held.
static void requeue_locked(struct inode *inode, struct writeback_control *wbc) {
  struct super_block *sb = inode->i_sb;

  if (inode->i_state & I_DIRTY) {
    list_move(&inode->i_list, &sb->s_dirty);
  } else if (mapping_tagged(inode->i_mapping, PAGECACHE_TAG_DIRTY)) {
    // Dirty pages are left. The periodic writer continues with this inode; others turn to the next
    // one.
    inode->i_state |= I_DIRTY_PAGES;
    if (wbc->for_kupdate) {
      list_move_tail(&inode->i_list, &sb->s_dirty);
    } else {
      inode->dirtied_when = jiffies;
      list_move(&inode->i_list, &sb->s_dirty);
    }
  } else if (atomic_read(&inode->i_count)) {
    list_move(&inode->i_list, &inode_in_use);
  } else {
    list_move(&inode->i_list, &inode_unused);
  }
}

// Writes one unlocked inode, pages first. inode_lock is held on entry and return, released
// meanwhile.
static int write_single_locked(struct inode *inode, struct writeback_control *wbc) {
  struct address_space *mapping = inode->i_mapping;
  const bool wait = wbc->sync_mode == WB_SYNC_ALL;
  const unsigned long dirty = inode->i_state & I_DIRTY;
  int ret;

  BUG_ON(inode->i_state & I_LOCK);
  inode->i_state |= I_LOCK;
  inode->i_state &= ~static_cast<unsigned long>(I_DIRTY);
  {
    SpinPause meanwhile(inode_lock);
    ret = do_writepages(mapping, wbc);
    if ((dirty & (I_DIRTY_SYNC | I_DIRTY_DATASYNC)) && inode->i_sb->s_op->write_inode) {
      const int err = inode->i_sb->s_op->write_inode(inode, wait);
      if (ret == 0) ret = err;
    }
    if (wait) {
      const int err = filemap_fdatawait(mapping);
      if (ret == 0) ret = err;
    }
  }
  inode->i_state &= ~static_cast<unsigned long>(I_LOCK);
  if (!(inode->i_state & I_FREEING)) requeue_locked(inode, wbc);
  wake_up_inode(inode);
  return ret;
}

// As write_single_locked, for an inode that may be locked: waits for it with WB_SYNC_ALL, else
// leaves it for later.
static int writeback_single_locked(struct inode *inode, struct writeback_control *wbc) {
  if (atomic_read(&inode->i_count))
    WARN_ON(inode->i_state & I_WILL_FREE);
  else
    WARN_ON(!(inode->i_state & (I_WILL_FREE | I_FREEING)));

  if (inode->i_state & I_LOCK) {
    if (wbc->sync_mode != WB_SYNC_ALL) {
      list_move(&inode->i_list, &inode->i_sb->s_dirty);
      return 0;
    }
    wait_unlocked_inode(inode);
  }
  return write_single_locked(inode, wbc);
}

// Whether this caller may write the oldest inode of s_io. If not, it leaves the super block.
static bool may_write(struct inode *inode, struct writeback_control *wbc, unsigned long start) {
  struct backing_dev_info *bdi = inode->i_mapping->backing_dev_info;

  if (!bdi_cap_writeback_dirty(bdi)) {
    list_move(&inode->i_list, &inode->i_sb->s_dirty);
    return false;
  }
  if (wbc->nonblocking && bdi_write_congested(bdi)) {
    wbc->encountered_congestion = 1;
    return false;
  }
  if (wbc->bdi && bdi != wbc->bdi) return false;
  if (time_after(inode->dirtied_when, start)) return false;
  if (wbc->older_than_this && time_after(inode->dirtied_when, *wbc->older_than_this)) return false;
  return !current_is_pdflush() || writeback_acquire(bdi);
}

// Writes the dirty inodes of a super block. inode_lock is held, released for each inode.
static void sync_sb_inodes(struct super_block *sb, struct writeback_control *wbc) {
  const unsigned long start = jiffies;  // inodes dirtied later are left, or this might never end

  if (!wbc->for_kupdate || list_empty(&sb->s_io)) list_splice_init(&sb->s_dirty, &sb->s_io);

  while (!list_empty(&sb->s_io)) {
    struct inode *inode = list_entry(sb->s_io.prev, struct inode, i_list);
    struct backing_dev_info *bdi = inode->i_mapping->backing_dev_info;

    if (!may_write(inode, wbc, start)) break;
    BUG_ON(inode->i_state & I_FREEING);
    __iget(inode);
    const long skipped = wbc->pages_skipped;
    writeback_single_locked(inode, wbc);
    if (wbc->sync_mode == WB_SYNC_HOLD) {
      inode->dirtied_when = jiffies;
      list_move(&inode->i_list, &sb->s_dirty);
    }
    if (current_is_pdflush()) writeback_release(bdi);
    if (wbc->pages_skipped != skipped) list_move(&inode->i_list, &sb->s_dirty);
    {
      SpinPause meanwhile(inode_lock);
      iput(inode);
      cond_resched();
    }
    if (wbc->nr_to_write <= 0) break;
  }
}

static void sync_sb_unless_unmounting(struct super_block *sb, struct writeback_control *wbc) {
  SharedTryGuard guard(sb->s_umount);
  if (!guard || !sb->s_root) return;  // an unmount writes its inodes itself
  SpinGuard inode_guard(inode_lock);
  sync_sb_inodes(sb, wbc);
}

void writeback_inodes(struct writeback_control *wbc) {
  struct super_block *sb;

  might_sleep();
  SpinGuard guard(sb_lock);
again:
  list_for_each_entry_reverse(sb, &super_blocks, s_list) {
    if (wbc->nr_to_write <= 0) break;
    if (list_empty(&sb->s_dirty) && list_empty(&sb->s_io)) continue;
    sb->s_count++;
    {
      SpinPause meanwhile(sb_lock);
      sync_sb_unless_unmounting(sb, wbc);
    }
    if (__put_super_and_need_restart(sb)) goto again;
  }
}

void sync_inodes_sb(struct super_block *sb, int wait) {
  struct writeback_control wbc = {};
  wbc.sync_mode = wait ? WB_SYNC_ALL : WB_SYNC_HOLD;
  wbc.range_end = LLONG_MAX;
  wbc.nr_to_write = LONG_MAX;
  SpinGuard guard(inode_lock);
  sync_sb_inodes(sb, &wbc);
}

static void sync_all_supers(int wait) {
  struct super_block *sb;

  SpinGuard guard(sb_lock);
  list_for_each_entry(sb, &super_blocks, s_list) sb->s_syncing = 0;
again:
  list_for_each_entry(sb, &super_blocks, s_list) {
    if (sb->s_syncing) continue;
    sb->s_syncing = 1;
    sb->s_count++;
    {
      SpinPause meanwhile(sb_lock);
      SharedGuard mount_guard(sb->s_umount);
      if (sb->s_root) sync_inodes_sb(sb, wait);
    }
    if (__put_super_and_need_restart(sb)) goto again;
  }
}

void sync_inodes(int wait) {
  sync_all_supers(0);
  if (wait) sync_all_supers(1);
}

int write_inode_now(struct inode *inode, int sync) {
  struct writeback_control wbc = {};
  int ret;

  wbc.nr_to_write = mapping_cap_writeback_dirty(inode->i_mapping) ? LONG_MAX : 0;
  wbc.sync_mode = WB_SYNC_ALL;
  wbc.range_end = LLONG_MAX;
  might_sleep();
  {
    SpinGuard guard(inode_lock);
    ret = writeback_single_locked(inode, &wbc);
  }
  if (sync) wait_on_inode(inode);
  return ret;
}

int generic_osync_inode(struct inode *inode, struct address_space *mapping, int what) {
  int err = 0;

  if (what & OSYNC_DATA) {
    err = filemap_fdatawrite(mapping);
    const int waited = filemap_fdatawait(mapping);
    if (!err) err = waited;
  }
  bool write_it;
  {
    SpinGuard guard(inode_lock);
    write_it =
        (inode->i_state & I_DIRTY) && ((what & OSYNC_INODE) || (inode->i_state & I_DIRTY_DATASYNC));
  }
  if (write_it) {
    const int written = write_inode_now(inode, 1);
    if (!err) err = written;
  } else {
    wait_on_inode(inode);
  }
  return err;
}
