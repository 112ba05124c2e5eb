// SPDX-License-Identifier: GPL-2.0
// Allocation of open files, and their release at the last reference.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/mount.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/swap.h>
#include "ukern/sync/guard.h"
#include "ukern/sync/reflog.h"
#include "ukern/vfs/file_log.h"
#include "ukern/vfs/file_table.h"

DEFINE_SPINLOCK(files_lock);
int ukern_max_files;

namespace {

constexpr int kMinFiles = 8192;

kmem_cache_t *file_cache;
atomic_t files_in_use;
int max_files;
int highest_reported;

void free_file(struct file *f) {
  file_log_end(f);
  atomic_dec(&files_in_use);
  kmem_cache_free(file_cache, f);
}

bool at_limit(void) {
  const int used = atomic_read(&files_in_use);
  if (used < max_files || capable(CAP_SYS_ADMIN)) return false;
  if (used > highest_reported) {
    printk(KERN_INFO "VFS: file-max limit %d reached\n", max_files);
    highest_reported = used;
  }
  return true;
}

}  // namespace

extern "C" {

int ukern_files_init(void) {
  // About a tenth of memory, at a kilobyte for a file and its objects.
  max_files = ukern_max_files;
  if (!max_files) max_files = static_cast<int>(totalram_pages * (PAGE_SIZE / 1024) / 10);
  if (max_files < kMinFiles) max_files = kMinFiles;
  atomic_set(&files_in_use, 0);
  highest_reported = 0;
  file_cache = kmem_cache_create("filp", kFileMemory, 0, 0, nullptr, nullptr);
  return file_cache ? 0 : -ENOMEM;
}

void ukern_files_exit(void) {
  if (!file_cache) return;
  file_log_report();
  kmem_cache_destroy(file_cache);
  file_cache = nullptr;
}

// Allocates a file with one reference that is not open yet, or NULL.
struct file *get_empty_filp(void) {
  if (at_limit()) return nullptr;
  auto *f = static_cast<struct file *>(kmem_cache_alloc(file_cache, GFP_KERNEL));
  if (!f) return nullptr;
  atomic_inc(&files_in_use);
  memset(f, 0, sizeof(*f));
  file_log_begin(f);
  INIT_LIST_HEAD(&f->f_u.fu_list);
  atomic_set(&f->f_count, 1);
  f->f_uid = current->fsuid;
  f->f_gid = current->fsgid;
  reflog_note(&f->f_reflog, 1, 1);
  return f;
}

void fput(struct file *file) {
  file_log_drop(file);
  BUG_ON(atomic_read(&file->f_count) <= 0);
  if (atomic_dec_and_test(&file->f_count)) __fput(file);
}

void __fput(struct file *file) {
  struct dentry *dentry = file->f_dentry;
  struct vfsmount *mnt = file->f_vfsmnt;
  struct inode *inode = dentry->d_inode;
  might_sleep();
  if (file->f_op && file->f_op->release) file->f_op->release(inode, file);
  if (file->f_op) module_put(file->f_op->owner);
  if (file->f_mode & FMODE_WRITE) put_write_access(inode);
  file_kill(file);
  file->f_dentry = nullptr;
  file->f_vfsmnt = nullptr;
  free_file(file);
  dput(dentry);
  mntput(mnt);
}

void put_filp(struct file *file) {
  file_log_drop(file);
  if (!atomic_dec_and_test(&file->f_count)) return;
  file_kill(file);
  free_file(file);
}

void file_move(struct file *file, struct list_head *list) {
  if (!list) return;
  SpinGuard guard(files_lock);
  list_move(&file->f_u.fu_list, list);
}

void file_kill(struct file *file) {
  SpinGuard guard(files_lock);
  if (!list_empty(&file->f_u.fu_list)) list_del_init(&file->f_u.fu_list);
}

}  // extern "C"
