/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by the mount tree, the calls that change it, the mount table and the debug reports. */
#ifndef UKERN_VFS_MOUNT_INTERNAL_H
#define UKERN_VFS_MOUNT_INTERNAL_H

#include <linux/mount.h>
#include <linux/namei.h>
#include <linux/namespace.h>
#include <linux/rwsem.h>

#include "ukern/vfs/vfs.h"

#ifdef __cplusplus
extern "C" {
#endif

extern struct rw_semaphore namespace_sem; /* held for reading by walks of the tree that may sleep */
extern struct namespace_ *ukern_namespace;
extern struct list_head ukern_all_mounts; /* attached or not; under vfsmount_lock */

/* Is the mount part of the name space? */
bool mnt_is_attached(struct vfsmount *mnt);
/* Whether the mount has more references than expected, or a mount below it. Under vfsmount_lock. */
bool mnt_is_busy(struct vfsmount *mnt, int expected);
/* The next mount of a walk below `root`, parents first; NULL at the end. */
struct vfsmount *next_mnt(struct vfsmount *at, struct vfsmount *root);
/* Attaches a mount at nd. -EINVAL, -ENOTDIR or -ENOENT if that is impossible. namespace_sem is held
 * for writing. */
int graft_tree(struct vfsmount *mnt, struct nameidata *nd);
/* Moves a mount and all below it from the tree to `kill`, parents first. namespace_sem and
 * vfsmount_lock are held. */
void umount_tree(struct vfsmount *mnt, struct list_head *kill);
/* Drops the tree's references on the mounts that umount_tree removed. No locks held; may sleep. */
void release_mounts(struct list_head *kill);

/* Line `index` of the mount table as in /proc/mounts, without the newline. -ENOENT past the last
 * one, -ERANGE if it does not fit into `size` bytes with its NUL. */
int mount_table_line(unsigned index, char *line, unsigned long size);

/* Create the name space with its root mount, whose reference it takes over; unmount everything. */
int ukern_namespace_start(struct vfsmount *root);
void ukern_namespace_stop(void);

#if UKERN_DEBUG
void ukern_vfsmount_forget(struct vfsmount *mnt); /* frees the reference log */
#else
static inline void ukern_vfsmount_forget(struct vfsmount *) {}
#endif

#ifdef __cplusplus
}
#endif
#endif
