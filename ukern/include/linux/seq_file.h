/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Text built up in a bounded buffer. It is used only for the mount table (show_options), so only
 * the calls that write into the buffer exist.
 *
 * Each call returns 0, or -1 when the text does not fit: then `count` is set to `size`, later calls
 * fail too, and the reader retries with a larger buffer. The caller of a show function owns the
 * buffer and does the locking; nothing here sleeps.
 */
#ifndef UKERN_LINUX_SEQ_FILE_H
#define UKERN_LINUX_SEQ_FILE_H

#include <linux/types.h>
#include <linux/string.h>
#include <linux/mutex.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vfsmount;
struct dentry;

struct seq_file {
  char *buf;
  size_t size;
  size_t from;
  size_t count;
  loff_t index;
  loff_t version;
  struct mutex lock;
  void *private_;
};

int seq_escape(struct seq_file *m, const char *s, const char *esc);
int seq_putc(struct seq_file *m, char c);
int seq_puts(struct seq_file *m, const char *s);
int seq_printf(struct seq_file *m, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Writes the path of a dentry with the characters in `esc` as octal escapes; -1 or the length added
 * to `count`. */
int seq_path(struct seq_file *m, struct vfsmount *mnt, struct dentry *dentry, char *esc);

#ifdef __cplusplus
}
#endif
#endif
