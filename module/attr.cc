// SPDX-License-Identifier: GPL-2.0
// Attributes and extended attributes.

#include "inode_ops.h"
#include "trans.h"

void tarn_copy_attr_times(struct inode *inode, const struct inode *lower) {
  inode->i_atime = lower->i_atime;
  inode->i_mtime = lower->i_mtime;
  inode->i_ctime = lower->i_ctime;
}

void tarn_copy_attr_times_and_size(struct inode *inode, struct inode *lower) {
  tarn_copy_attr_times(inode, lower);
  i_size_write(inode, i_size_read(lower));
  inode->i_blocks = lower->i_blocks;
}

void tarn_copy_attr_all(struct inode *inode, const struct inode *lower) {
  inode->i_mode = lower->i_mode;
  inode->i_uid = lower->i_uid;
  inode->i_gid = lower->i_gid;
  inode->i_rdev = lower->i_rdev;
  tarn_copy_attr_times(inode, lower);
  inode->i_blkbits = lower->i_blkbits;
  inode->i_flags = lower->i_flags;
  inode->i_nlink = lower->i_nlink;
}

namespace {

// Truncates the upper mapping if the file shrinks, or grows beyond the upper super block's limit.
int truncate_upper(struct inode *inode, const struct iattr *ia) {
  if (!(ia->ia_valid & ATTR_SIZE)) return 0;
  const loff_t size = i_size_read(inode);
  const struct super_block *sb = inode->i_sb;
  const bool shrinks = ia->ia_size < size;
  const bool may_not_fit = ia->ia_size > size && sb->s_maxbytes < tarn_lower_sb(sb)->s_maxbytes;
  return shrinks || may_not_fit ? vmtruncate(inode, ia->ia_size) : 0;
}

// Changes the lower object and captures the change, even a refused one. The lower file system gets
// the lower file in `ia`; capture gets `ia` as the lower call left it.
int setattr_below(struct dentry *dentry, struct iattr *ia) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  dentry_ref name(tarn_hold_name(dentry));
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  struct file *file = ia->ia_valid & ATTR_FILE ? ia->ia_file : nullptr;
  if (file) ia->ia_file = tarn_lower_file(file);
  const int rc = notify_change(lower_dentry, ia);
  if (file) ia->ia_file = file;
  tarn_attr_sync(dentry, ia);
  if (!rc) tarn_mode_sync(dentry, ia->ia_valid & ATTR_MODE ? ia->ia_mode : mode);
  return rc;
}

}  // namespace

int tarn_setattr(struct dentry *dentry, struct iattr *ia) {
  struct inode *inode = dentry->d_inode;
  struct inode *lower = tarn_lower_inode(inode);
  int rc = inode_change_ok(lower, ia);
  if (!rc) rc = truncate_upper(inode, ia);
  if (!rc) rc = setattr_below(dentry, ia);
  if (rc) return rc;

  tarn_copy_attr_all(inode, lower);
  if (ia->ia_valid & ATTR_MTIME_SET) inode->i_mtime = lower->i_mtime;
  if (ia->ia_valid & ATTR_CTIME) inode->i_ctime = lower->i_ctime;
  if (ia->ia_valid & ATTR_ATIME_SET) inode->i_atime = lower->i_atime;
  i_size_write(inode, i_size_read(lower));
  inode->i_blocks = lower->i_blocks;
  return 0;
}

// Extended attributes are passed through under the lower i_mutex and not captured, except for a
// change of the mode.

int tarn_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                  int flags) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->setxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  const int rc = lower->i_op->setxattr(lower_dentry, name, value, size, flags);
  tarn_mode_sync(dentry, mode);  // an access control list may change the mode
  return rc;
}

ssize_t tarn_getxattr_lower(struct dentry *lower_dentry, const char *name, void *value,
                            size_t size) {
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->getxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  return lower->i_op->getxattr(lower_dentry, name, value, size);
}

ssize_t tarn_getxattr(struct dentry *dentry, const char *name, void *value, size_t size) {
  return tarn_getxattr_lower(tarn_lower_dentry(dentry), name, value, size);
}

ssize_t tarn_listxattr(struct dentry *dentry, char *list, size_t size) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->listxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  return lower->i_op->listxattr(lower_dentry, list, size);
}

int tarn_removexattr(struct dentry *dentry, const char *name) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->removexattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  const int rc = lower->i_op->removexattr(lower_dentry, name);
  tarn_mode_sync(dentry, mode);
  return rc;
}
