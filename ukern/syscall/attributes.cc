// SPDX-License-Identifier: GPL-2.0
// The system calls on attributes, after the path walk: size, mode, owner, times, access.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/stat.h>
#include "ukern/sync/guard.h"
#include "ukern/syscall/syscall.h"

namespace {

bool is_change_refused(struct inode *inode, int *error) {
  *error = IS_RDONLY(inode) ? -EROFS : IS_IMMUTABLE(inode) || IS_APPEND(inode) ? -EPERM : 0;
  return *error != 0;
}

int change_locked(struct dentry *dentry, struct iattr *attr) {
  MutexGuard guard(dentry->d_inode->i_mutex);
  return notify_change(dentry, attr);
}

// A nameidata of a walked path, for operations that take one; shares the path's references.
struct nameidata name_path(const struct walk_path *path) {
  struct nameidata nd = {};
  nd.mnt = path->mnt;
  nd.dentry = path->dentry;
  nd.last_type = LAST_ROOT;
  return nd;
}

}  // namespace

extern "C" {

int truncate_at(const struct walk_path *path, loff_t length) {
  struct inode *inode = path->dentry->d_inode;
  if (length < 0) return -EINVAL;
  if (S_ISDIR(inode->i_mode)) return -EISDIR;
  if (!S_ISREG(inode->i_mode)) return -EINVAL;
  struct nameidata nd = name_path(path);
  int error = vfs_permission(&nd, MAY_WRITE);
  if (error || is_change_refused(inode, &error)) return error;
  error = get_write_access(inode);
  if (error) return error;
  error = do_truncate(path->dentry, length, 0, nullptr);
  put_write_access(inode);
  return error;
}

int ftruncate_file(struct file *file, loff_t length) {
  struct inode *inode = file->f_dentry->d_inode;
  if (length < 0 || !S_ISREG(inode->i_mode) || !(file->f_mode & FMODE_WRITE)) return -EINVAL;
  if (!(file->f_flags & O_LARGEFILE) && length > static_cast<loff_t>(MAX_NON_LFS)) return -EINVAL;
  if (IS_APPEND(inode)) return -EPERM;
  return do_truncate(file->f_dentry, length, ATTR_MTIME | ATTR_CTIME, file);
}

int chmod_at(const struct walk_path *path, mode_t mode) {
  struct inode *inode = path->dentry->d_inode;
  int error;
  if (is_change_refused(inode, &error)) return error;
  struct iattr attr = {};
  MutexGuard guard(inode->i_mutex);
  attr.ia_mode = (mode & S_IALLUGO) | (inode->i_mode & ~S_IALLUGO);
  attr.ia_valid = ATTR_MODE | ATTR_CTIME;
  return notify_change(path->dentry, &attr);
}

int chown_at(const struct walk_path *path, uid_t user, gid_t group) {
  struct inode *inode = path->dentry->d_inode;
  int error;
  if (is_change_refused(inode, &error)) return error;
  struct iattr attr = {};
  attr.ia_valid = ATTR_CTIME;
  if (user != static_cast<uid_t>(-1)) {
    attr.ia_valid |= ATTR_UID;
    attr.ia_uid = user;
  }
  if (group != static_cast<gid_t>(-1)) {
    attr.ia_valid |= ATTR_GID;
    attr.ia_gid = group;
  }
  if (!S_ISDIR(inode->i_mode)) attr.ia_valid |= ATTR_KILL_SUID | ATTR_KILL_SGID;
  return change_locked(path->dentry, &attr);
}

int utimes_at(const struct walk_path *path, unsigned valid, const struct timespec *atime,
              const struct timespec *mtime) {
  struct inode *inode = path->dentry->d_inode;
  if (IS_RDONLY(inode)) return -EROFS;
  struct iattr attr = {};
  attr.ia_valid = ATTR_CTIME | valid;
  if (valid & (ATTR_ATIME_SET | ATTR_MTIME_SET)) {
    if (IS_APPEND(inode) || IS_IMMUTABLE(inode)) return -EPERM;
    if (valid & ATTR_ATIME_SET) attr.ia_atime = *atime;
    if (valid & ATTR_MTIME_SET) attr.ia_mtime = *mtime;
  } else {
    // Setting the current time needs only write permission.
    if (IS_IMMUTABLE(inode)) return -EACCES;
    struct nameidata nd = name_path(path);
    const int error = current->fsuid == inode->i_uid ? 0 : vfs_permission(&nd, MAY_WRITE);
    if (error) return error;
  }
  return change_locked(path->dentry, &attr);
}

int access_at(const struct walk_path *path, int mode) {
  if (mode & ~S_IRWXO) return -EINVAL;
  struct task_struct *task = current;
  const uid_t fsuid = task->fsuid;
  const gid_t fsgid = task->fsgid;
  const kernel_cap_t cap = task->cap_effective;
  task->fsuid = task->uid;
  task->fsgid = task->gid;
  if (task->uid) cap_clear(task->cap_effective);

  struct nameidata nd = name_path(path);
  nd.flags = LOOKUP_ACCESS;
  struct inode *inode = path->dentry->d_inode;
  int error = vfs_permission(&nd, mode);
  if (!error && (mode & S_IWOTH) && IS_RDONLY(inode) && !special_file(inode->i_mode))
    error = -EROFS;

  task->fsuid = fsuid;
  task->fsgid = fsgid;
  task->cap_effective = cap;
  return error;
}

}  // extern "C"
