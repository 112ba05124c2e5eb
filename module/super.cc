// SPDX-License-Identifier: GPL-2.0
// The super operations: allocation and release of inodes, the lower statfs, and the mount table's
// options.

#include "tarn.h"
#include "ox_guard.h"

namespace {

// An upper object's locks are held while those of the lower object are taken: classes for lockdep.
struct lock_class_key tarn_i_mutex_key;
struct lock_class_key tarn_i_alloc_sem_key;

struct inode *tarn_alloc_inode(struct super_block *) {
  auto *inode_info =
      static_cast<struct tarn_inode_info *>(kmem_cache_alloc(tarn_inode_info_cache, GFP_KERNEL));
  if (!inode_info) return nullptr;
  mutex_init(&inode_info->lower_file_mutex);
  inode_info->lower_file = nullptr;
  inode_info->lower_inode = nullptr;  // set by tarn_interpose
  inode_info->cut_at = TARN_NOT_CUT;
  inode_info->lower_mnt = nullptr;
  struct inode *inode = &inode_info->vfs_inode;
  inode_init_once(inode);
  lockdep_set_class(&inode->i_mutex, &tarn_i_mutex_key);
  lockdep_set_class(&inode->i_alloc_sem, &tarn_i_alloc_sem_key);
  return inode;
}

// Closes the shared lower file, unless its dentry has lost its inode.
//
// There is no other user of the inode, so its lock is free. It is only tried: inodes are also
// released where a lower directory's i_mutex is held and dentries are pruned, and lockdep knows of
// lower locks inside this one.
void close_lower_file(struct tarn_inode_info *info) {
  const mutex_try_guard guard(info->lower_file_mutex);
  BUG_ON(!guard);
  struct file *lower_file = info->lower_file;
  if (!lower_file) return;
  struct dentry *lower_dentry = lower_file->f_dentry;
  BUG_ON(!lower_dentry);
  if (!lower_dentry->d_inode) return;
  // The file may hold the dentry's last reference.
  dget(lower_dentry);
  fput(lower_file);
  info->lower_file = nullptr;
  // A directory may be a mount point or a working directory, and must stay hashed.
  if (!S_ISDIR(lower_dentry->d_inode->i_mode)) d_drop(lower_dentry);
  dput(lower_dentry);
}

void tarn_destroy_inode(struct inode *inode) {
  struct tarn_inode_info *info = tarn_inode(inode);
  close_lower_file(info);
  kmem_cache_free(tarn_inode_info_cache, info);
}

void tarn_clear_inode(struct inode *inode) {
  iput(tarn_lower_inode(inode));
}

void tarn_put_super(struct super_block *sb) {
  kmem_cache_free(tarn_sb_info_cache, tarn_sb(sb));
  sb->s_fs_info = nullptr;
}

int tarn_statfs(struct dentry *dentry, struct kstatfs *buf) {
  return vfs_statfs(tarn_lower_dentry(dentry), buf);
}

// The page is not freed if d_path() fails.
int tarn_show_options(struct seq_file *seq, struct vfsmount *mnt) {
  const struct dentry *root = mnt->mnt_sb->s_root;
  const unsigned long page = __get_free_page(GFP_KERNEL);
  if (!page) return -ENOMEM;
  const char *path = d_path(tarn_lower_dentry(root), tarn_lower_mnt(root),
                            reinterpret_cast<char *>(page), PAGE_SIZE);
  if (IS_ERR(path)) return static_cast<int>(PTR_ERR(path));
  seq_printf(seq, ",dir=%s", path);
  free_page(page);
  return 0;
}

}  // namespace

struct super_operations tarn_sops = {
    .alloc_inode = tarn_alloc_inode,
    .destroy_inode = tarn_destroy_inode,
    .drop_inode = generic_delete_inode,
    .put_super = tarn_put_super,
    .statfs = tarn_statfs,
    .clear_inode = tarn_clear_inode,
    .show_options = tarn_show_options,
};
