// SPDX-License-Identifier: GPL-2.0
// From a dentry to an open file and back, and the system calls that change a file's size, mode,
// owner and times.
#include <linux/capability.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/mount.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/stat.h>
#include <linux/statfs.h>
#include <linux/string.h>
#include "ukern/vfs/walk.h"

namespace {

const struct file_operations *fops_get(const struct file_operations *fops) {
  return fops && try_module_get(fops->owner) ? fops : NULL;
}

// The file takes over the references on the dentry and the mount; after an error they and the file
// are gone.
struct file *open_dentry(struct dentry *dentry, struct vfsmount *mnt, int flags, struct file *f,
                         int (*open)(struct inode *, struct file *)) {
  struct inode *inode = dentry->d_inode;
  int error = 0;
  f->f_flags = (unsigned)flags;
  f->f_mode = ((flags + 1) & O_ACCMODE) | FMODE_LSEEK | FMODE_PREAD | FMODE_PWRITE;
  if (f->f_mode & FMODE_WRITE) error = get_write_access(inode);
  if (error) {
    put_filp(f);
    dput(dentry);
    mntput(mnt);
    return (struct file *)ERR_PTR(error);
  }

  f->f_mapping = inode->i_mapping;
  f->f_dentry = dentry;
  f->f_vfsmnt = mnt;
  f->f_pos = 0;
  f->f_op = fops_get(inode->i_fop);
  file_move(f, &inode->i_sb->s_files);
  if (!open && f->f_op) open = f->f_op->open;
  if (open) error = open(inode, f);
  if (error) {
    // Not fput: what was never opened is not released.
    if (f->f_op) module_put(f->f_op->owner);
    if (f->f_mode & FMODE_WRITE) put_write_access(inode);
    file_kill(f);
    f->f_dentry = NULL;
    f->f_vfsmnt = NULL;
    put_filp(f);
    dput(dentry);
    mntput(mnt);
    return (struct file *)ERR_PTR(error);
  }

  f->f_flags &= ~(O_CREAT | O_EXCL | O_NOCTTY | O_TRUNC);
  file_ra_state_init(&f->f_ra, f->f_mapping->host->i_mapping);
  // Asked only now: the open operation may have chosen another mapping.
  if ((f->f_flags & O_DIRECT) && (!f->f_mapping->a_ops || !f->f_mapping->a_ops->direct_IO)) {
    fput(f);
    return (struct file *)ERR_PTR(-EINVAL);
  }
  return f;
}

bool is_change_refused(struct inode *inode, int *error) {
  *error = IS_RDONLY(inode) ? -EROFS : IS_IMMUTABLE(inode) || IS_APPEND(inode) ? -EPERM : 0;
  return *error != 0;
}

int change_locked(struct dentry *dentry, struct iattr *attr) {
  struct mutex *lock = &dentry->d_inode->i_mutex;
  mutex_lock(lock);
  const int error = notify_change(dentry, attr);
  mutex_unlock(lock);
  return error;
}

// A nameidata for the operations that take one, on an object already found; shares the path's
// references.
struct nameidata name_path(const struct walk_path *path) {
  struct nameidata nd = {};
  nd.mnt = path->mnt;
  nd.dentry = path->dentry;
  nd.last_type = LAST_ROOT;
  return nd;
}

}  // namespace

extern "C" {

struct file *dentry_open(struct dentry *dentry, struct vfsmount *mnt, int flags) {
  might_sleep();
  struct file *f = get_empty_filp();
  if (!f) {
    dput(dentry);
    mntput(mnt);
    return (struct file *)ERR_PTR(-ENFILE);
  }
  return open_dentry(dentry, mnt, flags, f, NULL);
}

struct file *filp_open_from(const struct walk_path *base, const char *name, int flags, int mode) {
  struct nameidata nd;
  int walk_flags = flags;
  // To the numbering of the walk; the special mode 3 is its own.
  if ((walk_flags + 1) & O_ACCMODE) walk_flags++;
  const int error = open_namei_from(base, name, walk_flags, mode, &nd);
  return error ? (struct file *)ERR_PTR(error) : nameidata_to_filp(&nd, flags);
}

struct file *filp_open(const char *name, int flags, int mode) {
  return filp_open_from(NULL, name, flags, mode);
}

struct file *nameidata_to_filp(struct nameidata *nd, int flags) {
  struct file *f = nd->intent.open.file;
  if (!f->f_dentry) return open_dentry(nd->dentry, nd->mnt, flags, f, NULL);
  path_release(nd);
  return f;
}

struct file *lookup_instantiate_filp(struct nameidata *nd, struct dentry *dentry,
                                     int (*open)(struct inode *, struct file *)) {
  struct file *f = nd->intent.open.file;
  if (IS_ERR(f)) return f;
  if (IS_ERR(dentry)) {
    release_open_intent(nd);
    nd->intent.open.file = (struct file *)dentry;
  } else {
    nd->intent.open.file =
        open_dentry(dget(dentry), mntget(nd->mnt), nd->intent.open.flags - 1, f, open);
  }
  return nd->intent.open.file;
}

int filp_close(struct file *filp, fl_owner_t id) {
  if (!file_count(filp)) {
    printk(KERN_ERR "VFS: Close: file count is 0\n");
    return 0;
  }
  const int result = filp->f_op && filp->f_op->flush ? filp->f_op->flush(filp, id) : 0;
  fput(filp);
  return result;
}

int generic_file_open(struct inode *inode, struct file *filp) {
  return !(filp->f_flags & O_LARGEFILE) && i_size_read(inode) > (loff_t)MAX_NON_LFS ? -EFBIG : 0;
}

int nonseekable_open(struct inode *, struct file *filp) {
  filp->f_mode &= ~(FMODE_LSEEK | FMODE_PREAD | FMODE_PWRITE);
  return 0;
}

int vfs_statfs(struct dentry *dentry, struct kstatfs *buf) {
  if (!dentry) return -ENODEV;
  if (!dentry->d_sb->s_op->statfs) return -ENOSYS;
  memset(buf, 0, sizeof(*buf));
  const int error = dentry->d_sb->s_op->statfs(dentry, buf);
  if (!error && !buf->f_frsize) buf->f_frsize = buf->f_bsize;
  return error;
}

int do_truncate(struct dentry *dentry, loff_t length, unsigned int time_attrs, struct file *filp) {
  struct iattr attr = {};
  if (length < 0) return -EINVAL;
  attr.ia_size = length;
  attr.ia_valid = ATTR_SIZE | time_attrs;
  if (filp) {
    attr.ia_file = filp;
    attr.ia_valid |= ATTR_FILE;
  }
  return change_locked(dentry, &attr);
}

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
  error = do_truncate(path->dentry, length, 0, NULL);
  put_write_access(inode);
  return error;
}

int ftruncate_file(struct file *file, loff_t length) {
  struct inode *inode = file->f_dentry->d_inode;
  if (length < 0 || !S_ISREG(inode->i_mode) || !(file->f_mode & FMODE_WRITE)) return -EINVAL;
  if (!(file->f_flags & O_LARGEFILE) && length > (loff_t)MAX_NON_LFS) return -EINVAL;
  if (IS_APPEND(inode)) return -EPERM;
  return do_truncate(file->f_dentry, length, ATTR_MTIME | ATTR_CTIME, file);
}

int chmod_at(const struct walk_path *path, mode_t mode) {
  struct inode *inode = path->dentry->d_inode;
  int error;
  if (is_change_refused(inode, &error)) return error;
  struct iattr attr = {};
  mutex_lock(&inode->i_mutex);
  attr.ia_mode = (mode & S_IALLUGO) | (inode->i_mode & ~S_IALLUGO);
  attr.ia_valid = ATTR_MODE | ATTR_CTIME;
  error = notify_change(path->dentry, &attr);
  mutex_unlock(&inode->i_mutex);
  return error;
}

int chown_at(const struct walk_path *path, uid_t user, gid_t group) {
  struct inode *inode = path->dentry->d_inode;
  int error;
  if (is_change_refused(inode, &error)) return error;
  struct iattr attr = {};
  attr.ia_valid = ATTR_CTIME;
  if (user != (uid_t)-1) {
    attr.ia_valid |= ATTR_UID;
    attr.ia_uid = user;
  }
  if (group != (gid_t)-1) {
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
    // "Now" is also for those who could bring it about by writing.
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
