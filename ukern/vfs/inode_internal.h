/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by the inode cache, write-back and the debug reports. */
#ifndef UKERN_VFS_INODE_INTERNAL_H
#define UKERN_VFS_INODE_INTERNAL_H

#include "ukern/vfs/vfs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sleeps while the inode is I_LOCKed. Entered and left with inode_lock held; the caller has a
 * reference. */
void wait_unlocked_inode(struct inode *inode);

#if UKERN_DEBUG
/* Logs a change of i_count; frees the log. */
void ukern_inode_ref(struct inode *inode, int change);
void ukern_inode_forget(struct inode *inode);
#else
static inline void ukern_inode_ref(struct inode *, int) {}
static inline void ukern_inode_forget(struct inode *) {}
#endif

#ifdef __cplusplus
}
#endif
#endif
