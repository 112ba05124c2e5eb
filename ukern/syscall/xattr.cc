// SPDX-License-Identifier: GPL-2.0
// The system calls on extended attributes, with values in user memory.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/xattr.h>
#include <asm/uaccess.h>
#include "ukern/syscall/syscall.h"

namespace {

int check_name(const char *name) {
  const size_t len = strlen(name);
  return !len || len > XATTR_NAME_MAX ? -ERANGE : 0;
}

}  // namespace

extern "C" {

int setxattr_user(struct dentry *dentry, const char *name, const void __user *value, size_t size,
                  int flags) {
  if (flags & ~(XATTR_CREATE | XATTR_REPLACE)) return -EINVAL;
  int error = check_name(name);
  if (error) return error;
  void *copy = nullptr;
  if (size > XATTR_SIZE_MAX) return -E2BIG;
  if (size) {
    copy = kmalloc(size, GFP_KERNEL);
    if (!copy) return -ENOMEM;
    if (copy_from_user(copy, value, size)) {
      kfree(copy);
      return -EFAULT;
    }
  }
  error = vfs_setxattr(dentry, const_cast<char *>(name), copy, size, flags);
  kfree(copy);
  return error;
}

ssize_t getxattr_user(struct dentry *dentry, const char *name, void __user *value, size_t size) {
  ssize_t result = check_name(name);
  if (result) return result;
  void *copy = nullptr;
  if (size > XATTR_SIZE_MAX) size = XATTR_SIZE_MAX;
  if (size) {
    copy = kzalloc(size, GFP_KERNEL);
    if (!copy) return -ENOMEM;
  }
  result = vfs_getxattr(dentry, const_cast<char *>(name), copy, size);
  BUG_ON(size && result > static_cast<ssize_t>(size));
  if (result > 0 && size && copy_to_user(value, copy, static_cast<size_t>(result)))
    result = -EFAULT;
  // The value exceeds the largest buffer allowed: a larger one will not help.
  if (result == -ERANGE && size >= XATTR_SIZE_MAX) result = -E2BIG;
  kfree(copy);
  return result;
}

ssize_t listxattr_user(struct dentry *dentry, char __user *list, size_t size) {
  struct inode *inode = dentry->d_inode;
  char *copy = nullptr;
  if (size > XATTR_LIST_MAX) size = XATTR_LIST_MAX;
  if (size) {
    copy = static_cast<char *>(kmalloc(size, GFP_KERNEL));
    if (!copy) return -ENOMEM;
  }
  // Without the operation only a security module could have attributes, and there is none.
  ssize_t result =
      inode->i_op && inode->i_op->listxattr ? inode->i_op->listxattr(dentry, copy, size) : 0;
  BUG_ON(size && result > static_cast<ssize_t>(size));
  if (result > 0 && size && copy_to_user(list, copy, static_cast<size_t>(result))) result = -EFAULT;
  if (result == -ERANGE && size >= XATTR_LIST_MAX) result = -E2BIG;
  kfree(copy);
  return result;
}

int removexattr_user(struct dentry *dentry, const char *name) {
  const int error = check_name(name);
  return error ? error : vfs_removexattr(dentry, const_cast<char *>(name));
}

}  // extern "C"
