/* SPDX-License-Identifier: GPL-2.0 */
/*
 * References on open files. There are no descriptor tables: an open file is known by its pointer.
 */
#ifndef UKERN_LINUX_FILE_H
#define UKERN_LINUX_FILE_H

#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/posix_types.h>

struct file;

#ifdef __cplusplus
extern "C" {
#endif

/* Drops a reference; the last one closes the file (release, then its dentry and mount). May sleep.
 */
void fput(struct file *file);
/* Closes a file whose last reference the caller has dropped itself. May sleep. */
void __fput(struct file *file);
/* Drops the reference of a file that was never opened. */
void put_filp(struct file *file);

#ifdef __cplusplus
}
#endif
#endif
