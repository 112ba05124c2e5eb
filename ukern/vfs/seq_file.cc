// SPDX-License-Identifier: GPL-2.0
// Text in a bounded buffer. A text that does not fit sets count to size, which tells the reader
// that the buffer is too small.

#include <linux/seq_file.h>

#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/kernel.h>

static int overflow(struct seq_file *m) {
  m->count = m->size;
  return -1;
}

int seq_putc(struct seq_file *m, char c) {
  if (m->count >= m->size) return -1;
  m->buf[m->count++] = c;
  return 0;
}

int seq_puts(struct seq_file *m, const char *s) {
  const size_t len = strlen(s);
  if (m->count + len >= m->size) return overflow(m);
  memcpy(m->buf + m->count, s, len);
  m->count += len;
  return 0;
}

int seq_printf(struct seq_file *m, const char *format, ...) {
  va_list args;
  int len;

  if (m->count >= m->size) return overflow(m);
  va_start(args, format);
  len = vsnprintf(m->buf + m->count, m->size - m->count, format, args);
  va_end(args);
  if (m->count + static_cast<size_t>(len) >= m->size) return overflow(m);
  m->count += static_cast<size_t>(len);
  return 0;
}

// Writes one character, as three octal digits if it is in `esc`. Returns the position behind it, or
// NULL.
static char *put_escaped(char *to, const char *end, char c, const char *esc) {
  if (!strchr(esc, c)) {
    if (to >= end) return nullptr;
    *to = c;
    return to + 1;
  }
  if (end - to < 4) return nullptr;
  to[0] = '\\';
  to[1] = static_cast<char>('0' + ((c & 0300) >> 6));
  to[2] = static_cast<char>('0' + ((c & 070) >> 3));
  to[3] = static_cast<char>('0' + (c & 07));
  return to + 4;
}

int seq_escape(struct seq_file *m, const char *s, const char *esc) {
  char *to = m->buf + m->count;
  for (; *s; s++) {
    to = put_escaped(to, m->buf + m->size, *s, esc);
    if (!to) return overflow(m);
  }
  m->count = static_cast<size_t>(to - m->buf);
  return 0;
}

int seq_path(struct seq_file *m, struct vfsmount *mnt, struct dentry *dentry, char *esc) {
  char *const start = m->buf + m->count;
  char *to = start;
  char *path;

  if (m->count >= m->size) return overflow(m);
  path = d_path(dentry, mnt, start, static_cast<int>(m->size - m->count));
  if (IS_ERR(path)) return overflow(m);
  // The path is at the end of the same buffer: the output must not overwrite the part that is still
  // to be read.
  for (; *path; path++) {
    to = put_escaped(to, path + 1, *path, esc);
    if (!to) return overflow(m);
  }
  m->count = static_cast<size_t>(to - m->buf);
  return static_cast<int>(to - start);
}
