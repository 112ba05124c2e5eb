// SPDX-License-Identifier: GPL-2.0
// Controls of the file-system caches: dentries, inodes, descriptors of the host.
#include "ukern/door/uk_fs.h"
#include "ukern/fs/hostfs.h"
#include "ukern/vfs/vfs.h"

extern "C" {

unsigned long uk_pinned_directories(void) {
  return hostfs_pinned_directories();
}

void uk_drop_caches(void) {
  drop_caches();
}

void uk_set_cache_limit(unsigned limit) {
  set_cache_limit(limit);
}
}
