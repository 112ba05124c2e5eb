// SPDX-License-Identifier: GPL-2.0
// Open files in the hands of the hosting program. A struct uk_file is a struct file, one reference
// of it.
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/limits.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/string.h>
#include "ukern/door/node.h"

namespace {

// A layer may answer one error for all errors of a write below it. Too large a write never gets
// there where s_maxbytes of the super block is right. That of hostfs is not: one super block stands
// for all file systems of the host, each with a largest size of its own.
ssize_t write_to(struct file *file, const void *buf, unsigned long len, loff_t at) {
  current->file_too_large = false;
  const ssize_t done = vfs_write(file, static_cast<const char __user *>(buf), len, &at);
  return done == -EINVAL && current->file_too_large ? -EFBIG : done;
}

struct file *filp_of(struct uk_file *file) {
  return reinterpret_cast<struct file *>(file);
}

// readdir's filler learns where an entry begins; where it ends is where the next begins. So each is
// kept until the next comes.
struct listing {
  int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
              unsigned long long next);
  void *arg;
  bool pending;
  int stopped;
  int error;
  unsigned type;
  unsigned long long ino;
  char name[NAME_MAX + 1];
};

void hand_on(struct listing *list, loff_t next) {
  if (list->pending && !list->stopped)
    list->stopped = list->fill(list->arg, list->name, list->ino, list->type,
                               static_cast<unsigned long long>(next));
  list->pending = false;
}

int take_entry(void *buf, const char *name, int len, loff_t offset, ino_t ino, unsigned type) {
  auto *list = static_cast<struct listing *>(buf);
  hand_on(list, offset);
  if (list->stopped) return -EINVAL;
  if (len < 0 || len > NAME_MAX) return list->error = -EOVERFLOW;
  memcpy(list->name, name, static_cast<size_t>(len));
  list->name[len] = '\0';
  list->ino = ino;
  list->type = type;
  list->pending = true;
  return 0;
}

int open_to_run(struct uk_node *node, struct uk_file **out) {
  struct walk_path path;
  int error = node_walk(node, &path);
  if (error) return error;
  struct inode *inode = path.dentry->d_inode;
  struct nameidata nd = {};
  nd.mnt = path.mnt;
  nd.dentry = path.dentry;
  error = S_ISREG(inode->i_mode) && (inode->i_mode & 0111) && !(path.mnt->mnt_flags & MNT_NOEXEC)
              ? vfs_permission(&nd, MAY_EXEC)
              : -EACCES;
  if (error) {
    dput(path.dentry);
    return error;
  }
  struct file *file = dentry_open(path.dentry, mntget(path.mnt), O_RDONLY | O_LARGEFILE);
  if (IS_ERR(file)) return static_cast<int>(PTR_ERR(file));
  *out = reinterpret_cast<struct uk_file *>(file);
  return 0;
}

}  // namespace

extern "C" {

int uk_open(struct uk_node *node, int flags, struct uk_file **out) {
  const host_request_scope request;
  struct nameidata nd;
  if (flags & UK_OPEN_TO_RUN) return open_to_run(node, out);
  flags = (flags & ~(O_CREAT | O_EXCL)) | O_LARGEFILE;
  int walk_flags = flags;
  if ((walk_flags + 1) & O_ACCMODE) walk_flags++;
  int error = node_walk_to_open(node, walk_flags, &nd);
  if (!error) error = finish_open_walk(&nd, walk_flags);
  if (error) return error;
  struct file *file = nameidata_to_filp(&nd, flags);
  if (IS_ERR(file)) return static_cast<int>(PTR_ERR(file));
  *out = reinterpret_cast<struct uk_file *>(file);
  return 0;
}

int uk_create(struct uk_node *dir, const char *name, int flags, unsigned mode, struct uk_node **out,
              struct uk_file **file, struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  int error = node_check_name(name);
  if (error) return error;
  node_hold(dir, &path);
  // A link that came to stand here since the caller looked is not for this name space to follow.
  struct file *filp = filp_open_from(&path, name, flags | O_CREAT | O_LARGEFILE | O_NOFOLLOW,
                                     static_cast<int>(mode));
  dput(path.dentry);
  if (IS_ERR(filp)) return static_cast<int>(PTR_ERR(filp));

  struct walk_path opened = {filp->f_vfsmnt, filp->f_dentry};
  error = node_stat(&opened, stat);
  if (!error && out) error = node_get(opened.mnt, opened.dentry, out);
  if (error) {
    fput(filp);
    return error;
  }
  *file = reinterpret_cast<struct uk_file *>(filp);
  return 0;
}

long uk_read(struct uk_file *file, void *buf, unsigned long len, unsigned long long pos) {
  struct file *filp = filp_of(file);
  loff_t at = static_cast<loff_t>(pos);
  if (at < 0) return -EINVAL;
  if (!(filp->f_mode & FMODE_PREAD)) return -ESPIPE;
  user_buffer range(buf, len);
  return range.error() ? range.error() : vfs_read(filp, static_cast<char *>(buf), len, &at);
}

long uk_write_with(struct uk_file *file, const void *buf, unsigned long len, unsigned long long pos,
                   int flags) {
  struct file *filp = filp_of(file);
  const loff_t at = static_cast<loff_t>(pos);
  if (at < 0) return -EINVAL;
  if (!(filp->f_mode & FMODE_PWRITE)) return -ESPIPE;
  user_buffer range(buf, len);
  if (range.error()) return range.error();
  if (!((filp->f_flags ^ static_cast<unsigned>(flags)) & O_APPEND))
    return write_to(filp, buf, len, at);
  // Others write through this file at the same time, with flags of their own.
  struct file as_now = *filp;
  as_now.f_flags ^= O_APPEND;
  return write_to(&as_now, buf, len, at);
}

long uk_write(struct uk_file *file, const void *buf, unsigned long len, unsigned long long pos) {
  return uk_write_with(file, buf, len, pos, static_cast<int>(filp_of(file)->f_flags));
}

int uk_flush(struct uk_file *file) {
  struct file *filp = filp_of(file);
  return filp->f_op && filp->f_op->flush
             ? filp->f_op->flush(filp, reinterpret_cast<fl_owner_t>(current))
             : 0;
}

int uk_fsync(struct uk_file *file, int datasync) {
  return static_cast<int>(do_fsync(filp_of(file), datasync));
}

void uk_release(struct uk_file *file) {
  fput(filp_of(file));
}

int uk_readdir(struct uk_file *dir, unsigned long long off,
               int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
                           unsigned long long next),
               void *arg) {
  struct file *filp = filp_of(dir);
  struct listing list = {};
  list.fill = fill;
  list.arg = arg;
  if (filp->f_pos != static_cast<loff_t>(off)) {
    const loff_t at = vfs_llseek(filp, static_cast<loff_t>(off), SEEK_SET);
    if (at < 0) return static_cast<int>(at);
  }
  const int result = vfs_readdir(filp, take_entry, &list);
  if (result < 0 || list.error) return result < 0 ? result : list.error;
  // A stop leaves the position at the entry that was not taken, which is not the one handed on
  // last.
  hand_on(&list, filp->f_pos);
  return 0;
}

}  // extern "C"
