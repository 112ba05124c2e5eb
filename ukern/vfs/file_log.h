/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Debug builds know every file that is in use and who took and dropped references on it, so that
 * those left at the end can be reported. In release builds all of this is nothing.
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

/* The file's memory, of kFileMemory bytes, comes into use and goes out of it. */
void file_log_begin(struct file *f);
void file_log_end(struct file *f);
/* A reference is about to be dropped: with the last one the file is gone. */
void file_log_drop(struct file *f);
/* Reports all files that are still in use, and forgets them. */
void file_log_report(void);

#else

constexpr size_t kFileMemory = sizeof(struct file);
static inline void file_log_begin(struct file *) {}
static inline void file_log_end(struct file *) {}
static inline void file_log_drop(struct file *) {}
static inline void file_log_report(void) {}

#endif
#endif
