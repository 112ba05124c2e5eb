/* SPDX-License-Identifier: GPL-2.0 */
/* What can be set of hostfs, for all its mounts. */
#ifndef UKERN_FS_HOSTFS_H
#define UKERN_FS_HOSTFS_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * How many data descriptors of open files may be kept open while nobody uses them; the one unused
 * for longest is closed then, and opened again at its next use. At boot: an eighth of what the host
 * allows.
 */
void hostfs_set_idle_files(unsigned long limit);
/* The same of path descriptors of directories. At boot: a sixteenth. */
void hostfs_set_idle_directories(unsigned long limit);
/* Directories whose path descriptor stays open because the host could not find them again. */
unsigned long hostfs_kept_directories(void);

#ifdef __cplusplus
}
#endif
#endif
