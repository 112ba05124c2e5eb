/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Debug builds list every file in use and log its references, so that leaked files can be reported.
 * Release builds have none of it.
 */
#ifndef UKERN_VFS_FILE_LOG_H
#define UKERN_VFS_FILE_LOG_H

#include <linux/fs.h>

#if UKERN_DEBUG

struct known_file {
  struct file file;
  struct list_head all;
};
constexpr size_t kFileMemory = sizeof(struct known_file);

/* Add a file, of kFileMemory bytes, to the list and remove it before it is freed. */
void file_log_begin(struct file *f);
void file_log_end(struct file *f);
/* Logs a reference that is about to be dropped; the last drop frees the file. */
void file_log_drop(struct file *f);
/* Reports all files that are still in use, and empties the list. */
void file_log_report(void);

#else

constexpr size_t kFileMemory = sizeof(struct file);
static inline void file_log_begin(struct file *) {}
static inline void file_log_end(struct file *) {}
static inline void file_log_drop(struct file *) {}
static inline void file_log_report(void) {}

#endif
#endif
