/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Mounts: struct vfsmount is one file system at one place of the name space.
 *
 * mnt_count counts references; the mount tree has one while the mount is attached, and an attached
 * mount has references on the mount and dentry of its mount point. vfsmount_lock protects the tree
 * and the hash; changes also need the name space's semaphore. mntget never sleeps, mntput may.
 */
#ifndef UKERN_LINUX_MOUNT_H
#define UKERN_LINUX_MOUNT_H

#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <asm/atomic.h>

#ifdef __cplusplus
extern "C" {
#endif

struct dentry;
struct file_system_type;
struct nameidata;
struct namespace_;
struct super_block;
struct reflog;

#define MNT_NOSUID 0x01
#define MNT_NODEV 0x02
#define MNT_NOEXEC 0x04
#define MNT_NOATIME 0x08
#define MNT_NODIRATIME 0x10

struct vfsmount {
  struct list_head mnt_hash;
  struct vfsmount *mnt_parent; /* itself while not attached */
  struct dentry *mnt_mountpoint;
  struct dentry *mnt_root;
  struct super_block *mnt_sb;
  struct list_head mnt_mounts; /* children, through their mnt_child */
  struct list_head mnt_child;
  atomic_t mnt_count;
  int mnt_flags;
  int mnt_expiry_mark;
  char *mnt_devname;
  struct list_head mnt_list; /* in the name space's list */
  struct namespace_ *mnt_namespace;
  struct list_head mnt_all;  /* every mount, for reports; under vfsmount_lock */
  struct reflog *mnt_reflog; /* debug builds: log of the references */
};

#if UKERN_DEBUG
/* Logs a change of the mount's count. */
void ukern_vfsmount_ref(struct vfsmount *mnt, int change);
#else
static inline void ukern_vfsmount_ref(struct vfsmount *, int) {}
#endif

static inline struct vfsmount *mntget(struct vfsmount *mnt) {
  if (mnt) {
    atomic_inc(&mnt->mnt_count);
    ukern_vfsmount_ref(mnt, 1);
  }
  return mnt;
}

void mntput_no_expire(struct vfsmount *mnt);

static inline void mntput(struct vfsmount *mnt) {
  if (mnt) {
    __atomic_store_n(&mnt->mnt_expiry_mark, 0, __ATOMIC_RELAXED);
    mntput_no_expire(mnt);
  }
}

void free_vfsmnt(struct vfsmount *mnt);
struct vfsmount *alloc_vfsmnt(const char *name);

/* An unattached mount of a new or existing super block; the caller owns its only reference.
 * ERR_PTR. */
struct vfsmount *do_kern_mount(const char *fstype, int flags, const char *name, void *data);
struct vfsmount *vfs_kern_mount(struct file_system_type *type, int flags, const char *name,
                                void *data);

/* Attaches `newmnt` at nd, and consumes its reference also on failure. */
int do_add_mount(struct vfsmount *newmnt, struct nameidata *nd, int mnt_flags,
                 struct list_head *fslist);

extern spinlock_t vfsmount_lock;

#ifdef __cplusplus
}
#endif
#endif
