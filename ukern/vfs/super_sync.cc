// SPDX-License-Identifier: GPL-2.0
// Operations on every super block, or on one as a whole: sync and remount.

#include "ukern/vfs/super_internal.h"

#include <linux/writeback.h>

#include "ukern/sync/guard.h"

static void write_super(struct super_block *sb) {
  MutexGuard guard(sb->s_lock);
  if (sb->s_root && sb->s_dirt && sb->s_op->write_super) sb->s_op->write_super(sb);
}

void sync_supers(void) {
  struct super_block *sb;

  SpinGuard guard(sb_lock);
again:
  list_for_each_entry(sb, &super_blocks, s_list) {
    if (!sb->s_dirt) continue;
    sb->s_count++;
    {
      SpinPause meanwhile(sb_lock);
      SharedGuard mount_guard(sb->s_umount);
      write_super(sb);
    }
    if (__put_super_and_need_restart(sb)) goto again;
  }
}

void sync_filesystems(int wait) {
  static DEFINE_MUTEX(one_at_a_time);  // s_need_sync_fs marks those left in this round
  struct super_block *sb;

  MutexGuard round_guard(one_at_a_time);
  SpinGuard guard(sb_lock);
  list_for_each_entry(sb, &super_blocks, s_list) {
    if (sb->s_op->sync_fs && !(sb->s_flags & MS_RDONLY)) sb->s_need_sync_fs = 1;
  }
again:
  list_for_each_entry(sb, &super_blocks, s_list) {
    if (!sb->s_need_sync_fs) continue;
    sb->s_need_sync_fs = 0;
    if (sb->s_flags & MS_RDONLY) continue;
    sb->s_count++;
    {
      SpinPause meanwhile(sb_lock);
      SharedGuard mount_guard(sb->s_umount);
      if (sb->s_root && (wait || sb->s_dirt)) sb->s_op->sync_fs(sb, wait);
    }
    if (__put_super_and_need_restart(sb)) goto again;
  }
}

int fsync_super(struct super_block *sb) {
  sync_inodes_sb(sb, 0);
  {
    MutexGuard guard(sb->s_lock);
    if (sb->s_dirt && sb->s_op->write_super) sb->s_op->write_super(sb);
  }
  if (sb->s_op->sync_fs) sb->s_op->sync_fs(sb, 1);
  sync_inodes_sb(sb, 1);
  return 0;
}

int fs_may_remount_ro(struct super_block *sb) {
  struct file *file;
  int may = 1;

  SpinGuard guard(files_lock);
  list_for_each_entry(file, &sb->s_files, f_u.fu_list) {
    struct inode *inode = file->f_dentry->d_inode;
    // A file without links would have to be deleted when it is closed.
    if (inode->i_nlink == 0 || (S_ISREG(inode->i_mode) && (file->f_mode & FMODE_WRITE))) may = 0;
  }
  return may;
}

static void mark_files_ro(struct super_block *sb) {
  struct file *file;

  SpinGuard guard(files_lock);
  list_for_each_entry(file, &sb->s_files, f_u.fu_list) {
    if (S_ISREG(file->f_dentry->d_inode->i_mode) && file_count(file))
      file->f_mode &= ~static_cast<mode_t>(FMODE_WRITE);
  }
}

int do_remount_sb(struct super_block *sb, int flags, void *data, int force) {
  shrink_dcache_sb(sb);
  fsync_super(sb);
  if ((flags & MS_RDONLY) && !(sb->s_flags & MS_RDONLY)) {
    if (force)
      mark_files_ro(sb);
    else if (!fs_may_remount_ro(sb))
      return -EBUSY;
  }
  if (sb->s_op->remount_fs) {
    MutexGuard guard(sb->s_lock);
    const int err = sb->s_op->remount_fs(sb, &flags, static_cast<char *>(data));
    if (err) return err;
  }
  sb->s_flags = (sb->s_flags & ~static_cast<unsigned long>(MS_RMT_MASK)) |
                (static_cast<unsigned>(flags) & MS_RMT_MASK);
  return 0;
}
