// SPDX-License-Identifier: GPL-2.0
// Reading, writing and positioning open files.
#include <linux/aio.h>
#include <linux/errno.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/pagemap.h>
#include <linux/sched.h>
#include <linux/uio.h>
#include <linux/wait.h>
#include <asm/uaccess.h>

#include "ukern/sync/guard.h"

namespace {

// The most that one call moves: whole pages within an int, so that file systems need no range
// checks.
constexpr size_t kMaxCount = 0x7fffffff & ~static_cast<size_t>(PAGE_CACHE_SIZE - 1);

// Waits for the kick that an operation promised with -EIOCBRETRY.
void wait_for_kick(struct kiocb *iocb) {
  set_current_state(TASK_UNINTERRUPTIBLE);
  if (!kiocbIsKicked(iocb))
    schedule();
  else
    kiocbClearKicked(iocb);
  __set_current_state(TASK_RUNNING);
}

loff_t set_position(struct file *file, loff_t offset) {
  if (offset != file->f_pos) {
    file->f_pos = offset;
    file->f_version = 0;
  }
  return offset;
}

}  // namespace

extern "C" {

loff_t generic_file_llseek(struct file *file, loff_t offset, int origin) {
  struct inode *inode = file->f_mapping->host;
  loff_t result = -EINVAL;
  MutexGuard guard(inode->i_mutex);
  if (origin == SEEK_END) offset += inode->i_size;
  if (origin == SEEK_CUR) offset += file->f_pos;
  if (offset >= 0 && static_cast<unsigned long long>(offset) <= inode->i_sb->s_maxbytes)
    result = set_position(file, offset);
  return result;
}

loff_t default_llseek(struct file *file, loff_t offset, int origin) {
  if (origin == SEEK_END) offset += i_size_read(file->f_dentry->d_inode);
  if (origin == SEEK_CUR) offset += file->f_pos;
  return offset < 0 ? -EINVAL : set_position(file, offset);
}

loff_t no_llseek(struct file *, loff_t, int) {
  return -ESPIPE;
}

loff_t vfs_llseek(struct file *file, loff_t offset, int origin) {
  if (!(file->f_mode & FMODE_LSEEK)) return no_llseek(file, offset, origin);
  if (file->f_op && file->f_op->llseek) return file->f_op->llseek(file, offset, origin);
  return default_llseek(file, offset, origin);
}

ssize_t generic_read_dir(struct file *, char __user *, size_t, loff_t *) {
  return -EISDIR;
}

int rw_verify_area(int, struct file *, loff_t *ppos, size_t count) {
  const loff_t pos = *ppos;
  if (static_cast<ssize_t>(count) < 0 || pos < 0 ||
      static_cast<loff_t>(static_cast<unsigned long long>(pos) + count) < 0)
    return -EINVAL;
  return static_cast<int>(count > kMaxCount ? kMaxCount : count);
}

ssize_t do_sync_read(struct file *filp, char __user *buf, size_t len, loff_t *ppos) {
  struct kiocb kiocb;
  ssize_t result;
  init_sync_kiocb(&kiocb, filp);
  kiocb.ki_pos = *ppos;
  while ((result = filp->f_op->aio_read(&kiocb, buf, len, kiocb.ki_pos)) == -EIOCBRETRY)
    wait_for_kick(&kiocb);
  if (result == -EIOCBQUEUED) result = wait_on_sync_kiocb(&kiocb);
  *ppos = kiocb.ki_pos;
  return result;
}

ssize_t do_sync_write(struct file *filp, const char __user *buf, size_t len, loff_t *ppos) {
  struct kiocb kiocb;
  ssize_t result;
  init_sync_kiocb(&kiocb, filp);
  kiocb.ki_pos = *ppos;
  while ((result = filp->f_op->aio_write(&kiocb, buf, len, kiocb.ki_pos)) == -EIOCBRETRY)
    wait_for_kick(&kiocb);
  if (result == -EIOCBQUEUED) result = wait_on_sync_kiocb(&kiocb);
  *ppos = kiocb.ki_pos;
  return result;
}

ssize_t vfs_read(struct file *file, char __user *buf, size_t count, loff_t *pos) {
  might_sleep();
  const struct file_operations *op = file->f_op;
  if (!(file->f_mode & FMODE_READ)) return -EBADF;
  if (!op || (!op->read && !op->aio_read)) return -EINVAL;
  if (!access_ok(VERIFY_WRITE, buf, count)) return -EFAULT;
  const int len = rw_verify_area(READ, file, pos, count);
  if (len < 0) return len;
  return op->read ? op->read(file, buf, static_cast<size_t>(len), pos)
                  : do_sync_read(file, buf, static_cast<size_t>(len), pos);
}

ssize_t vfs_write(struct file *file, const char __user *buf, size_t count, loff_t *pos) {
  might_sleep();
  const struct file_operations *op = file->f_op;
  if (!(file->f_mode & FMODE_WRITE)) return -EBADF;
  if (!op || (!op->write && !op->aio_write)) return -EINVAL;
  if (!access_ok(VERIFY_READ, buf, count)) return -EFAULT;
  const int len = rw_verify_area(WRITE, file, pos, count);
  if (len < 0) return len;
  return op->write ? op->write(file, buf, static_cast<size_t>(len), pos)
                   : do_sync_write(file, buf, static_cast<size_t>(len), pos);
}

}  // extern "C"
