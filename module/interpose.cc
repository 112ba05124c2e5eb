// SPDX-License-Identifier: GPL-2.0
// How an upper dentry gets its upper inode, which is found or made for the lower one.
//
// An upper directory stands for a lower directory and the mount below through which it is reached.
// The same lower directory in two places of the lower tree (a bind mount) is two upper directories:
// natively nothing can be moved from one place to the other either, and a change is recorded by the
// path of the place where it was made.
//
// An upper directory has one dentry at most. The VFS takes the i_mutex of two different dentries'
// inodes one after the other, which would be the same one. So a directory that was moved below,
// beside this mount, takes its dentry along to where it is found, with all who use it.

#include "tarn.h"
#include "ox_guard.h"

namespace {

// A directory gets its dentry, or takes it to another place, under this lock. Inside it locks of
// the VFS are tried, not waited for, and nothing is called below.
struct mutex alias_mutex;

// How often the locks for a move are tried again: at once, then a tick apart.
constexpr int most_tries = 3;

// What the inode cache compares directories by.
struct lower_directory {
  struct inode *inode;
  const struct vfsmount *mnt;
};

int is_directory(struct inode *inode, void *data) {
  const auto *lower = static_cast<const struct lower_directory *>(data);
  return tarn_inode_test(inode, lower->inode) && tarn_inode(inode)->lower_mnt == lower->mnt;
}

int set_directory(struct inode *inode, void *data) {
  const auto *lower = static_cast<const struct lower_directory *>(data);
  tarn_inode(inode)->lower_mnt = lower->mnt;
  return tarn_inode_set(inode, lower->inode);
}

struct inode *get_inode(struct super_block *sb, struct inode *lower, struct vfsmount *lower_mnt) {
  const auto hash = reinterpret_cast<unsigned long>(lower);
  if (!S_ISDIR(lower->i_mode)) {
    return iget5_locked(sb, hash, tarn_inode_test, tarn_inode_set, lower);
  }
  struct lower_directory directory = {lower, lower_mnt};
  return iget5_locked(sb, hash, is_directory, set_directory, &directory);
}

// ------------------------------------------------------------------------ a directory's dentry

bool is_at_or_above(const struct dentry *dentry, const struct dentry *other) {
  spin_guard guard(dcache_lock);
  while (other != dentry && !IS_ROOT(other)) other = other->d_parent;
  return other == dentry;
}

// The names in it that the cache has belong to the former lower dentry.
void forget_children(struct dentry *dir) {
  spin_guard guard(dcache_lock);
  struct dentry *child;
  list_for_each_entry(child, &dir->d_subdirs, d_u.d_child) {
    spin_guard child_guard(child->d_lock);
    if (!d_mountpoint(child)) __d_drop(child);
  }
}

// The lower file system has another lower dentry of the directory now, that of `dentry`. The former
// one may be in use without a reference, so it stays until `alias` goes.
void take_lower_path(struct dentry *alias, struct dentry *dentry) {
  struct tarn_dentry_info *info = tarn_dentry(dentry);
  info->former = tarn_dentry(alias);
  dentry->d_fsdata = nullptr;
  smp_wmb();
  alias->d_fsdata = info;
  forget_children(alias);
}

// Puts `alias` in the place of `dentry`. Both parents are locked, or the one that they share.
int replace(struct dentry *alias, struct dentry *dentry) {
  if (d_mountpoint(alias)) return -EBUSY;
  if (tarn_lower_dentry(alias) != tarn_lower_dentry(dentry)) take_lower_path(alias, dentry);
  d_move(alias, dentry);
  return 0;
}

// The same with the locks that it needs beside that of dentry's parent, which the caller has. In
// the VFS's order they come before that one: -ESTALE when they are not to be had at once. -ELOOP:
// dentry is below `alias`, of which the move is still to be found.
int try_to_replace(struct dentry *alias, struct dentry *dentry) {
  if (!IS_ROOT(alias) && alias->d_parent == dentry->d_parent) return replace(alias, dentry);
  mutex_try_guard rename_guard(dentry->d_sb->s_vfs_rename_mutex);
  if (!rename_guard) return -ESTALE;
  if (is_at_or_above(alias, dentry)) return -ELOOP;
  mutex_try_guard parent_guard(alias->d_parent->d_inode->i_mutex);
  return parent_guard ? replace(alias, dentry) : -ESTALE;
}

// The dentry's binding takes over the reference on the inode.
void bind(struct inode *inode, struct dentry *dentry, enum tarn_interpose_flag flag) {
  if (flag == TARN_SPLICE) {
    d_splice_alias(inode, dentry);
  } else {
    d_instantiate(dentry, inode);
  }
}

// As tarn_interpose, for a directory; takes over the reference on the inode.
int bind_directory(struct inode *inode, struct dentry *dentry, enum tarn_interpose_flag flag,
                   struct dentry **moved) {
  for (int tries = 0;; ++tries) {
    int rc;
    struct dentry *alias;
    {
      mutex_guard guard(alias_mutex);
      alias = d_find_alias(inode);
      if (!alias) {
        bind(inode, dentry, flag);
        return 0;
      }
      rc = flag == TARN_SPLICE && moved ? try_to_replace(alias, dentry) : -ESTALE;
    }
    if (!rc) {
      *moved = alias;
    } else {
      if (rc == -ESTALE) d_invalidate(alias);  // one that nobody uses need not be moved
      dput(alias);
      if (rc == -ESTALE && tries < most_tries) {
        if (tries) schedule_timeout_uninterruptible(1);
        continue;
      }
    }
    iput(inode);
    return rc;
  }
}

}  // namespace

int tarn_inode_test(struct inode *inode, void *data) {
  return tarn_lower_inode(inode) == data;
}

int tarn_inode_set(struct inode *inode, void *data) {
  auto *lower = static_cast<struct inode *>(data);
  tarn_inode(inode)->lower_inode = lower;
  inode->i_ino = lower->i_ino;
  inode->i_version++;
  inode->i_op = &tarn_main_iops;
  inode->i_fop = &tarn_main_fops;
  inode->i_mapping->a_ops = &tarn_aops;
  return 0;
}

int tarn_interpose(struct dentry *lower_dentry, struct dentry *dentry, struct super_block *sb,
                   enum tarn_interpose_flag flag, struct dentry **moved) {
  struct inode *lower = igrab(lower_dentry->d_inode);
  if (!lower) return -ESTALE;
  struct inode *inode =
      get_inode(sb, lower, tarn_dentry(dentry) ? tarn_lower_mnt(dentry) : nullptr);
  if (!inode) {
    iput(lower);
    return -EACCES;
  }
  if (inode->i_state & I_NEW) {
    unlock_new_inode(inode);  // it keeps the reference on the lower inode
  } else {
    iput(lower);
  }

  if (S_ISLNK(lower->i_mode)) {
    inode->i_op = &tarn_symlink_iops;
  } else if (S_ISDIR(lower->i_mode)) {
    inode->i_op = &tarn_dir_iops;
    inode->i_fop = &tarn_dir_fops;
  } else if (special_file(lower->i_mode)) {
    init_special_inode(inode, lower->i_mode, lower->i_rdev);
  }

  // Before the dentry leads to the inode: another walk may look at it from then on.
  tarn_copy_attr_all(inode, lower);
  i_size_write(inode, i_size_read(lower));
  inode->i_blocks = lower->i_blocks;

  dentry->d_op = &tarn_dops;
  if (S_ISDIR(lower->i_mode)) return bind_directory(inode, dentry, flag, moved);
  bind(inode, dentry, flag);
  return 0;
}

void tarn_interpose_init(void) {
  mutex_init(&alias_mutex);
}
