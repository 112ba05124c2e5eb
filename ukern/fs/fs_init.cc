// SPDX-License-Identifier: GPL-2.0
/* Start and end of ukern/fs. */
#include "ukern/fs/fs_types.h"
#include "ukern/sched/boot.h"

int ukern_fs_init(void) {
  if (int error = memfs_init()) return error;
  const int error = hostfs_init();
  if (error) memfs_exit();
  return error;
}

void ukern_fs_exit(void) {
  hostfs_exit();
  memfs_exit();
}
