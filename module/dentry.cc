// SPDX-License-Identifier: GPL-2.0
// The dentry operations: revalidation asks the lower dentry, release drops the lower path.

#include "tarn.h"

namespace {

// Apart from the caller, which is called for each name of a path and mostly needs no frame.
__attribute__((__noinline__)) int revalidate_below(struct dentry *dentry, struct nameidata *nd) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  int rc;
  {
    tarn_lower_nd lend(nd, lower_dentry, tarn_lower_mnt(dentry));
    rc = lower_dentry->d_op->d_revalidate(lower_dentry, nd);
  }
  if (struct inode *inode = dentry->d_inode) tarn_copy_attr_all(inode, tarn_lower_inode(inode));
  return rc;
}

// Returns 1: valid, 0: invalid, or an error: the lower file system's answer, or "valid" if it has
// no revalidation.
int tarn_d_revalidate(struct dentry *dentry, struct nameidata *nd) {
  const struct dentry_operations *lower_op = tarn_lower_dentry(dentry)->d_op;
  return lower_op && lower_op->d_revalidate ? revalidate_below(dentry, nd) : 1;
}

void tarn_d_release(struct dentry *dentry) {
  BUG_ON(!d_unhashed(dentry));
  struct tarn_dentry_info *info = tarn_dentry(dentry);
  while (info) {
    struct tarn_dentry_info *former = info->former;
    if (info->lower_path.dentry) {
      // The dentry first: the mount may hold the last reference on the lower super block.
      dput(info->lower_path.dentry);
      if (info->lower_path.mnt) mntput(info->lower_path.mnt);
    }
    kmem_cache_free(tarn_dentry_info_cache, info);
    info = former;
  }
}

}  // namespace

struct dentry_operations tarn_dops = {
    .d_revalidate = tarn_d_revalidate,
    .d_release = tarn_d_release,
};
