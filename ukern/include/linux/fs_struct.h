/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Where a task stands in the name space. All tasks share one, as kernel threads do; its umask
 * starts at 0, because whoever calls for an application has applied the application's umask
 * already.
 */
#ifndef _LINUX_FS_STRUCT_H
#define _LINUX_FS_STRUCT_H

#include <linux/spinlock.h>

struct dentry;
struct vfsmount;

struct fs_struct {
  atomic_t count;
  rwlock_t lock; /* guards the four pointers, each of which holds a reference */
  int umask;
  struct dentry *root, *pwd;
  struct vfsmount *rootmnt, *pwdmnt;
};

extern "C" {
extern struct fs_struct init_fs;
}

#endif
