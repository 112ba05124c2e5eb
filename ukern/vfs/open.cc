// SPDX-License-Identifier: GPL-2.0
// Opening and closing files, truncation, and statfs.
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
#include "ukern/sync/guard.h"
#include "ukern/vfs/walk.h"

namespace {

const struct file_operations *fops_get(const struct file_operations *fops) {
  return fops && try_module_get(fops->owner) ? fops : nullptr;
}

// Consumes the references on the dentry and the mount; on an error also the file.
struct file *open_dentry(struct dentry *dentry, struct vfsmount *mnt, int flags, struct file *f) {
  struct inode *inode = dentry->d_inode;
  int error = 0;
  f->f_flags = static_cast<unsigned>(flags);
  f->f_mode = ((flags + 1) & O_ACCMODE) | FMODE_LSEEK | FMODE_PREAD | FMODE_PWRITE;
  if (f->f_mode & FMODE_WRITE) error = get_write_access(inode);
  if (error) {
    put_filp(f);
    dput(dentry);
    mntput(mnt);
    return static_cast<struct file *>(ERR_PTR(error));
  }

  f->f_mapping = inode->i_mapping;
  f->f_dentry = dentry;
  f->f_vfsmnt = mnt;
  f->f_pos = 0;
  f->f_op = fops_get(inode->i_fop);
  file_move(f, &inode->i_sb->s_files);
  if (f->f_op && f->f_op->open) error = f->f_op->open(inode, f);
  if (error) {
    // Not fput: a file that was never opened is not released.
    if (f->f_op) module_put(f->f_op->owner);
    if (f->f_mode & FMODE_WRITE) put_write_access(inode);
    file_kill(f);
    f->f_dentry = nullptr;
    f->f_vfsmnt = nullptr;
    put_filp(f);
    dput(dentry);
    mntput(mnt);
    return static_cast<struct file *>(ERR_PTR(error));
  }

  f->f_flags &= ~(O_CREAT | O_EXCL | O_NOCTTY | O_TRUNC);
  file_ra_state_init(&f->f_ra, f->f_mapping->host->i_mapping);
  // Checked only now: the open operation may have chosen another mapping.
  if ((f->f_flags & O_DIRECT) && (!f->f_mapping->a_ops || !f->f_mapping->a_ops->direct_IO)) {
    fput(f);
    return static_cast<struct file *>(ERR_PTR(-EINVAL));
  }
  return f;
}

}  // namespace

extern "C" {

struct file *dentry_open(struct dentry *dentry, struct vfsmount *mnt, int flags) {
  might_sleep();
  struct file *f = get_empty_filp();
  if (!f) {
    dput(dentry);
    mntput(mnt);
    return static_cast<struct file *>(ERR_PTR(-ENFILE));
  }
  return open_dentry(dentry, mnt, flags, f);
}

struct file *filp_open_from(const struct walk_path *base, const char *name, int flags, int mode) {
  struct nameidata nd;
  int walk_flags = flags;
  // The walk numbers access modes from one; mode 3 stays as it is.
  if ((walk_flags + 1) & O_ACCMODE) walk_flags++;
  const int error = open_namei_from(base, name, walk_flags, mode, &nd);
  return error ? static_cast<struct file *>(ERR_PTR(error)) : nameidata_to_filp(&nd, flags);
}

struct file *filp_open(const char *name, int flags, int mode) {
  return filp_open_from(nullptr, name, flags, mode);
}

struct file *nameidata_to_filp(struct nameidata *nd, int flags) {
  struct file *f = nd->intent.open.file;
  if (!f->f_dentry) return open_dentry(nd->dentry, nd->mnt, flags, f);
  path_release(nd);
  return f;
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
  return !(filp->f_flags & O_LARGEFILE) && i_size_read(inode) > static_cast<loff_t>(MAX_NON_LFS)
             ? -EFBIG
             : 0;
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
  MutexGuard guard(dentry->d_inode->i_mutex);
  return notify_change(dentry, &attr);
}

}  // extern "C"
