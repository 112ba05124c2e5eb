/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Shared by the parts of the VFS and the boot: start and stop of each part, the caches' limit and
 * the debug reports. Not for file systems or modules.
 */
#ifndef UKERN_VFS_VFS_H
#define UKERN_VFS_VFS_H

#include <linux/fs.h>

#ifdef __cplusplus
extern "C" {
#endif

struct task_struct;

/* Start and stop of the parts, in this order and its reverse: 0 or -ENOMEM. The stops expect
 * nothing in use. */
int dcache_init(void);
void dcache_exit(void);
int inode_cache_init(void);
void inode_cache_exit(void);
int super_init(void);
void super_exit(void);
int mnt_init(void);
void mnt_exit(void);
int cache_pruner_start(void);
void cache_pruner_stop(void);

/* Counts that are changed under a lock and read without it. */
static inline void stat_add(int *count, int change) {
  __atomic_store_n(count, *count + change, __ATOMIC_RELAXED);
}
static inline int stat_read(const int *count) {
  return __atomic_load_n(count, __ATOMIC_RELAXED);
}

/* Change the root or the working directory of `fs`; a null mount clears it. They take and drop the
 * references. */
void set_fs_root(struct fs_struct *fs, struct vfsmount *mnt, struct dentry *dentry);
void set_fs_pwd(struct fs_struct *fs, struct vfsmount *mnt, struct dentry *dentry);

struct vfsmount *__lookup_mnt(struct vfsmount *mnt,
                              struct dentry *dentry); /* under vfsmount_lock */
int __put_super(struct super_block *sb);              /* under sb_lock */
/* Drops an s_count reference under sb_lock. 1 when the super block has left the list, so that a
 * walk must restart. */
int __put_super_and_need_restart(struct super_block *sb);
void put_filesystem(struct file_system_type *fs);
void get_filesystem(struct file_system_type *fs);
/* Writes a super block back and waits. */
int fsync_super(struct super_block *sb);

/*
 * Limit of unused dentries, and of unused inodes. A kernel thread soon frees those above it;
 * d_alloc frees dentries at twice the limit.
 */
extern int ukern_cache_limit;
#define UKERN_CACHE_LIMIT_DEFAULT 20000
/* Changes the limit and wakes the pruner if necessary. */
void set_cache_limit(unsigned limit);
/* Frees every unused dentry and inode. May sleep. */
void drop_caches(void);
/* Wakes the pruner if it has work. Any context that may take a spin lock. */
void cache_pruner_kick(void);
/* Free up to `count` unused dentries or inodes, the least recently used first. May sleep. */
void prune_dcache(int count);
void prune_icache(int count);

#if UKERN_DEBUG
/*
 * Report leaks and return their number: dentries below `root` in use when its super block is shut
 * down (`spare`: expected references on the root itself), inodes left in a super block, mounts,
 * super blocks.
 */
int dcache_report_busy(struct dentry *root, int spare);
int inode_report_busy(struct super_block *sb);
int mount_report_busy(void);
int super_report_busy(void);
#else
static inline int dcache_report_busy(struct dentry *, int) {
  return 0;
}
static inline int inode_report_busy(struct super_block *) {
  return 0;
}
static inline int mount_report_busy(void) {
  return 0;
}
static inline int super_report_busy(void) {
  return 0;
}
#endif

#ifdef __cplusplus
}
#endif
#endif
