/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a program does with names, for cases that run inside the kernel: each call returns 0 or
 * -errno. As whom: as_user.h.
 */
#ifndef TESTS_UKERN_NAME_CALLS_H
#define TESTS_UKERN_NAME_CALLS_H

#include "module/kernel.h"
#include "tests/ukern/as_user.h"
#include <linux/fcntl.h>

/* Kernel buffers are what read and write are given for as long as this stands. */
class kernel_buffers {
 public:
  kernel_buffers() : old_(get_fs()) { set_fs(KERNEL_DS); }
  ~kernel_buffers() { set_fs(old_); }
  kernel_buffers(const kernel_buffers &) = delete;
  kernel_buffers &operator=(const kernel_buffers &) = delete;

 private:
  mm_segment_t old_;
};

/* The place of a name to make: parent locked, negative dentry. Good while error() is 0. */
class new_name {
 public:
  new_name(const char *path, int is_dir) {
    error_ = path_lookup(path, LOOKUP_PARENT, &nd_);
    if (error_) return;
    dentry_ = lookup_create(&nd_, is_dir);
    if (!IS_ERR(dentry_)) return;
    error_ = (int)PTR_ERR(dentry_);
    mutex_unlock(&dir()->i_mutex);
    path_release(&nd_);
  }
  ~new_name() {
    if (error_) return;
    dput(dentry_);
    mutex_unlock(&dir()->i_mutex);
    path_release(&nd_);
  }
  new_name(const new_name &) = delete;
  new_name &operator=(const new_name &) = delete;

  int error() const { return error_; }
  struct inode *dir() const {
    return nd_.dentry->d_inode;
  }
  struct dentry *dentry() const {
    return dentry_;
  }
  struct nameidata *nd() {
    return &nd_;
  }

 private:
  struct nameidata nd_;
  struct dentry *dentry_ = NULL;
  int error_ = 0;
};

static inline int name_mkdir(const char *path, int mode) {
  new_name made(path, 1);
  return made.error() ? made.error() : vfs_mkdir(made.dir(), made.dentry(), mode);
}

static inline int name_mknod(const char *path, int mode, dev_t dev) {
  new_name made(path, 0);
  return made.error() ? made.error() : vfs_mknod(made.dir(), made.dentry(), mode, dev);
}

static inline int name_symlink(const char *target, const char *path) {
  new_name made(path, 0);
  return made.error() ? made.error() : vfs_symlink(made.dir(), made.dentry(), target, S_IALLUGO);
}

static inline int name_link(const char *old, const char *path) {
  struct nameidata nd;
  int error = path_lookup(old, 0, &nd);
  if (error) return error;
  {
    new_name made(path, 0);
    error = made.error() ? made.error() : vfs_link(nd.dentry, made.dir(), made.dentry());
  }
  path_release(&nd);
  return error;
}

/* Calls `act(dir, dentry)` on the last component with its parent locked. */
template <typename F>
static inline int name_act(const char *path, F act) {
  struct nameidata nd;
  int error = path_lookup(path, LOOKUP_PARENT, &nd);
  if (error) return error;
  struct inode *dir = nd.dentry->d_inode;
  mutex_lock_nested(&dir->i_mutex, I_MUTEX_PARENT);
  struct dentry *dentry = lookup_one_len((const char *)nd.last.name, nd.dentry, (int)nd.last.len);
  if (IS_ERR(dentry)) {
    error = (int)PTR_ERR(dentry);
  } else {
    error = act(dir, dentry);
    dput(dentry);
  }
  mutex_unlock(&dir->i_mutex);
  path_release(&nd);
  return error;
}

static inline int name_unlink(const char *path) {
  return name_act(path, vfs_unlink);
}
static inline int name_rmdir(const char *path) {
  return name_act(path, vfs_rmdir);
}

static inline int name_rename(const char *from, const char *to) {
  struct nameidata old_nd, new_nd;
  int error = path_lookup(from, LOOKUP_PARENT, &old_nd);
  if (error) return error;
  error = path_lookup(to, LOOKUP_PARENT, &new_nd);
  if (error) {
    path_release(&old_nd);
    return error;
  }
  lock_rename(new_nd.dentry, old_nd.dentry);
  struct dentry *source =
      lookup_one_len((const char *)old_nd.last.name, old_nd.dentry, (int)old_nd.last.len);
  struct dentry *target =
      lookup_one_len((const char *)new_nd.last.name, new_nd.dentry, (int)new_nd.last.len);
  if (IS_ERR(source))
    error = (int)PTR_ERR(source);
  else if (IS_ERR(target))
    error = (int)PTR_ERR(target);
  else if (!source->d_inode)
    error = -ENOENT;
  else
    error = vfs_rename(old_nd.dentry->d_inode, source, new_nd.dentry->d_inode, target);
  if (!IS_ERR(target)) dput(target);
  if (!IS_ERR(source)) dput(source);
  unlock_rename(new_nd.dentry, old_nd.dentry);
  path_release(&new_nd);
  path_release(&old_nd);
  return error;
}

static inline int name_stat(const char *path, struct kstat *stat) {
  struct nameidata nd;
  int error = path_lookup(path, 0, &nd);
  if (error) return error;
  error = vfs_getattr(nd.mnt, nd.dentry, stat);
  path_release(&nd);
  return error;
}

/* Makes or overwrites a file with this content. */
static inline int name_write(const char *path, int mode, const char *text) {
  struct file *file = filp_open(path, O_CREAT | O_WRONLY | O_TRUNC | O_LARGEFILE, mode);
  if (IS_ERR(file)) return (int)PTR_ERR(file);
  kernel_buffers use;
  loff_t pos = 0;
  const size_t len = strlen(text);
  const ssize_t done = len ? vfs_write(file, text, len, &pos) : 0;
  filp_close(file, NULL);
  return done == (ssize_t)len ? 0 : done < 0 ? (int)done : -EIO;
}

/* The first bytes of a file, terminated. */
static inline int name_read(const char *path, char *buf, size_t size) {
  struct file *file = filp_open(path, O_RDONLY | O_LARGEFILE, 0);
  if (IS_ERR(file)) return (int)PTR_ERR(file);
  kernel_buffers use;
  loff_t pos = 0;
  const ssize_t done = vfs_read(file, buf, size - 1, &pos);
  filp_close(file, NULL);
  if (done < 0) return (int)done;
  buf[done] = '\0';
  return 0;
}

/* Opens and closes; the error of the opening. */
static inline int name_open(const char *path, int flags, int mode) {
  struct file *file = filp_open(path, flags | O_LARGEFILE, mode);
  if (IS_ERR(file)) return (int)PTR_ERR(file);
  return filp_close(file, NULL);
}

/* notify_change on the object of that name. */
static inline int name_change(const char *path, struct iattr *attr) {
  struct nameidata nd;
  int error = path_lookup(path, 0, &nd);
  if (error) return error;
  struct mutex *lock = &nd.dentry->d_inode->i_mutex;
  mutex_lock(lock);
  error = notify_change(nd.dentry, attr);
  mutex_unlock(lock);
  path_release(&nd);
  return error;
}

static inline int name_chmod(const char *path, umode_t mode) {
  struct kstat stat;
  const int error = name_stat(path, &stat);
  if (error) return error;
  struct iattr attr = {};
  attr.ia_valid = ATTR_MODE | ATTR_CTIME;
  attr.ia_mode = (umode_t)((stat.mode & S_IFMT) | mode);
  return name_change(path, &attr);
}

static inline int name_chown(const char *path, uid_t uid, gid_t gid) {
  struct iattr attr = {};
  attr.ia_valid = ATTR_UID | ATTR_GID | ATTR_CTIME;
  attr.ia_uid = uid;
  attr.ia_gid = gid;
  return name_change(path, &attr);
}

#endif
