// SPDX-License-Identifier: GPL-2.0
// Moves data of open files for the hosting program. Every read and every write of a mount comes
// through here.
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/sched.h>
#include "ukern/door/node.h"

namespace {

// The same open file with other flags, for one call. Not its place in lists and its count, which
// others change meanwhile.
void copy_with_flags(const struct file *file, unsigned flags, struct file *copy) {
  *copy = {};
  copy->f_dentry = file->f_dentry;
  copy->f_vfsmnt = file->f_vfsmnt;
  copy->f_op = file->f_op;
  copy->f_flags = flags;
  copy->f_mode = file->f_mode;
  copy->f_uid = file->f_uid;
  copy->f_gid = file->f_gid;
  copy->private_data = file->private_data;
  copy->f_mapping = file->f_mapping;
  atomic_set(&copy->f_count, 1);
}

}  // namespace

extern "C" {

long uk_read(struct uk_file *file, void *buf, unsigned long len, unsigned long long pos) {
  struct file *filp = node_file(file);
  loff_t at = static_cast<loff_t>(pos);
  if (at < 0) return -EINVAL;
  if (!(filp->f_mode & FMODE_PREAD)) return -ESPIPE;
  user_buffer range(buf, len);
  return range.error() ? range.error() : vfs_read(filp, static_cast<char *>(buf), len, &at);
}

long uk_write(struct uk_file *file, const void *buf, unsigned long len, unsigned long long pos,
              int flags) {
  struct file *filp = node_file(file);
  loff_t at = static_cast<loff_t>(pos);
  if (at < 0) return -EINVAL;
  if (!(filp->f_mode & FMODE_PWRITE)) return -ESPIPE;
  user_buffer range(buf, len);
  if (range.error()) return range.error();
  // A copy: other threads use this file at the same time, with other flags.
  struct file as_now;
  if ((filp->f_flags ^ static_cast<unsigned>(flags)) & O_APPEND) {
    copy_with_flags(filp, filp->f_flags ^ O_APPEND, &as_now);
    filp = &as_now;
  }
  current->file_too_large = false;
  const ssize_t done = vfs_write(filp, static_cast<const char __user *>(buf), len, &at);
  // A layer may return one error for all write errors below it. s_maxbytes usually catches too
  // large a write before the layer. hostfs has no right value: its super block stands for all file
  // systems of the host, whose size limits differ.
  return done == -EINVAL && current->file_too_large ? -EFBIG : done;
}

int uk_flush(struct uk_file *file) {
  struct file *filp = node_file(file);
  return filp->f_op && filp->f_op->flush
             ? filp->f_op->flush(filp, reinterpret_cast<fl_owner_t>(current))
             : 0;
}

int uk_fsync(struct uk_file *file, int datasync) {
  return static_cast<int>(do_fsync(node_file(file), datasync));
}

}  // extern "C"
