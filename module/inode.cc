// SPDX-License-Identifier: GPL-2.0
// Look-up, permissions, and the tables of the inode operations.

#include "inode_ops.h"

namespace {

// The read-write open of a lower file that is a running program would fail with -ETXTBSY.
void allow_lower_writes(struct dentry *lower_dentry) {
  struct inode *lower = lower_dentry->d_inode;
  if (S_ISDIR(lower->i_mode) || S_ISLNK(lower->i_mode) || special_file(lower->i_mode)) return;
  spin_guard guard(lower->i_lock);
  const int count = atomic_read(&lower->i_writecount);
  if (count >= 0) return;
  printk("tarn_lookup: %s's lower_inode->i_writecount=%d, adjust it\n", lower_dentry->d_name.name,
         count);
  atomic_set(&lower->i_writecount, 0);
}

// Binds the lower path to `dentry`; takes over both references.
int bind_dentry(struct dentry *dentry, struct dentry *lower_dentry, struct vfsmount *lower_mnt) {
  auto *info =
      static_cast<struct tarn_dentry_info *>(kmem_cache_alloc(tarn_dentry_info_cache, GFP_KERNEL));
  if (!info) {
    dput(lower_dentry);
    mntput(lower_mnt);
    return -ENOMEM;
  }
  info->lower_path.dentry = lower_dentry;
  info->lower_path.mnt = lower_mnt;
  info->former = nullptr;
  dentry->d_fsdata = info;
  return 0;
}

// Once bound, the lower path is dropped by the dentry's release, also after an error.
struct dentry *tarn_lookup(struct inode *dir, struct dentry *dentry, struct nameidata *) {
  dentry->d_op = &tarn_dops;
  struct dentry *lower_parent = tarn_lower_dentry(dentry->d_parent);
  struct dentry *lower_dentry;
  {
    // Without the lock, concurrent look-ups could get two lower dentries of one name.
    mutex_guard guard(lower_parent->d_inode->i_mutex, I_MUTEX_PARENT);
    lower_dentry = tarn_lookup_lower(lower_parent, dentry);
  }
  if (IS_ERR(lower_dentry)) {
    d_drop(dentry);
    return lower_dentry;
  }
  struct vfsmount *lower_mnt = mntget(tarn_lower_mnt(dentry->d_parent));
  while (d_mountpoint(lower_dentry) && follow_down(&lower_mnt, &lower_dentry)) {
  }
  dir->i_atime = lower_parent->d_inode->i_atime;

  int rc = bind_dentry(dentry, lower_dentry, lower_mnt);
  if (!rc && !lower_dentry->d_inode) {
    d_instantiate(dentry, nullptr);
    d_rehash(dentry);
    return nullptr;
  }
  struct dentry *alias = nullptr;
  if (!rc) rc = tarn_interpose(lower_dentry, dentry, dir->i_sb, TARN_SPLICE, &alias);
  if (rc) {
    d_drop(dentry);
    return static_cast<struct dentry *>(ERR_PTR(rc));
  }
  allow_lower_writes(lower_dentry);
  return alias;
}

int tarn_permission(struct inode *inode, int mask, struct nameidata *nd) {
  if (!nd) return permission(tarn_lower_inode(inode), mask, nullptr);
  tarn_lower_nd lend(nd, tarn_lower_dentry(nd->dentry), tarn_lower_mnt(nd->dentry));
  return permission(tarn_lower_inode(inode), mask, nd);
}

int tarn_getattr(struct vfsmount *, struct dentry *dentry, struct kstat *stat) {
  return vfs_getattr(tarn_lower_mnt(dentry), tarn_lower_dentry(dentry), stat);
}

}  // namespace

struct inode_operations tarn_dir_iops = {
    .create = tarn_create,
    .lookup = tarn_lookup,
    .link = tarn_link,
    .unlink = tarn_unlink,
    .symlink = tarn_symlink,
    .mkdir = tarn_mkdir,
    .rmdir = tarn_rmdir,
    .mknod = tarn_mknod,
    .rename = tarn_rename,
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};

struct inode_operations tarn_symlink_iops = {
    .readlink = tarn_readlink,
    .follow_link = tarn_follow_link,
    .put_link = tarn_put_link,
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};

struct inode_operations tarn_main_iops = {
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .getattr = tarn_getattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};
