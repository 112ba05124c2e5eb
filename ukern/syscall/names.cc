// SPDX-License-Identifier: GPL-2.0
// The system calls that create, rename and remove names: walk to the parent, lock it, look the last
// component up, act. And readlink.
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/stat.h>
#include "ukern/sync/guard.h"
#include "ukern/syscall/syscall.h"

namespace {

int masked(struct inode *dir, int mode) {
  return IS_POSIXACL(dir) ? mode : mode & ~current->fs->umask;
}

// A creation in progress: the walk to the parent, which is locked, and the last component's dentry.
// finish() undoes it.
struct creation {
  struct nameidata nd;
  struct dentry *dentry;
};

int begin(struct creation *c, const struct walk_path *base, const char *name, int is_dir) {
  const int error = path_lookup_from(base, name, LOOKUP_PARENT, &c->nd);
  if (error) return error;
  c->dentry = lookup_create(&c->nd, is_dir);
  if (!IS_ERR(c->dentry)) return 0;
  mutex_unlock(&c->nd.dentry->d_inode->i_mutex);  // hand-over: from lookup_create
  path_release(&c->nd);
  return static_cast<int>(PTR_ERR(c->dentry));
}

int finish(struct creation *c, int error) {
  dput(c->dentry);
  mutex_unlock(&c->nd.dentry->d_inode->i_mutex);  // hand-over: from lookup_create
  path_release(&c->nd);
  return error;
}

int make_node(struct creation *c, int mode, dev_t dev) {
  struct inode *dir = c->nd.dentry->d_inode;
  mode = masked(dir, mode);
  switch (mode & S_IFMT) {
    case 0:
    case S_IFREG:
      return vfs_create(dir, c->dentry, mode, &c->nd);
    case S_IFCHR:
    case S_IFBLK:
      return vfs_mknod(dir, c->dentry, mode, dev);
    case S_IFIFO:
    case S_IFSOCK:
      return vfs_mknod(dir, c->dentry, mode, 0);
    default:
      return -EINVAL;
  }
}

bool has_slash_behind(const struct qstr *last) {
  return last->name[last->len] != '\0';
}

int unlink_last(struct nameidata *nd, struct dentry *dentry) {
  struct inode *inode = dentry->d_inode;
  if (!has_slash_behind(&nd->last)) return vfs_unlink(nd->dentry->d_inode, dentry);
  if (!inode) return -ENOENT;
  return S_ISDIR(inode->i_mode) ? -EISDIR : -ENOTDIR;
}

// Both parents are locked; `trap` is the result of lock_rename.
int rename_last(struct nameidata *from, struct nameidata *to, struct dentry *trap) {
  struct dentry *source = lookup_hash(from);
  if (IS_ERR(source)) return static_cast<int>(PTR_ERR(source));
  struct dentry *target = nullptr;
  int error = 0;
  if (!source->d_inode)
    error = -ENOENT;
  else if (!S_ISDIR(source->d_inode->i_mode) &&
           (has_slash_behind(&from->last) || has_slash_behind(&to->last)))
    error = -ENOTDIR;
  else if (source == trap)
    error = -EINVAL;  // into itself
  if (!error) {
    target = lookup_hash(to);
    if (IS_ERR(target)) {
      error = static_cast<int>(PTR_ERR(target));
      target = nullptr;
    } else if (target == trap) {
      error = -ENOTEMPTY;  // over a directory that contains the source
    }
  }
  if (!error) error = vfs_rename(from->dentry->d_inode, source, to->dentry->d_inode, target);
  dput(target);
  dput(source);
  return error;
}

}  // namespace

extern "C" {

int mknod_at(const struct walk_path *base, const char *name, int mode, dev_t dev) {
  struct creation c;
  if (S_ISDIR(mode)) return -EPERM;
  const int error = begin(&c, base, name, 0);
  return error ? error : finish(&c, make_node(&c, mode, dev));
}

int mkdir_at(const struct walk_path *base, const char *name, int mode) {
  struct creation c;
  const int error = begin(&c, base, name, 1);
  if (error) return error;
  struct inode *dir = c.nd.dentry->d_inode;
  return finish(&c, vfs_mkdir(dir, c.dentry, masked(dir, mode)));
}

int symlink_at(const char *target, const struct walk_path *base, const char *name) {
  struct creation c;
  if (!*target) return -ENOENT;
  const int error = begin(&c, base, name, 0);
  if (error) return error;
  return finish(&c, vfs_symlink(c.nd.dentry->d_inode, c.dentry, target, S_IALLUGO));
}

int link_at(const struct walk_path *old, const struct walk_path *base, const char *name) {
  struct nameidata nd;
  int error = path_lookup_from(base, name, LOOKUP_PARENT, &nd);
  if (error) return error;
  if (old->mnt != nd.mnt) {
    path_release(&nd);
    return -EXDEV;
  }
  struct dentry *dentry = lookup_create(&nd, 0);
  if (IS_ERR(dentry)) {
    error = static_cast<int>(PTR_ERR(dentry));
  } else {
    error = vfs_link(old->dentry, nd.dentry->d_inode, dentry);
    dput(dentry);
  }
  mutex_unlock(&nd.dentry->d_inode->i_mutex);  // hand-over: from lookup_create
  path_release(&nd);
  return error;
}

int unlink_at(const struct walk_path *base, const char *name) {
  struct nameidata nd;
  struct inode *inode = nullptr;
  int error = path_lookup_from(base, name, LOOKUP_PARENT, &nd);
  if (error) return error;
  if (nd.last_type != LAST_NORM) {
    path_release(&nd);
    return -EISDIR;
  }
  {
    MutexGuard guard(nd.dentry->d_inode->i_mutex, I_MUTEX_PARENT);
    struct dentry *dentry = lookup_hash(&nd);
    if (IS_ERR(dentry)) {
      error = static_cast<int>(PTR_ERR(dentry));
    } else {
      // Referenced beyond the directory's lock: freeing the inode can take long.
      inode = dentry->d_inode;
      if (inode) igrab(inode);
      error = unlink_last(&nd, dentry);
      dput(dentry);
    }
  }
  if (inode) iput(inode);
  path_release(&nd);
  return error;
}

int rmdir_at(const struct walk_path *base, const char *name) {
  struct nameidata nd;
  int error = path_lookup_from(base, name, LOOKUP_PARENT, &nd);
  if (error) return error;
  if (nd.last_type != LAST_NORM) {
    error = nd.last_type == LAST_DOTDOT ? -ENOTEMPTY : nd.last_type == LAST_DOT ? -EINVAL : -EBUSY;
    path_release(&nd);
    return error;
  }
  {
    MutexGuard guard(nd.dentry->d_inode->i_mutex, I_MUTEX_PARENT);
    struct dentry *dentry = lookup_hash(&nd);
    if (IS_ERR(dentry)) {
      error = static_cast<int>(PTR_ERR(dentry));
    } else {
      error = vfs_rmdir(nd.dentry->d_inode, dentry);
      dput(dentry);
    }
  }
  path_release(&nd);
  return error;
}

int rename_at(const struct walk_path *old_base, const char *old_name,
              const struct walk_path *new_base, const char *new_name) {
  struct nameidata from, to;
  int error = path_lookup_from(old_base, old_name, LOOKUP_PARENT, &from);
  if (error) return error;
  error = path_lookup_from(new_base, new_name, LOOKUP_PARENT, &to);
  if (error) {
    path_release(&from);
    return error;
  }
  if (from.mnt != to.mnt) {
    error = -EXDEV;
  } else if (from.last_type != LAST_NORM || to.last_type != LAST_NORM) {
    error = -EBUSY;
  } else {
    struct dentry *trap = lock_rename(to.dentry, from.dentry);
    error = rename_last(&from, &to, trap);
    unlock_rename(to.dentry, from.dentry);
  }
  path_release(&to);
  path_release(&from);
  return error;
}

int readlink_at(const struct walk_path *path, char __user *buf, int size) {
  struct inode *inode = path->dentry->d_inode;
  if (size <= 0 || !inode->i_op || !inode->i_op->readlink) return -EINVAL;
  touch_atime(path->mnt, path->dentry);
  return inode->i_op->readlink(path->dentry, buf, size);
}

}  // extern "C"
