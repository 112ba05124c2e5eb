// SPDX-License-Identifier: GPL-2.0
// Only hostfs. Its writes go straight to the host, so no write-back threads are needed.
#include "ukern/fs/fs_types.h"
#include "ukern/sched/boot.h"

int ukern_fs_init(void) {
  return hostfs_init();
}

void ukern_fs_exit(void) {
  hostfs_exit();
}
