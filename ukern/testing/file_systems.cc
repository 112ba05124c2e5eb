// SPDX-License-Identifier: GPL-2.0
// The file systems of test images: hostfs, and memfs, whose pages and inodes get dirty. So these
// images have write-back threads.
#include "ukern/fs/fs_types.h"
#include "ukern/mm/mm_internal.h"
#include "ukern/sched/boot.h"

int ukern_fs_init(void) {
  int error = writeback_threads_start();
  if (error) return error;
  error = memfs_init();
  if (!error) {
    error = hostfs_init();
    if (!error) return 0;
    memfs_exit();
  }
  writeback_threads_stop();
  return error;
}

void ukern_fs_exit(void) {
  hostfs_exit();
  memfs_exit();
  writeback_threads_stop();
}
