// SPDX-License-Identifier: GPL-2.0
// Extended attributes: permissions by name space, and the file system's operations.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/stat.h>
#include <linux/string.h>
#include <linux/xattr.h>

#include "ukern/sync/guard.h"

namespace {

bool in_space(const char *name, const char *prefix) {
  return !strncmp(name, prefix, strlen(prefix));
}

int xattr_permission(struct inode *inode, const char *name, int mask) {
  if (mask & MAY_WRITE) {
    if (IS_RDONLY(inode)) return -EROFS;
    if (IS_IMMUTABLE(inode) || IS_APPEND(inode)) return -EPERM;
  }
  // Left to the file system.
  if (in_space(name, XATTR_SECURITY_PREFIX) || in_space(name, XATTR_SYSTEM_PREFIX)) return 0;
  if (in_space(name, XATTR_TRUSTED_PREFIX)) return capable(CAP_SYS_ADMIN) ? 0 : -EPERM;
  // Anyone may write to special files and links, and to sticky directories like /tmp: user
  // attributes there would count against nobody's quota.
  if (in_space(name, XATTR_USER_PREFIX) && !S_ISREG(inode->i_mode) &&
      (!S_ISDIR(inode->i_mode) || (inode->i_mode & S_ISVTX)))
    return -EPERM;
  return permission(inode, mask, nullptr);
}

// Without a security module only an administrator may change security attributes.
int security_permission(const char *name) {
  return in_space(name, XATTR_SECURITY_PREFIX) && !capable(CAP_SYS_ADMIN) ? -EPERM : 0;
}

}  // namespace

extern "C" {

int vfs_setxattr(struct dentry *dentry, char *name, void *value, size_t size, int flags) {
  struct inode *inode = dentry->d_inode;
  int error = xattr_permission(inode, name, MAY_WRITE);
  if (error) return error;
  MutexGuard guard(inode->i_mutex);
  error = security_permission(name);
  if (!error)
    error = inode->i_op->setxattr ? inode->i_op->setxattr(dentry, name, value, size, flags)
                                  : -EOPNOTSUPP;
  return error;
}

ssize_t vfs_getxattr(struct dentry *dentry, char *name, void *value, size_t size) {
  struct inode *inode = dentry->d_inode;
  const int error = xattr_permission(inode, name, MAY_READ);
  if (error) return error;
  return inode->i_op->getxattr ? inode->i_op->getxattr(dentry, name, value, size) : -EOPNOTSUPP;
}

int vfs_removexattr(struct dentry *dentry, char *name) {
  struct inode *inode = dentry->d_inode;
  if (!inode->i_op->removexattr) return -EOPNOTSUPP;
  int error = xattr_permission(inode, name, MAY_WRITE);
  if (!error) error = security_permission(name);
  if (error) return error;
  MutexGuard guard(inode->i_mutex);
  return inode->i_op->removexattr(dentry, name);
}

}  // extern "C"
