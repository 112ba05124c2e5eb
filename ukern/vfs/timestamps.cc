// SPDX-License-Identifier: GPL-2.0
// The time stamps of inodes: the current time in a file system's granularity, access and
// modification.

#include <linux/fs.h>
#include <linux/mount.h>
#include <linux/time.h>

struct timespec current_fs_time(struct super_block *sb) {
  const struct timespec now = current_kernel_time();
  return timespec_trunc(now, sb->s_time_gran);
}

// Whether flags of the inode, its file system or the mount turn access times off.
static bool atime_is_off(struct vfsmount *mnt, struct inode *inode) {
  const bool dir = S_ISDIR(inode->i_mode);
  const unsigned long fs_flags = inode->i_sb->s_flags;

  if (IS_RDONLY(inode) || (inode->i_flags & S_NOATIME) || (fs_flags & MS_NOATIME)) return true;
  if (dir && (fs_flags & MS_NODIRATIME)) return true;
  return mnt && ((mnt->mnt_flags & MNT_NOATIME) || (dir && (mnt->mnt_flags & MNT_NODIRATIME)));
}

void touch_atime(struct vfsmount *mnt, struct dentry *dentry) {
  struct inode *inode = dentry->d_inode;
  struct timespec now;

  if (atime_is_off(mnt, inode)) return;
  now = current_fs_time(inode->i_sb);
  if (timespec_equal(&inode->i_atime, &now)) return;
  inode->i_atime = now;
  mark_inode_dirty_sync(inode);
}

void file_update_time(struct file *file) {
  struct inode *inode = file->f_dentry->d_inode;
  struct timespec now;

  if (IS_NOCMTIME(inode) || IS_RDONLY(inode)) return;
  now = current_fs_time(inode->i_sb);
  if (timespec_equal(&inode->i_mtime, &now) && timespec_equal(&inode->i_ctime, &now)) return;
  inode->i_mtime = now;
  inode->i_ctime = now;
  mark_inode_dirty_sync(inode);
}
