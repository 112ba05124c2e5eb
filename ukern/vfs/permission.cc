// SPDX-License-Identifier: GPL-2.0
// Permission checks by mode bits, groups and capabilities, and the count of writers, which prevents
// writing and executing a file at once.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/stat.h>

#include "ukern/sync/guard.h"

namespace {

// Capabilities always override read and write permission, but execute permission only if an execute
// bit is set: otherwise root could execute every data file.
bool capability_allows(struct inode *inode, int mask) {
  const bool is_dir = S_ISDIR(inode->i_mode);
  if ((!(mask & MAY_EXEC) || (inode->i_mode & S_IXUGO) || is_dir) && capable(CAP_DAC_OVERRIDE))
    return true;
  return (mask == MAY_READ || (is_dir && !(mask & MAY_WRITE))) && capable(CAP_DAC_READ_SEARCH);
}

}  // namespace

extern "C" {

int generic_permission(struct inode *inode, int mask, int (*check_acl)(struct inode *, int)) {
  umode_t mode = inode->i_mode;
  if (current->fsuid == inode->i_uid) {
    mode >>= 6;
  } else {
    if (IS_POSIXACL(inode) && (mode & S_IRWXG) && check_acl) {
      const int error = check_acl(inode, mask);
      if (error == -EACCES) return capability_allows(inode, mask) ? 0 : -EACCES;
      if (error != -EAGAIN) return error;
    }
    if (in_group_p(inode->i_gid)) mode >>= 3;
  }
  if ((mode & mask & (MAY_READ | MAY_WRITE | MAY_EXEC)) == mask) return 0;
  return capability_allows(inode, mask) ? 0 : -EACCES;
}

int permission(struct inode *inode, int mask, struct nameidata *nd) {
  const umode_t mode = inode->i_mode;
  if (mask & MAY_WRITE) {
    if (IS_RDONLY(inode) && (S_ISREG(mode) || S_ISDIR(mode) || S_ISLNK(mode))) return -EROFS;
    if (IS_IMMUTABLE(inode)) return -EACCES;
  }
  // Before the file system's own check, which cannot allow executing a file without any execute
  // bit.
  if ((mask & MAY_EXEC) && S_ISREG(mode) && !(mode & S_IXUGO)) return -EACCES;

  mask &= ~MAY_APPEND;  // for security modules only
  if (inode->i_op && inode->i_op->permission) return inode->i_op->permission(inode, mask, nd);
  return generic_permission(inode, mask, nullptr);
}

int vfs_permission(struct nameidata *nd, int mask) {
  return permission(nd->dentry->d_inode, mask, nd);
}

// i_writecount: positive counts writers, negative counts those that deny writing. Only the step
// away from zero needs the lock.
int get_write_access(struct inode *inode) {
  int error = 0;
  SpinGuard guard(inode->i_lock);
  if (atomic_read(&inode->i_writecount) < 0)
    error = -ETXTBSY;
  else
    atomic_inc(&inode->i_writecount);
  return error;
}

int deny_write_access(struct file *file) {
  struct inode *inode = file->f_dentry->d_inode;
  int error = 0;
  SpinGuard guard(inode->i_lock);
  if (atomic_read(&inode->i_writecount) > 0)
    error = -ETXTBSY;
  else
    atomic_dec(&inode->i_writecount);
  return error;
}

}  // extern "C"
