/* SPDX-License-Identifier: GPL-2.0 */
/* Start and end of what open files are made of; called by the VFS's own start and end. */
#ifndef UKERN_VFS_FILE_TABLE_H
#define UKERN_VFS_FILE_TABLE_H

#ifdef __cplusplus
extern "C" {
#endif

/* How many files may be open. Set before; 0: a number that goes with totalram_pages. */
extern int ukern_max_files;

/* Makes the cache of files. 0 or -ENOMEM. */
int ukern_files_init(void);
/* Gives the cache back; reports files that are still in use. */
void ukern_files_exit(void);

#ifdef __cplusplus
}
#endif
#endif
