/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The order in which uk_boot starts the kernel's areas; uk_shutdown stops them in the reverse
 * order. Each start returns 0 or a negative error number with nothing left behind, after which
 * those before it are stopped. All are called as init_task. A stop ends the threads of its area and
 * reports what is still in use.
 */
#ifndef UKERN_SCHED_BOOT_H
#define UKERN_SCHED_BOOT_H

#ifdef __cplusplus
extern "C" {
#endif

/* ukern/mm: page allocator, page cache. totalram_pages is set before. */
int ukern_mm_init(void);
void ukern_mm_exit(void);
/* ukern/vfs: dentry and inode caches, super blocks, mounts, open files. */
int ukern_vfs_init(void);
void ukern_vfs_exit(void);
/* ukern/shipped or ukern/testing: registers file systems, starts the threads that they need. */
int ukern_fs_init(void);
void ukern_fs_exit(void);
/* ukern/net: socket buffers, netlink, socket options. */
int ukern_net_init(void);
void ukern_net_exit(void);

/* Mounts the root of the name space and gives it to init_fs, root and working directory. */
int ukern_mount_root(const char *type, const char *source);
/* Unmounts everything, the root last, after init_fs has let go of it. */
void ukern_umount_root(void);

#ifdef __cplusplus
}
#endif
#endif
