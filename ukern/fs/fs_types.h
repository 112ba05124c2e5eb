/* SPDX-License-Identifier: GPL-2.0 */
/* The file system types that ukern_fs_init registers. Each init returns 0 or -errno; exit undoes
 * it. */
#ifndef UKERN_FS_FS_TYPES_H
#define UKERN_FS_FS_TYPES_H

#ifdef __cplusplus
extern "C" {
#endif

int memfs_init(void);
void memfs_exit(void);
int hostfs_init(void);
void hostfs_exit(void);

#ifdef __cplusplus
}
#endif
#endif
