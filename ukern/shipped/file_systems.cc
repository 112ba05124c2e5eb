// SPDX-License-Identifier: GPL-2.0
// hostfs alone. Its writes go straight to the host, so nothing waits for write-back threads.
#include "ukern/fs/fs_types.h"
#include "ukern/sched/boot.h"

int ukern_fs_init(void) {
  return hostfs_init();
}

void ukern_fs_exit(void) {
  hostfs_exit();
}
