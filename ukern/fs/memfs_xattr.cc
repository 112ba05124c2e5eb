// SPDX-License-Identifier: GPL-2.0
// memfs: extended attributes, a list per node. Every name space is accepted; the VFS checks
// permission.
#include "ukern/fs/memfs_internal.h"

#include <linux/slab.h>
#include <linux/string.h>
#include <linux/xattr.h>

#include "ukern/sync/guard.h"

namespace {

struct xattr {
  struct list_head link;  // in memfs_node.xattrs
  size_t size;
  char *value;  // behind the name, in the same allocation
  char name[];
};

struct xattr *find_locked(struct memfs_node *node, const char *name) {
  struct xattr *attr;
  list_for_each_entry(attr, &node->xattrs, link) {
    if (strcmp(attr->name, name) == 0) return attr;
  }
  return nullptr;
}

struct xattr *new_xattr(const char *name, const void *value, size_t size) {
  const size_t name_size = strlen(name) + 1;
  auto *attr =
      static_cast<struct xattr *>(kmalloc(sizeof(struct xattr) + name_size + size, GFP_KERNEL));
  if (!attr) return nullptr;
  memcpy(attr->name, name, name_size);
  attr->value = attr->name + name_size;
  attr->size = size;
  if (size) memcpy(attr->value, value, size);
  return attr;
}

void changed(struct inode *inode) {
  inode->i_ctime = current_fs_time(inode->i_sb);
  mark_inode_dirty(inode);
}

}  // namespace

void memfs_free_xattrs(struct memfs_node *node) {
  while (!list_empty(&node->xattrs)) {
    struct xattr *attr = list_entry(node->xattrs.next, struct xattr, link);
    list_del(&attr->link);
    kfree(attr);
  }
}

int memfs_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                   int flags) {
  struct inode *inode = dentry->d_inode;
  struct memfs_sb *info = memfs_s(inode->i_sb);
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_SETXATTR)) return error;
  struct xattr *fresh = new_xattr(name, value, size);
  if (!fresh) return -ENOMEM;
  struct xattr *old;
  int error = 0;
  {
    SpinGuard guard(info->lock);
    old = find_locked(memfs_n(inode), name);
    if (old && (flags & XATTR_CREATE)) {
      error = -EEXIST;
    } else if (!old && (flags & XATTR_REPLACE)) {
      error = -ENODATA;
    } else {
      if (old) list_del(&old->link);
      list_add_tail(&fresh->link, &memfs_n(inode)->xattrs);
    }
  }
  kfree(error ? fresh : old);
  if (!error) changed(inode);
  return error;
}

ssize_t memfs_getxattr(struct dentry *dentry, const char *name, void *value, size_t size) {
  struct inode *inode = dentry->d_inode;
  struct memfs_sb *info = memfs_s(inode->i_sb);
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_GETXATTR)) return error;
  SpinGuard guard(info->lock);
  const struct xattr *attr = find_locked(memfs_n(inode), name);
  ssize_t result = attr ? static_cast<ssize_t>(attr->size) : -ENODATA;
  if (attr && size) {
    if (size < attr->size)
      result = -ERANGE;
    else
      memcpy(value, attr->value, attr->size);
  }
  return result;
}

ssize_t memfs_listxattr(struct dentry *dentry, char *list, size_t size) {
  struct inode *inode = dentry->d_inode;
  struct memfs_sb *info = memfs_s(inode->i_sb);
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_LISTXATTR)) return error;
  size_t used = 0;
  const struct xattr *attr;
  {
    SpinGuard guard(info->lock);
    list_for_each_entry(attr, &memfs_n(inode)->xattrs, link) {
      const size_t length = strlen(attr->name) + 1;
      if (used + length <= size) memcpy(list + used, attr->name, length);
      used += length;
    }
  }
  return size && used > size ? -ERANGE : static_cast<ssize_t>(used);
}

int memfs_removexattr(struct dentry *dentry, const char *name) {
  struct inode *inode = dentry->d_inode;
  struct memfs_sb *info = memfs_s(inode->i_sb);
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_REMOVEXATTR)) return error;
  struct xattr *attr;
  {
    SpinGuard guard(info->lock);
    attr = find_locked(memfs_n(inode), name);
    if (!attr) return -ENODATA;
    list_del(&attr->link);
  }
  kfree(attr);
  changed(inode);
  return 0;
}
