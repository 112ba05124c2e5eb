// SPDX-License-Identifier: GPL-2.0
// Lists directories for the hosting program.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/limits.h>
#include <linux/string.h>
#include "ukern/door/node.h"

namespace {

// readdir's filler learns where an entry begins; where it ends is where the next begins. So each is
// kept until the next comes.
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

void hand_on(struct listing *list, loff_t next) {
  if (list->pending && !list->stopped)
    list->stopped = list->fill(list->arg, list->name, list->ino, list->type,
                               static_cast<unsigned long long>(next));
  list->pending = false;
}

int take_entry(void *buf, const char *name, int len, loff_t offset, ino_t ino, unsigned type) {
  auto *list = static_cast<struct listing *>(buf);
  hand_on(list, offset);
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
  const int result = vfs_readdir(filp, take_entry, &list);
  if (result < 0 || list.error) return result < 0 ? result : list.error;
  // A stop leaves the position at the entry that was not taken, which is not the one handed on
  // last.
  hand_on(&list, filp->f_pos);
  return 0;
}

}  // extern "C"
