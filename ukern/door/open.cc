// SPDX-License-Identifier: GPL-2.0
// Opens and releases files for the hosting program.
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/namei.h>
#include "ukern/door/node.h"

namespace {

static_assert(UK_O_DIRECT == O_DIRECT && UK_O_DIRECTORY == O_DIRECTORY &&
              UK_O_NOFOLLOW == O_NOFOLLOW);

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
  // Links are resolved in the host's name space: one that appeared since the lookup is not
  // followed.
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

void uk_release(struct uk_file *file) {
  fput(node_file(file));
}

}  // extern "C"
