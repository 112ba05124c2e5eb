/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by super.cc, super_sync.cc and the debug reports. */
#ifndef UKERN_VFS_SUPER_INTERNAL_H
#define UKERN_VFS_SUPER_INTERNAL_H

#include "ukern/vfs/vfs.h"

#ifdef __cplusplus
extern "C" {
#endif

#if UKERN_DEBUG
/* Logs a change of s_active; frees the log. */
void ukern_super_ref(struct super_block *sb, int change);
void ukern_super_forget(struct super_block *sb);

/* Calls get_sb; meanwhile mount_depth returns the number of file systems below the new one. */
int get_sb_at_depth(struct file_system_type *type, int flags, const char *name, void *data,
                    struct vfsmount *mnt);
unsigned mount_depth(void);
/* Takes over the depth from the locks of a new super block. */
void note_super_depth(struct super_block *sb);
#else
static inline void ukern_super_ref(struct super_block *, int) {}
static inline void ukern_super_forget(struct super_block *) {}
static inline int get_sb_at_depth(struct file_system_type *type, int flags, const char *name,
                                  void *data, struct vfsmount *mnt) {
  return type->get_sb(type, flags, name, data, mnt);
}
static inline void note_super_depth(struct super_block *) {}
#endif

#ifdef __cplusplus
}
#endif
#endif
