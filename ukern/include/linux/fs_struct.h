/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A task's root and working directory. All tasks share one, as kernel threads do. Its umask starts
 * at 0, because the caller has applied an application's umask already.
 */
#ifndef _LINUX_FS_STRUCT_H
#define _LINUX_FS_STRUCT_H

#include <linux/spinlock.h>

struct dentry;
struct vfsmount;

struct fs_struct {
  atomic_t count;
  rwlock_t lock; /* protects the four pointers, each of which has a reference */
  int umask;
  struct dentry *root, *pwd;
  struct vfsmount *rootmnt, *pwdmnt;
};

extern "C" {
extern struct fs_struct init_fs;
}

#endif
