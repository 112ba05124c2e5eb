// SPDX-License-Identifier: GPL-2.0
// Mounts.
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/string.h>

#include "ukern/door/uk_fs.h"
#include "ukern/syscall/syscall.h"
#include "ukern/vfs/mount_internal.h"

namespace {

// Copies a string to a page, as mount(2) does with its arguments. A null string gives no page.
int copy_to_page(const char *text, char **page) {
  *page = nullptr;
  if (!text) return 0;
  if (strlen(text) >= PAGE_SIZE) return -EINVAL;
  *page = reinterpret_cast<char *>(get_zeroed_page(GFP_KERNEL));
  if (!*page) return -ENOMEM;
  strcpy(*page, text);
  return 0;
}

}  // namespace

extern "C" {

int uk_fs_mount(const char *source, const char *dir, const char *type, unsigned long flags,
                const void *data) {
  const char *const texts[] = {source, dir, type, static_cast<const char *>(data)};
  char *pages[ARRAY_SIZE(texts)] = {};
  int err = 0;

  for (unsigned i = 0; i < ARRAY_SIZE(texts) && !err; i++) err = copy_to_page(texts[i], &pages[i]);
  if (!err) err = static_cast<int>(do_mount(pages[0], pages[1], pages[2], flags, pages[3]));
  for (char *page : pages) free_page(reinterpret_cast<unsigned long>(page));
  return err;
}

int uk_fs_umount(const char *dir, int flags) {
  return umount_path(dir, flags);
}

int uk_fs_mount_line(unsigned index, char *line, unsigned long size) {
  return mount_table_line(index, line, size);
}
}
