// SPDX-License-Identifier: GPL-2.0
// mount(2) and umount2(2).
//
// New mounts, remounts and bind mounts of one mount are supported; recursive bind mounts, moves and
// propagation are refused.

#include "ukern/syscall/syscall.h"

#include <linux/capability.h>
#include <linux/mm.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"
#include "ukern/vfs/mount_internal.h"
#include "ukern/vfs/super_internal.h"

int do_add_mount(struct vfsmount *newmnt, struct nameidata *nd, int mnt_flags, struct list_head *) {
  int err;

  {
    ExclusiveGuard guard(namespace_sem);
    // Something may have been mounted here meanwhile.
    while (d_mountpoint(nd->dentry) && follow_down(&nd->mnt, &nd->dentry)) {
    }
    if (!mnt_is_attached(nd->mnt)) {
      err = -EINVAL;
    } else if (nd->mnt->mnt_sb == newmnt->mnt_sb && nd->mnt->mnt_root == nd->dentry) {
      err = -EBUSY;  // the same file system on the same place
    } else if (S_ISLNK(newmnt->mnt_root->d_inode->i_mode)) {
      err = -EINVAL;
    } else {
      newmnt->mnt_flags = mnt_flags;
      err = graft_tree(newmnt, nd);
    }
  }
  if (err) mntput(newmnt);
  return err;
}

static int do_new_mount(struct nameidata *nd, const char *type, int flags, int mnt_flags,
                        const char *name, void *data) {
  struct vfsmount *mnt;

  if (!type) return -EINVAL;
  if (!capable(CAP_SYS_ADMIN)) return -EPERM;
  mnt = do_kern_mount(type, flags, name, data);
  if (IS_ERR(mnt)) return static_cast<int>(PTR_ERR(mnt));
  return do_add_mount(mnt, nd, mnt_flags, nullptr);
}

// A new, unattached mount of the same super block, of the tree below `root`.
static struct vfsmount *clone_mnt(struct vfsmount *old, struct dentry *root) {
  struct vfsmount *mnt = alloc_vfsmnt(old->mnt_devname);
  if (!mnt) return nullptr;
  mnt->mnt_flags = old->mnt_flags;
  atomic_inc(&old->mnt_sb->s_active);
  ukern_super_ref(old->mnt_sb, 1);
  mnt->mnt_sb = old->mnt_sb;
  mnt->mnt_root = dget(root);
  mnt->mnt_mountpoint = mnt->mnt_root;
  mnt->mnt_parent = mnt;
  return mnt;
}

static int do_loopback(struct nameidata *nd, const char *old_name) {
  struct nameidata old_nd;
  struct vfsmount *mnt = nullptr;
  int err;

  if (!capable(CAP_SYS_ADMIN)) return -EPERM;
  if (!old_name || !*old_name) return -EINVAL;
  err = path_lookup(old_name, LOOKUP_FOLLOW, &old_nd);
  if (err) return err;

  {
    ExclusiveGuard guard(namespace_sem);
    err = -EINVAL;
    if (mnt_is_attached(nd->mnt) && mnt_is_attached(old_nd.mnt)) {
      mnt = clone_mnt(old_nd.mnt, old_nd.dentry);
      err = mnt ? graft_tree(mnt, nd) : -ENOMEM;
    }
  }
  if (err && mnt) mntput(mnt);
  path_release(&old_nd);
  return err;
}

static int do_remount(struct nameidata *nd, int flags, int mnt_flags, void *data) {
  struct super_block *sb = nd->mnt->mnt_sb;
  int err;

  if (!capable(CAP_SYS_ADMIN)) return -EPERM;
  if (!mnt_is_attached(nd->mnt) || nd->dentry != nd->mnt->mnt_root) return -EINVAL;
  ExclusiveGuard guard(sb->s_umount);
  err = do_remount_sb(sb, flags, data, 0);
  if (!err) nd->mnt->mnt_flags = mnt_flags;
  return err;
}

static int per_mount_flags(unsigned long flags) {
  int mnt_flags = 0;
  if (flags & MS_NOSUID) mnt_flags |= MNT_NOSUID;
  if (flags & MS_NODEV) mnt_flags |= MNT_NODEV;
  if (flags & MS_NOEXEC) mnt_flags |= MNT_NOEXEC;
  if (flags & MS_NOATIME) mnt_flags |= MNT_NOATIME;
  if (flags & MS_NODIRATIME) mnt_flags |= MNT_NODIRATIME;
  return mnt_flags;
}

long do_mount(char *dev_name, char *dir_name, char *type, unsigned long flags, void *data) {
  const unsigned long unsupported = MS_SHARED | MS_PRIVATE | MS_SLAVE | MS_UNBINDABLE | MS_MOVE;
  struct nameidata nd;
  int err;

  if ((flags & MS_MGC_MSK) == MS_MGC_VAL) flags &= ~static_cast<unsigned long>(MS_MGC_MSK);
  if (!dir_name || !*dir_name) return -EINVAL;

  const int mnt_flags = per_mount_flags(flags);
  flags &= ~static_cast<unsigned long>(MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_NOATIME |
                                       MS_NODIRATIME | MS_ACTIVE);

  err = path_lookup(dir_name, LOOKUP_FOLLOW, &nd);
  if (err) return err;
  if (flags & MS_REMOUNT)
    err = do_remount(&nd, static_cast<int>(flags & ~static_cast<unsigned long>(MS_REMOUNT)),
                     mnt_flags, data);
  else if (flags & unsupported)
    err = -EINVAL;
  else if (flags & MS_BIND)
    err = flags & MS_REC ? -EINVAL : do_loopback(&nd, dev_name);
  else
    err = do_new_mount(&nd, type, static_cast<int>(flags), mnt_flags, dev_name, data);
  path_release(&nd);
  return err;
}

// MNT_EXPIRE: the first call marks an unused mount, the second finds the mark and unmounts.
static int check_expiry(struct vfsmount *mnt, int flags, bool is_root) {
  if (is_root || (flags & (MNT_FORCE | MNT_DETACH))) return -EINVAL;
  if (atomic_read(&mnt->mnt_count) != 2) return -EBUSY;
  if (!xchg(&mnt->mnt_expiry_mark, 1)) return -EAGAIN;
  return 0;
}

// The root stays mounted while the kernel runs; unmounting it only makes it read-only.
static int umount_root(struct super_block *sb) {
  int err = 0;
  ExclusiveGuard guard(sb->s_umount);
  if (!(sb->s_flags & MS_RDONLY)) err = do_remount_sb(sb, MS_RDONLY, nullptr, 0);
  return err;
}

static int do_umount(struct vfsmount *mnt, int flags) {
  struct super_block *sb = mnt->mnt_sb;
  const bool is_root = mnt == ukern_namespace->root;
  LIST_HEAD(kill);
  int err = 0;

  if (flags & MNT_EXPIRE) {
    err = check_expiry(mnt, flags, is_root);
    if (err) return err;
  }
  if (sb->s_op->umount_begin) sb->s_op->umount_begin(mnt, flags);
  if (is_root) return flags & MNT_DETACH ? -EINVAL : umount_root(sb);

  {
    ExclusiveGuard guard(namespace_sem);
    SpinGuard tree_guard(vfsmount_lock);
    if (!(flags & MNT_DETACH) && mnt_is_busy(mnt, 2))
      err = -EBUSY;
    else if (!list_empty(&mnt->mnt_list))
      umount_tree(mnt, &kill);
  }
  release_mounts(&kill);
  return err;
}

int umount_path(const char *dir, int flags) {
  struct nameidata nd;
  int err = path_lookup(dir, LOOKUP_FOLLOW, &nd);

  if (err) return err;
  if (nd.dentry != nd.mnt->mnt_root || !mnt_is_attached(nd.mnt))
    err = -EINVAL;
  else if (!capable(CAP_SYS_ADMIN))
    err = -EPERM;
  else
    err = do_umount(nd.mnt, flags);
  path_release_on_umount(&nd);
  return err;
}
