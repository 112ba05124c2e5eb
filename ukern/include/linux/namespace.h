/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The name space: the tree of mounts that all tasks share. There is one; it lives from the root
 * mount to the shutdown. (The structure's name ends in an underscore because the plain one is a
 * keyword.)
 */
#ifndef UKERN_LINUX_NAMESPACE_H
#define UKERN_LINUX_NAMESPACE_H

#include <linux/list.h>
#include <linux/mount.h>
#include <asm/atomic.h>

#ifdef __cplusplus
extern "C" {
#endif

struct namespace_ {
  atomic_t count;
  struct vfsmount *root;
  struct list_head list; /* every mount, in the order of mounting */
  int event;             /* counts the changes of the tree */
};

#ifdef __cplusplus
}
#endif
#endif
