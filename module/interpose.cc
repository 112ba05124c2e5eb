// SPDX-License-Identifier: GPL-2.0
// Binds upper dentries to upper inodes, which are found or made for the lower ones.
//
// An upper directory stands for a lower directory and the lower mount through which it is reached.
// A lower directory at two places of the lower tree (a bind mount) is two upper directories:
// without this layer nothing can be renamed from one place to the other either, and a change is
// recorded by the path of the place where it was made.
//
// An upper directory has at most one dentry: the VFS locks the i_mutex of two different dentries'
// inodes one after the other, which would deadlock on a shared one. So when a directory was moved
// in the lower tree, beside this mount, its dentry with all its users is moved to where it is
// found.

#include "tarn.h"
#include "ox_guard.h"

namespace {

// Serializes binding and moving the dentries of directories. Inside it VFS locks are only tried,
// and the lower file system is not called.
struct mutex alias_mutex;

// How often the locks for a move are retried: first at once, then after a tick.
constexpr int most_tries = 3;

// The key of directories in the inode cache.
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

// Drops the cached names in it, which belong to the former lower dentry.
void forget_children(struct dentry *dir) {
  spin_guard guard(dcache_lock);
  struct dentry *child;
  list_for_each_entry(child, &dir->d_subdirs, d_u.d_child) {
    spin_guard child_guard(child->d_lock);
    if (!d_mountpoint(child)) __d_drop(child);
  }
}

// Gives `alias` the lower path of `dentry`, as the lower file system has another dentry of the
// directory now. The former one may be in use without a reference, so it is kept until `alias` is
// released.
void take_lower_path(struct dentry *alias, struct dentry *dentry) {
  struct tarn_dentry_info *info = tarn_dentry(dentry);
  info->former = tarn_dentry(alias);
  dentry->d_fsdata = nullptr;
  __atomic_store_n(&alias->d_fsdata, static_cast<void *>(info), __ATOMIC_RELEASE);
  forget_children(alias);
}

// Moves `alias` to the place of `dentry`. Both parents, or their common one, are locked.
int replace(struct dentry *alias, struct dentry *dentry) {
  if (d_mountpoint(alias)) return -EBUSY;
  if (tarn_lower_dentry(alias) != tarn_lower_dentry(dentry)) take_lower_path(alias, dentry);
  d_move(alias, dentry);
  return 0;
}

// The same with the locks that it needs besides that of dentry's parent, which the caller holds. In
// the VFS's order they come before that one, so they are only tried. -ESTALE: not available now;
// -ELOOP: `dentry` is below `alias`, whose own move was not seen yet.
int try_to_replace(struct dentry *alias, struct dentry *dentry) {
  if (!IS_ROOT(alias) && alias->d_parent == dentry->d_parent) return replace(alias, dentry);
  mutex_try_guard rename_guard(dentry->d_sb->s_vfs_rename_mutex);
  if (!rename_guard) return -ESTALE;
  if (is_at_or_above(alias, dentry)) return -ELOOP;
  mutex_try_guard parent_guard(alias->d_parent->d_inode->i_mutex);
  return parent_guard ? replace(alias, dentry) : -ESTALE;
}

// Binds the dentry; takes over the reference on the inode.
void bind(struct inode *inode, struct dentry *dentry, enum tarn_interpose_flag flag) {
  if (flag == TARN_SPLICE) {
    d_splice_alias(inode, dentry);
  } else {
    d_instantiate(dentry, inode);
  }
}

// tarn_interpose for a directory; takes over the reference on the inode.
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
      if (rc == -ESTALE) d_invalidate(alias);  // an unused one need not be moved
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
    unlock_new_inode(inode);  // it takes over the reference on the lower inode
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

  // Before the binding: another path walk may use the inode from then on.
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
