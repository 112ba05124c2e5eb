// SPDX-License-Identifier: GPL-2.0
// The path walk of open(2): to an existing object, or to the parent of one that may have to be
// created. The intent in the nameidata lets file systems open in one step.
//
// Flags here have their low two bits shifted by one from those of the system call: 1 read, 2 write,
// 3 both.
#include <linux/capability.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mount.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/stat.h>
#include "ukern/sync/guard.h"
#include "ukern/vfs/walk.h"

namespace {

constexpr int kMaxLastLinks = 32;  // links followed at the end of a name to create

// The permissions that an open needs. Truncating is writing; security modules distinguish
// appending.
int access_mode(int flag) {
  static const unsigned char mode[] = {0, MAY_READ, MAY_WRITE, MAY_READ | MAY_WRITE};
  int acc_mode = mode[flag & O_ACCMODE];
  if (flag & O_TRUNC) acc_mode |= MAY_WRITE;
  if (flag & O_APPEND) acc_mode |= MAY_APPEND;
  return acc_mode;
}

unsigned walk_flags(int flag) {
  unsigned flags = flag & O_NOFOLLOW ? 0 : LOOKUP_FOLLOW;
  if (flag & O_DIRECTORY) flags |= LOOKUP_DIRECTORY;
  return flags;
}

// Walks with the intent to open. On success nd->intent.open.file is an unopened file, or the one
// that the file system has opened.
int walk_to_open(const struct walk_path *base, const char *name, unsigned flags,
                 struct nameidata *nd, int open_flags, int create_mode) {
  struct file *file = get_empty_filp();
  if (!file) return -ENFILE;
  nd->intent.open.file = file;
  nd->intent.open.flags = open_flags;
  nd->intent.open.create_mode = create_mode;
  int error = path_lookup_from(base, name, flags | LOOKUP_OPEN, nd);
  if (IS_ERR(nd->intent.open.file)) {
    if (!error) {
      error = static_cast<int>(PTR_ERR(nd->intent.open.file));
      path_release(nd);
    }
  } else if (error) {
    release_open_intent(nd);
  }
  return error;
}

int give_up(struct nameidata *nd, int error) {
  if (!IS_ERR(nd->intent.open.file)) release_open_intent(nd);
  path_release(nd);
  return error;
}

int check_open(struct nameidata *nd, int acc_mode, int flag) {
  const int error = may_open(nd, acc_mode, flag);
  return error ? give_up(nd, error) : 0;
}

// Looks the last component up in nd's directory, and creates it if the name is free. True: a
// creation was tried, with the result `*error`.
bool lookup_or_create(struct nameidata *nd, struct walk_path *path, int mode, int *error) {
  struct inode *dir = nd->dentry->d_inode;
  MutexGuard guard(dir->i_mutex);
  path->dentry = lookup_hash(nd);
  path->mnt = nd->mnt;
  if (IS_ERR(path->dentry) || IS_ERR(nd->intent.open.file) || path->dentry->d_inode) return false;
  if (!IS_POSIXACL(dir)) mode &= ~current->fs->umask;
  *error = vfs_create(dir, path->dentry, mode, nd);
  return true;
}

// The name is a link: walks to its target's parent. nd->last becomes a copy, to which `*copy`
// points. Returns 1 when the link led to an object without a name (LAST_BIND).
int follow_last(struct nameidata *nd, struct walk_path *path, int *links, char **copy) {
  nd->flags |= LOOKUP_PARENT;
  // Not as a nested link, so that the walk of its text stops before the last component, as
  // LOOKUP_PARENT says.
  const int error = __do_follow_link(path, nd);
  if (error) {
    if (!IS_ERR(nd->intent.open.file)) release_open_intent(nd);
    return error;
  }
  nd->flags &= ~LOOKUP_PARENT;
  if (nd->last_type == LAST_BIND) return 1;
  if (nd->last_type != LAST_NORM) return give_up(nd, -EISDIR);
  *copy = const_cast<char *>(reinterpret_cast<const char *>(nd->last.name));
  int refused = 0;
  if (nd->last.name[nd->last.len]) refused = -EISDIR;
  if (!refused && (*links)++ == kMaxLastLinks) refused = -ELOOP;
  if (!refused) return 0;
  __putname(*copy);
  return give_up(nd, refused);
}

// Ends a creation with the result `error`. On success `nd` is at the new object, else everything
// has been released.
int finish_created(struct nameidata *nd, struct walk_path *path, int error, int flag) {
  dput(nd->dentry);
  nd->dentry = path->dentry;
  // The creator may open the file whatever its mode says, and there is nothing to truncate.
  return error ? give_up(nd, error) : check_open(nd, 0, flag & ~O_TRUNC);
}

// Handles an existing last component: 0 with `nd` at it, 1 for a link to follow, or an error after
// which everything has been released.
int check_existing(struct nameidata *nd, struct walk_path *path, int flag) {
  int error = 0;
  struct inode *inode;
  if (flag & O_EXCL)
    error = -EEXIST;
  else if (__follow_mount(path) && (flag & O_NOFOLLOW))
    error = -ELOOP;
  else if (!(inode = path->dentry->d_inode))
    error = -ENOENT;
  else if (inode->i_op && inode->i_op->follow_link)
    error = flag & O_NOFOLLOW ? -ELOOP : 1;
  if (error == 1) return 1;
  if (error) {
    dput_path(path, nd);
    return give_up(nd, error);
  }
  path_to_nameidata(path, nd);
  return S_ISDIR(nd->dentry->d_inode->i_mode) ? give_up(nd, -EISDIR) : 0;
}

int open_or_create(struct nameidata *nd, int acc_mode, int flag, int mode) {
  int links = 0;
  char *copy = nullptr;  // the last name if a link gave it
  for (;;) {
    struct walk_path path;
    int error;
    const bool made = lookup_or_create(nd, &path, mode, &error);
    if (copy) __putname(copy);
    copy = nullptr;
    if (made) return finish_created(nd, &path, error, flag);
    if (IS_ERR(path.dentry)) return give_up(nd, static_cast<int>(PTR_ERR(path.dentry)));
    if (IS_ERR(nd->intent.open.file)) {
      dput_path(&path, nd);
      return give_up(nd, static_cast<int>(PTR_ERR(nd->intent.open.file)));
    }
    int result = check_existing(nd, &path, flag);
    if (result == 1)
      result = follow_last(nd, &path, &links, &copy);
    else if (!result)
      return check_open(nd, acc_mode, flag);
    if (result == 1) return check_open(nd, acc_mode, flag);
    if (result) return result;
  }
}

}  // namespace

extern "C" {

void release_open_intent(struct nameidata *nd) {
  struct file *file = nd->intent.open.file;
  if (file->f_dentry)
    fput(file);
  else
    put_filp(file);
}

int path_lookup_open_from(const struct walk_path *base, const char *name, unsigned flags,
                          struct nameidata *nd, int open_flags) {
  return walk_to_open(base, name, flags, nd, open_flags, 0);
}

int may_open(struct nameidata *nd, int acc_mode, int flag) {
  struct inode *inode = nd->dentry->d_inode;
  if (!inode) return -ENOENT;
  const umode_t mode = inode->i_mode;
  const bool device = S_ISBLK(mode) || S_ISCHR(mode);
  if (S_ISLNK(mode)) return -ELOOP;
  if (S_ISDIR(mode) && (flag & FMODE_WRITE)) return -EISDIR;

  int error = vfs_permission(nd, acc_mode);
  if (error) return error;

  // The data of a special file is not in its file system: on a read-only one it can still be
  // written.
  if (device && (nd->mnt->mnt_flags & MNT_NODEV)) return -EACCES;
  if (device || S_ISFIFO(mode) || S_ISSOCK(mode))
    flag &= ~O_TRUNC;
  else if (IS_RDONLY(inode) && (flag & FMODE_WRITE))
    return -EROFS;

  if (IS_APPEND(inode)) {
    if ((flag & FMODE_WRITE) && !(flag & O_APPEND)) return -EPERM;
    if (flag & O_TRUNC) return -EPERM;
  }
  if ((flag & O_NOATIME) && current->fsuid != inode->i_uid && !capable(CAP_FOWNER)) return -EPERM;
  if (!(flag & O_TRUNC)) return 0;

  error = get_write_access(inode);
  if (error) return error;
  error = do_truncate(nd->dentry, 0, ATTR_MTIME | ATTR_CTIME, nullptr);
  put_write_access(inode);
  return error;
}

int finish_open_walk(struct nameidata *nd, int flag) {
  // A walk checks this itself, but an open without a walk comes here too.
  if ((flag & O_DIRECTORY) && !S_ISDIR(nd->dentry->d_inode->i_mode)) return give_up(nd, -ENOTDIR);
  return check_open(nd, access_mode(flag), flag);
}

int open_namei_from(const struct walk_path *base, const char *name, int flag, int mode,
                    struct nameidata *nd) {
  if (!(flag & O_CREAT)) {
    const int error = walk_to_open(base, name, walk_flags(flag), nd, flag, 0);
    return error ? error : finish_open_walk(nd, flag);
  }
  const int error = walk_to_open(base, name, LOOKUP_PARENT | LOOKUP_CREATE, nd, flag, mode);
  if (error) return error;
  if (nd->last_type != LAST_NORM || nd->last.name[nd->last.len]) return give_up(nd, -EISDIR);
  nd->flags &= ~LOOKUP_PARENT;
  return open_or_create(nd, access_mode(flag), flag, mode);
}

}  // extern "C"
