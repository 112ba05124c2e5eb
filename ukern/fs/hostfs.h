/* SPDX-License-Identifier: GPL-2.0 */
/* Settings and statistics of hostfs, common to all its mounts. */
#ifndef UKERN_FS_HOSTFS_H
#define UKERN_FS_HOSTFS_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Limits the idle data descriptors of open files. The least recently used is closed, and reopened
 * at its next use. At boot: an eighth of the host's descriptor limit.
 */
void hostfs_set_idle_files(unsigned long limit);
/*
 * The same for path descriptors of directories and regular files, of which at most `idle` unused
 * ones stay open; and `kept` files keep theirs for good. At boot: a sixteenth, and an eighth.
 */
void hostfs_set_idle_inodes(unsigned long idle, unsigned long kept);
/* Number of directories whose path descriptor stays open because the host cannot reopen them. */
unsigned long hostfs_pinned_directories(void);

#ifdef __cplusplus
}
#endif
#endif
