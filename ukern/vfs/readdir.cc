// SPDX-License-Identifier: GPL-2.0
// Reading directories.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>

#include "ukern/sync/guard.h"

extern "C" {

// Calls `filler` for each entry from the file's position on until it refuses one. 0, also at the
// end. Holds the directory's i_mutex meanwhile. -ENOTDIR without the operation, -ENOENT in a
// removed directory.
int vfs_readdir(struct file *file, filldir_t filler, void *buf) {
  struct inode *inode = file->f_dentry->d_inode;
  if (!file->f_op || !file->f_op->readdir) return -ENOTDIR;
  int result = -ENOENT;
  MutexGuard guard(inode->i_mutex);
  if (!IS_DEADDIR(inode)) {
    result = file->f_op->readdir(file, buf, filler);
    file_accessed(file);
  }
  return result;
}

}  // extern "C"
