// SPDX-License-Identifier: GPL-2.0
// Changing an inode's attributes.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/stat.h>
#include <linux/time.h>

#include "ukern/sync/guard.h"

namespace {

// Turns a request to drop a set-id bit into a change of mode, when the inode has that bit.
void kill_bit(struct iattr *attr, umode_t mode, unsigned request, umode_t needed, umode_t bit) {
  if (!(attr->ia_valid & request)) return;
  attr->ia_valid &= ~request;
  if ((mode & needed) != needed) return;
  if (!(attr->ia_valid & ATTR_MODE)) {
    attr->ia_valid |= ATTR_MODE;
    attr->ia_mode = mode;
  }
  attr->ia_mode &= ~bit;
}

bool owns(struct inode *inode) {
  return current->fsuid == inode->i_uid;
}

int apply(struct dentry *dentry, struct iattr *attr) {
  struct inode *inode = dentry->d_inode;
  if (inode->i_op && inode->i_op->setattr) return inode->i_op->setattr(dentry, attr);
  const int error = inode_change_ok(inode, attr);
  return error ? error : inode_setattr(inode, attr);
}

}  // namespace

extern "C" {

// Checks whether the current task may make the change. Clears a set-group-id bit that it may not
// set.
int inode_change_ok(struct inode *inode, struct iattr *attr) {
  const unsigned valid = attr->ia_valid;
  if (valid & ATTR_FORCE) return 0;
  if ((valid & ATTR_UID) && (!owns(inode) || attr->ia_uid != inode->i_uid) && !capable(CAP_CHOWN))
    return -EPERM;
  if ((valid & ATTR_GID) &&
      (!owns(inode) || (!in_group_p(attr->ia_gid) && attr->ia_gid != inode->i_gid)) &&
      !capable(CAP_CHOWN))
    return -EPERM;
  if (valid & ATTR_MODE) {
    if (!owns(inode) && !capable(CAP_FOWNER)) return -EPERM;
    const gid_t group = valid & ATTR_GID ? attr->ia_gid : static_cast<gid_t>(inode->i_gid);
    if (!in_group_p(group) && !capable(CAP_FSETID)) attr->ia_mode &= ~S_ISGID;
  }
  if ((valid & (ATTR_MTIME_SET | ATTR_ATIME_SET)) && !owns(inode) && !capable(CAP_FOWNER))
    return -EPERM;
  return 0;
}

// Sets attributes without a permission check. The caller holds i_mutex.
int inode_setattr(struct inode *inode, struct iattr *attr) {
  const unsigned valid = attr->ia_valid;
  const u32 gran = inode->i_sb->s_time_gran;
  if ((valid & ATTR_SIZE) && attr->ia_size != i_size_read(inode)) {
    const int error = vmtruncate(inode, attr->ia_size);
    if (error) return error;
  }
  if (valid & ATTR_UID) inode->i_uid = attr->ia_uid;
  if (valid & ATTR_GID) inode->i_gid = attr->ia_gid;
  if (valid & ATTR_ATIME) inode->i_atime = timespec_trunc(attr->ia_atime, gran);
  if (valid & ATTR_MTIME) inode->i_mtime = timespec_trunc(attr->ia_mtime, gran);
  if (valid & ATTR_CTIME) inode->i_ctime = timespec_trunc(attr->ia_ctime, gran);
  if (valid & ATTR_MODE) {
    umode_t mode = attr->ia_mode;
    if (!in_group_p(inode->i_gid) && !capable(CAP_FSETID)) mode &= ~S_ISGID;
    inode->i_mode = mode;
  }
  mark_inode_dirty(inode);
  return 0;
}

// The caller holds i_mutex. Updates `attr`: fills in times and turns dropped set-id bits into a
// mode.
int notify_change(struct dentry *dentry, struct iattr *attr) {
  struct inode *inode = dentry->d_inode;
  const umode_t mode = inode->i_mode;
  const struct timespec now = current_fs_time(inode->i_sb);
  might_sleep();

  attr->ia_ctime = now;
  if (!(attr->ia_valid & ATTR_ATIME_SET)) attr->ia_atime = now;
  if (!(attr->ia_valid & ATTR_MTIME_SET)) attr->ia_mtime = now;
  kill_bit(attr, mode, ATTR_KILL_SUID, S_ISUID, S_ISUID);
  // Without group execute the bit means mandatory locking and stays.
  kill_bit(attr, mode, ATTR_KILL_SGID, S_ISGID | S_IXGRP, S_ISGID);
  if (!attr->ia_valid) return 0;

  if (!(attr->ia_valid & ATTR_SIZE)) return apply(dentry, attr);
  ExclusiveGuard guard(inode->i_alloc_sem);
  return apply(dentry, attr);
}

}  // extern "C"
