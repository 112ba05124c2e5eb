// SPDX-License-Identifier: GPL-2.0
// Lists directories for the hosting program.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/limits.h>
#include <linux/string.h>
#include "ukern/door/node.h"

namespace {

// filldir gets the position of an entry; the caller needs the position behind it, which is that of
// the next entry. So each entry is held back until the next one.
struct listing {
  int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
              unsigned long long next);
  void *arg;
  bool pending;
  int stopped;
  int error;
  unsigned type;
  unsigned long long ino;
  char name[NAME_MAX + 1];
};

void emit_pending(struct listing *list, loff_t next) {
  if (list->pending && !list->stopped)
    list->stopped = list->fill(list->arg, list->name, list->ino, list->type,
                               static_cast<unsigned long long>(next));
  list->pending = false;
}

int fill_entry(void *buf, const char *name, int len, loff_t offset, ino_t ino, unsigned type) {
  auto *list = static_cast<struct listing *>(buf);
  emit_pending(list, offset);
  if (list->stopped) return -EINVAL;
  if (len < 0 || len > NAME_MAX) return list->error = -EOVERFLOW;
  memcpy(list->name, name, static_cast<size_t>(len));
  list->name[len] = '\0';
  list->ino = ino;
  list->type = type;
  list->pending = true;
  return 0;
}

}  // namespace

extern "C" {

int uk_readdir(struct uk_file *dir, unsigned long long off,
               int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
                           unsigned long long next),
               void *arg) {
  struct file *filp = node_file(dir);
  struct listing list = {};
  list.fill = fill;
  list.arg = arg;
  if (filp->f_pos != static_cast<loff_t>(off)) {
    const loff_t at = vfs_llseek(filp, static_cast<loff_t>(off), SEEK_SET);
    if (at < 0) return static_cast<int>(at);
  }
  const int result = vfs_readdir(filp, fill_entry, &list);
  if (result < 0 || list.error) return result < 0 ? result : list.error;
  // Emits the last entry. After a stop there is none, and f_pos is behind the entry that was
  // refused.
  emit_pending(&list, filp->f_pos);
  return 0;
}

}  // extern "C"
