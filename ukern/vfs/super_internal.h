/* SPDX-License-Identifier: GPL-2.0 */
/* The seam between super.cc, super_sync.cc and the debug reports. */
#ifndef UKERN_VFS_SUPER_INTERNAL_H
#define UKERN_VFS_SUPER_INTERNAL_H

#include "ukern/vfs/vfs.h"

#ifdef __cplusplus
extern "C" {
#endif

#if UKERN_DEBUG
/* Notes a change of s_active in the super block's log; drops the log. */
void ukern_super_ref(struct super_block *sb, int change);
void ukern_super_forget(struct super_block *sb);
#else
static inline void ukern_super_ref(struct super_block *, int) {}
static inline void ukern_super_forget(struct super_block *) {}
#endif

#ifdef __cplusplus
}
#endif
#endif
