// SPDX-License-Identifier: GPL-2.0
// Calls on a node: attributes, extended attributes, link targets.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/kernel.h>
#include <linux/stat.h>
#include <linux/statfs.h>
#include <linux/string.h>
#include <linux/time.h>
#include <asm/uaccess.h>
#include "ukern/door/node.h"

namespace {

struct uk_time to_time(const struct timespec *time) {
  return {time->tv_sec, static_cast<unsigned>(time->tv_nsec)};
}

struct timespec from_time(const struct uk_time *time) {
  struct timespec out;
  out.tv_sec = time->sec;
  out.tv_nsec = time->nsec;
  return out;
}

void to_stat(const struct kstat *from, struct uk_stat *to) {
  to->ino = from->ino;
  to->size = static_cast<unsigned long long>(from->size);
  to->blocks = from->blocks;
  to->rdev = new_encode_dev(from->rdev);
  to->dev = new_encode_dev(from->dev);
  to->mount = 0;
  to->mode = from->mode;
  to->nlink = from->nlink;
  to->uid = from->uid;
  to->gid = from->gid;
  to->blksize = static_cast<unsigned>(from->blksize);
  to->atime = to_time(&from->atime);
  to->mtime = to_time(&from->mtime);
  to->ctime = to_time(&from->ctime);
}

// The path to work on: that of the open file if there is one, else the node's, walked again.
int get_path(struct uk_node *node, struct uk_file *file, struct walk_path *path) {
  if (!file) return node_walk(node, path);
  auto *filp = node_file(file);
  path->mnt = filp->f_vfsmnt;
  path->dentry = dget(filp->f_dentry);
  return 0;
}

int set_times(const struct walk_path *path, unsigned set, const struct uk_stat *want) {
  const struct timespec atime = from_time(&want->atime), mtime = from_time(&want->mtime);
  unsigned valid = 0;
  if (set & (UK_SET_ATIME | UK_SET_ATIME_NOW)) valid |= ATTR_ATIME;
  if (set & (UK_SET_MTIME | UK_SET_MTIME_NOW)) valid |= ATTR_MTIME;
  if (!valid) return 0;
  if ((set & UK_SET_ATIME) && !(set & UK_SET_ATIME_NOW)) valid |= ATTR_ATIME_SET;
  if ((set & UK_SET_MTIME) && !(set & UK_SET_MTIME_NOW)) valid |= ATTR_MTIME_SET;
  return utimes_at(path, valid, &atime, &mtime);
}

// A chown without owner and group clears set-id bits. The host also requests it before every write
// to a file with such bits. The write clears them itself, so -EPERM is no error.
int clear_set_id(const struct walk_path *path) {
  const int error = chown_at(path, static_cast<uid_t>(-1), static_cast<gid_t>(-1));
  return error == -EPERM ? 0 : error;
}

// An open for reading may truncate as well; that needs write permission, like a truncation by name.
bool is_writable(struct uk_file *file) {
  return file && (node_file(file)->f_mode & FMODE_WRITE);
}

int set_all(const struct walk_path *path, struct uk_file *file, unsigned set,
            const struct uk_stat *want) {
  if (!set) return clear_set_id(path);
  int error = 0;
  if (set & UK_SET_MODE) error = chmod_at(path, static_cast<mode_t>(want->mode));
  if (!error && (set & (UK_SET_UID | UK_SET_GID)))
    error = chown_at(path, set & UK_SET_UID ? want->uid : static_cast<uid_t>(-1),
                     set & UK_SET_GID ? want->gid : static_cast<gid_t>(-1));
  if (!error && (set & UK_SET_SIZE))
    error = is_writable(file) ? ftruncate_file(node_file(file), static_cast<loff_t>(want->size))
                              : truncate_at(path, static_cast<loff_t>(want->size));
  return error ? error : set_times(path, set, want);
}

}  // namespace

extern "C" {

int node_stat(struct walk_path *path, struct uk_stat *stat) {
  struct kstat attributes;
  if (!stat) return 0;
  const int error = vfs_getattr(path->mnt, path->dentry, &attributes);
  if (!error) to_stat(&attributes, stat);
  return error;
}

int uk_getattr(struct uk_node *node, struct uk_file *file, struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  int error = get_path(node, file, &path);
  if (error) return error;
  error = node_stat(&path, stat);
  dput(path.dentry);
  return error;
}

int uk_setattr(struct uk_node *node, struct uk_file *file, unsigned set, const struct uk_stat *want,
               struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  int error = get_path(node, file, &path);
  if (error) return error;
  error = set_all(&path, file, set, want);
  if (!error) error = node_stat(&path, stat);
  dput(path.dentry);
  return error;
}

int uk_statfs(struct uk_node *node, struct uk_statfs *out) {
  struct kstatfs figures;
  struct walk_path path;
  int error = node_walk(node, &path);
  if (error) return error;
  error = vfs_statfs(path.dentry, &figures);
  dput(path.dentry);
  if (error) return error;
  out->blocks = figures.f_blocks;
  out->bfree = figures.f_bfree;
  out->bavail = figures.f_bavail;
  out->files = figures.f_files;
  out->ffree = figures.f_ffree;
  memcpy(&out->fsid, &figures.f_fsid, sizeof(out->fsid));
  out->bsize = figures.f_bsize;
  out->frsize = figures.f_frsize;
  out->namelen = figures.f_namelen;
  out->type = figures.f_type;
  return 0;
}

int uk_access(struct uk_node *node, int mask) {
  struct walk_path path;
  int error = node_walk(node, &path);
  if (error) return error;
  error = access_at(&path, mask);
  dput(path.dentry);
  return error;
}

int uk_readlink(struct uk_node *node, char *buf, unsigned long size) {
  struct walk_path path;
  if (size > INT_MAX) size = INT_MAX;
  int result = node_walk(node, &path);
  if (result) return result;
  user_buffer range(buf, size);
  result = range.error() ? range.error() : readlink_at(&path, buf, static_cast<int>(size));
  dput(path.dentry);
  return result;
}

int uk_setxattr(struct uk_node *node, const char *name, const void *value, unsigned long size,
                int flags) {
  struct walk_path path;
  int error = node_walk(node, &path);
  if (error) return error;
  user_buffer range(value, size);
  error = range.error() ? range.error() : setxattr_user(path.dentry, name, value, size, flags);
  dput(path.dentry);
  return error;
}

long uk_getxattr(struct uk_node *node, const char *name, void *value, unsigned long size) {
  struct walk_path path;
  long result = node_walk(node, &path);
  if (result) return result;
  user_buffer range(value, size);
  result = range.error() ? range.error() : getxattr_user(path.dentry, name, value, size);
  dput(path.dentry);
  return result;
}

long uk_listxattr(struct uk_node *node, char *list, unsigned long size) {
  struct walk_path path;
  long result = node_walk(node, &path);
  if (result) return result;
  user_buffer range(list, size);
  result = range.error() ? range.error() : listxattr_user(path.dentry, list, size);
  dput(path.dentry);
  return result;
}

int uk_removexattr(struct uk_node *node, const char *name) {
  struct walk_path path;
  int error = node_walk(node, &path);
  if (error) return error;
  error = removexattr_user(path.dentry, name);
  dput(path.dentry);
  return error;
}

}  // extern "C"
