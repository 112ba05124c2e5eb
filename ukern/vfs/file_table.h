/* SPDX-License-Identifier: GPL-2.0 */
/* Start and end of the file table; called by those of the VFS. */
#ifndef UKERN_VFS_FILE_TABLE_H
#define UKERN_VFS_FILE_TABLE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Limit of open files, at least 8192. Set before the start; 0: derived from totalram_pages. */
extern int ukern_max_files;

/* Creates the cache of files. 0 or -ENOMEM. */
int ukern_files_init(void);
/* Destroys the cache; reports files that are still in use. */
void ukern_files_exit(void);

#ifdef __cplusplus
}
#endif
#endif
