/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Start and stop of the kernel's areas, in the order in which uk_boot starts them; uk_shutdown
 * stops them in reverse order. Each start returns 0 or a negative error number. A failed one leaves
 * nothing behind, and the areas before it are stopped. All run as init_task. A stop ends its area's
 * threads and reports what is still in use.
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

/* Mounts the root file system and makes it the root and working directory of init_fs. */
int ukern_mount_root(const char *type, const char *source);
/* Drops init_fs's references and unmounts everything, the root last. */
void ukern_umount_root(void);

#ifdef __cplusplus
}
#endif
#endif
