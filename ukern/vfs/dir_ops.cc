// SPDX-License-Identifier: GPL-2.0
// Creating and removing names: the checks common to all file systems, the locks, and the dentry
// cache afterwards. The caller holds the i_mutex of the directories involved.
#include <linux/capability.h>
#include <linux/dcache.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/stat.h>
#include "ukern/sync/guard.h"
#include "ukern/vfs/walk.h"

namespace {

bool sticky_forbids(struct inode *dir, struct inode *inode) {
  if (!(dir->i_mode & S_ISVTX)) return false;
  if (inode->i_uid == current->fsuid || dir->i_uid == current->fsuid) return false;
  return !capable(CAP_FOWNER);
}

int may_delete(struct inode *dir, struct dentry *victim, bool want_dir) {
  struct inode *inode = victim->d_inode;
  if (!inode) return -ENOENT;
  BUG_ON(victim->d_parent->d_inode != dir);

  const int error = permission(dir, MAY_WRITE | MAY_EXEC, nullptr);
  if (error) return error;
  if (IS_APPEND(dir)) return -EPERM;
  if (sticky_forbids(dir, inode) || IS_APPEND(inode) || IS_IMMUTABLE(inode)) return -EPERM;
  if (want_dir) {
    if (!S_ISDIR(inode->i_mode)) return -ENOTDIR;
    if (IS_ROOT(victim)) return -EBUSY;
  } else if (S_ISDIR(inode->i_mode)) {
    return -EISDIR;
  }
  return IS_DEADDIR(dir) ? -ENOENT : 0;
}

int may_create(struct inode *dir, struct dentry *child, struct nameidata *nd) {
  if (child->d_inode) return -EEXIST;
  if (IS_DEADDIR(dir)) return -ENOENT;
  return permission(dir, MAY_WRITE | MAY_EXEC, nd);
}

int rename_unless_mounted(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                          struct dentry *new_dentry) {
  if (d_mountpoint(old_dentry) || d_mountpoint(new_dentry)) return -EBUSY;
  return old_dir->i_op->rename(old_dir, old_dentry, new_dir, new_dentry);
}

// Renames a directory over another one, which is unhashed first.
int replace_dir(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                struct dentry *new_dentry) {
  struct inode *target = new_dentry->d_inode;
  MutexGuard guard(target->i_mutex);
  dentry_unhash(new_dentry);
  const int error = rename_unless_mounted(old_dir, old_dentry, new_dir, new_dentry);
  if (!error) target->i_flags |= S_DEAD;
  return error;
}

int rename_dir(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
               struct dentry *new_dentry) {
  int error;
  if (new_dir != old_dir) {
    // Its ".." is about to change.
    error = permission(old_dentry->d_inode, MAY_WRITE, nullptr);
    if (error) return error;
  }
  if (new_dentry->d_inode) {
    error = replace_dir(old_dir, old_dentry, new_dir, new_dentry);
    if (d_unhashed(new_dentry)) d_rehash(new_dentry);
    dput(new_dentry);  // taken by dentry_unhash
  } else {
    error = rename_unless_mounted(old_dir, old_dentry, new_dir, new_dentry);
  }
  if (!error) d_move(old_dentry, new_dentry);
  return error;
}

int rename_and_move(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                    struct dentry *new_dentry) {
  const int error = rename_unless_mounted(old_dir, old_dentry, new_dir, new_dentry);
  if (!error) d_move(old_dentry, new_dentry);
  return error;
}

int rename_other(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                 struct dentry *new_dentry) {
  int error;
  dget(new_dentry);
  if (struct inode *target = new_dentry->d_inode) {
    MutexGuard guard(target->i_mutex);
    error = rename_and_move(old_dir, old_dentry, new_dir, new_dentry);
  } else {
    error = rename_and_move(old_dir, old_dentry, new_dir, new_dentry);
  }
  dput(new_dentry);
  return error;
}

// The child of `ancestor` that is `dentry` or above it; NULL if there is none.
struct dentry *child_towards(struct dentry *dentry, struct dentry *ancestor) {
  for (; !IS_ROOT(dentry); dentry = dentry->d_parent)
    if (dentry->d_parent == ancestor) return dentry;
  return nullptr;
}

}  // namespace

extern "C" {

int vfs_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *nd) {
  const int error = may_create(dir, dentry, nd);
  if (error) return error;
  if (!dir->i_op || !dir->i_op->create) return -EACCES;
  return dir->i_op->create(dir, dentry, (mode & S_IALLUGO) | S_IFREG, nd);
}

int vfs_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  const int error = may_create(dir, dentry, nullptr);
  if (error) return error;
  if ((S_ISCHR(mode) || S_ISBLK(mode)) && !capable(CAP_MKNOD)) return -EPERM;
  if (!dir->i_op || !dir->i_op->mknod) return -EPERM;
  return dir->i_op->mknod(dir, dentry, mode, dev);
}

int vfs_mkdir(struct inode *dir, struct dentry *dentry, int mode) {
  const int error = may_create(dir, dentry, nullptr);
  if (error) return error;
  if (!dir->i_op || !dir->i_op->mkdir) return -EPERM;
  return dir->i_op->mkdir(dir, dentry, mode & (S_IRWXUGO | S_ISVTX));
}

int vfs_symlink(struct inode *dir, struct dentry *dentry, const char *oldname, int mode) {
  (void)mode;  // links have no mode of their own; the interface has the argument
  const int error = may_create(dir, dentry, nullptr);
  if (error) return error;
  if (!dir->i_op || !dir->i_op->symlink) return -EPERM;
  return dir->i_op->symlink(dir, dentry, oldname);
}

int vfs_link(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  struct inode *inode = old_dentry->d_inode;
  if (!inode) return -ENOENT;
  int error = may_create(dir, new_dentry, nullptr);
  if (error) return error;
  if (dir->i_sb != inode->i_sb) return -EXDEV;
  if (IS_APPEND(inode) || IS_IMMUTABLE(inode)) return -EPERM;
  if (!dir->i_op || !dir->i_op->link) return -EPERM;
  if (S_ISDIR(inode->i_mode)) return -EPERM;

  MutexGuard guard(inode->i_mutex);
  return dir->i_op->link(old_dentry, dir, new_dentry);
}

int vfs_unlink(struct inode *dir, struct dentry *dentry) {
  int error = may_delete(dir, dentry, false);
  if (error) return error;
  if (!dir->i_op || !dir->i_op->unlink) return -EPERM;

  struct inode *inode = dentry->d_inode;
  {
    MutexGuard guard(inode->i_mutex);
    error = d_mountpoint(dentry) ? -EBUSY : dir->i_op->unlink(dir, dentry);
  }
  if (!error) d_delete(dentry);
  return error;
}

int vfs_rmdir(struct inode *dir, struct dentry *dentry) {
  int error = may_delete(dir, dentry, true);
  if (error) return error;
  if (!dir->i_op || !dir->i_op->rmdir) return -EPERM;

  struct inode *inode = dentry->d_inode;
  {
    MutexGuard guard(inode->i_mutex);
    dentry_unhash(dentry);
    error = d_mountpoint(dentry) ? -EBUSY : dir->i_op->rmdir(dir, dentry);
    if (!error) inode->i_flags |= S_DEAD;
  }
  if (!error) d_delete(dentry);
  dput(dentry);  // taken by dentry_unhash
  return error;
}

int vfs_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
               struct dentry *new_dentry) {
  const bool is_dir = S_ISDIR(old_dentry->d_inode->i_mode);
  if (old_dentry->d_inode == new_dentry->d_inode) return 0;

  int error = may_delete(old_dir, old_dentry, is_dir);
  if (error) return error;
  error = new_dentry->d_inode ? may_delete(new_dir, new_dentry, is_dir)
                              : may_create(new_dir, new_dentry, nullptr);
  if (error) return error;
  if (!old_dir->i_op || !old_dir->i_op->rename) return -EPERM;
  return is_dir ? rename_dir(old_dir, old_dentry, new_dir, new_dentry)
                : rename_other(old_dir, old_dentry, new_dir, new_dentry);
}

// Ancestors first. The tree above cannot change meanwhile, because every rename between directories
// holds the super block's rename mutex.
struct dentry *lock_rename(struct dentry *p1, struct dentry *p2) {
  if (p1 == p2) {
    mutex_lock_nested(&p1->d_inode->i_mutex, I_MUTEX_PARENT);
    return nullptr;
  }
  mutex_lock(&p1->d_inode->i_sb->s_vfs_rename_mutex);
  struct dentry *trap = child_towards(p1, p2);
  struct dentry *first = trap ? p2 : p1;
  if (!trap) trap = child_towards(p2, p1);
  mutex_lock_nested(&first->d_inode->i_mutex, I_MUTEX_PARENT);
  mutex_lock_nested(&(first == p1 ? p2 : p1)->d_inode->i_mutex, I_MUTEX_CHILD);
  return trap;
}

void unlock_rename(struct dentry *p1, struct dentry *p2) {
  mutex_unlock(&p1->d_inode->i_mutex);  // hand-over: from lock_rename
  if (p1 == p2) return;
  mutex_unlock(&p2->d_inode->i_mutex);                   // hand-over: from lock_rename
  mutex_unlock(&p1->d_inode->i_sb->s_vfs_rename_mutex);  // hand-over: from lock_rename
}

}  // extern "C"
