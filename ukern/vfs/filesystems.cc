// SPDX-License-Identifier: GPL-2.0
// The list of file system types.

#include "ukern/vfs/vfs.h"

#include <linux/module.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

static struct file_system_type *types;  // under types_lock
static DEFINE_RWLOCK(types_lock);

void get_filesystem(struct file_system_type *fs) {
  __module_get(fs->owner);
}
void put_filesystem(struct file_system_type *fs) {
  module_put(fs->owner);
}

// The link to the type of that name, or the null link at the end.
static struct file_system_type **find_locked(const char *name) {
  struct file_system_type **link = &types;
  while (*link && strcmp((*link)->name, name) != 0) link = &(*link)->next;
  return link;
}

int register_filesystem(struct file_system_type *fs) {
  struct file_system_type **link;
  int err = 0;

  if (!fs) return -EINVAL;
  if (fs->next) return -EBUSY;
  INIT_LIST_HEAD(&fs->fs_supers);
  WriteGuard guard(types_lock);
  link = find_locked(fs->name);
  if (*link)
    err = -EBUSY;
  else
    *link = fs;
  return err;
}

int unregister_filesystem(struct file_system_type *fs) {
  int err = -EINVAL;

  WriteGuard guard(types_lock);
  for (struct file_system_type **link = &types; *link; link = &(*link)->next) {
    if (*link != fs) continue;
    *link = fs->next;
    fs->next = nullptr;
    err = 0;
    break;
  }
  return err;
}

struct file_system_type *get_fs_type(const char *name) {
  struct file_system_type *fs;

  ReadGuard guard(types_lock);
  fs = *find_locked(name);
  if (fs && !try_module_get(fs->owner)) fs = nullptr;
  return fs;
}
