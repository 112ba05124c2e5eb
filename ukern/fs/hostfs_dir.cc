// SPDX-License-Identifier: GPL-2.0
// hostfs: names. Looking them up, believing them, making and removing them.
#include "ukern/fs/hostfs_internal.h"

#include <linux/err.h>
#include <linux/limits.h>
#include <linux/namei.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

namespace {

const char *name_of(const struct dentry *dentry) {
  return reinterpret_cast<const char *>(dentry->d_name.name);
}

// The host has something else, or nothing, under the dentry's name. A directory that somebody uses
// would keep the name (d_invalidate leaves it), and whoever comes by the name would get the old
// directory: it loses the name here, and whoever is in it stays there. The result is what
// d_revalidate says.
int disowned(struct dentry *dentry) {
  struct inode *inode = dentry->d_inode;
  if (!S_ISDIR(inode->i_mode)) return 0;
  if (have_submounts(dentry)) return 1;
  shrink_dcache_parent(dentry);
  d_drop(dentry);
  return 0;
}

// What the host has under a name in the directory `dir` now. Numbers tell an object from the
// inode's only while a descriptor of that is open: one that was closed is taken from the name.
int look_at_name(const host_identity &as, int dir, const char *name, struct inode *inode,
                 struct uk_stat *stat) {
  if (!inode) return host_fs_stat_name(&as, dir, name, stat);
  const hostfs_held held(inode, HOSTFS_IF_OPEN);
  if (held.fd() >= 0) return host_fs_stat_name(&as, dir, name, stat);
  const int fd = host_fs_lookup(&as, dir, name);
  if (fd < 0) return fd;
  const int error = host_fs_stat(fd, stat);
  if (error || !hostfs_is(inode, stat) || !hostfs_is_behind(inode, fd)) host_fs_close(fd);
  return error;
}

int look_below(const host_identity &as, struct inode *dir, const char *name, struct inode *inode,
               struct uk_stat *stat) {
  const hostfs_held held(dir);
  return held.fd() < 0 ? held.fd() : look_at_name(as, held.fd(), name, inode, stat);
}

// Compares what the host has under the name now with what the dentry says. The result is what
// d_revalidate says.
int ask_host(struct dentry *dentry) {
  if (IS_ROOT(dentry) || d_mountpoint(dentry)) return 1;
  // A move to a name that was not there leaves its dentry without one.
  if (!dentry->d_inode && d_unhashed(dentry)) return 0;
  char name[NAME_MAX + 1];
  struct dentry *parent;
  {
    SpinGuard guard(dentry->d_lock);  // against a rename of the dentry meanwhile
    strlcpy(name, name_of(dentry), sizeof name);
    parent = dget(dentry->d_parent);
  }

  const host_identity as = hostfs_caller();
  struct uk_stat stat;
  const int error = look_below(as, parent->d_inode, name, dentry->d_inode, &stat);
  dput(parent);
  struct inode *inode = dentry->d_inode;
  if (inode) {
    if (error && error != -ENOENT && error != -ENOTDIR) return 0;
    if (error || !hostfs_is(inode, &stat)) return disowned(dentry);
    hostfs_take_stat(inode, &stat);
  } else if (error != -ENOENT) {
    return 0;
  }
  request_stamp(&current->request, &dentry->d_time);
  return 1;
}

// Where a dentry is in the tree.
struct place {
  explicit place(const struct dentry *from) {
    auto *dentry = const_cast<struct dentry *>(from);
    SpinGuard guard(dentry->d_lock);
    strlcpy(name, name_of(dentry), sizeof name);
    dir = dentry->d_parent->d_inode->i_ino;
  }
  char name[NAME_MAX + 1];
  ino_t dir;
};

// A layer above passes the question on for the dentry that it found here when it looked its own
// name up. Since then another layer over the same directory may have moved that one to a new name,
// or made something of it: it is not what the name that is walked leads to any more. A layer's
// directories have the numbers of ours.
int is_elsewhere(const struct dentry *dentry, const struct dentry *walked) {
  if (!walked || walked == dentry || IS_ROOT(dentry) || IS_ROOT(walked)) return 0;
  if (d_mountpoint(const_cast<struct dentry *>(dentry))) return 0;
  if (!walked->d_inode) return dentry->d_inode != nullptr;
  const place here(dentry), there(walked);
  return here.dir != there.dir || strcmp(here.name, there.name) != 0;
}

int hostfs_revalidate(struct dentry *dentry, struct nameidata *) {
  if (is_elsewhere(dentry, current->walked)) return 0;
  return request_knows(&current->request, &dentry->d_time) ? 1 : ask_host(dentry);
}

// A directory that the host has moved loses the name under which it was known, so that it is not in
// the tree twice.
void forget_moved(struct inode *inode) {
  if (!S_ISDIR(inode->i_mode)) return;
  if (struct dentry *alias = d_find_alias(inode)) {
    if (!ask_host(alias)) d_drop(alias);
    dput(alias);
  }
}

struct dentry *hostfs_lookup(struct inode *dir, struct dentry *dentry, struct nameidata *) {
  const host_identity as = hostfs_caller();
  dentry->d_op = &hostfs_dops;
  request_stamp(&current->request, &dentry->d_time);
  const hostfs_held held(dir);
  const int fd = held.fd() < 0 ? held.fd() : host_fs_lookup(&as, held.fd(), name_of(dentry));
  if (fd == -ENOENT) {
    d_add(dentry, nullptr);
    return nullptr;
  }
  if (fd < 0) return static_cast<struct dentry *>(ERR_PTR(fd));
  struct inode *inode = hostfs_iget(dir->i_sb, fd);
  if (IS_ERR(inode)) return static_cast<struct dentry *>(ERR_PTR(PTR_ERR(inode)));
  forget_moved(inode);
  return d_splice_alias(inode, dentry);
}

// Binds a dentry to what has just been made under its name. `fd` is a path descriptor of it or an
// error.
int instantiate(struct inode *dir, struct dentry *dentry, int fd) {
  hostfs_refresh(dir);
  if (fd < 0) {
    d_drop(dentry);
    return fd;
  }
  struct inode *inode = hostfs_iget(dir->i_sb, fd);
  if (IS_ERR(inode)) {
    d_drop(dentry);
    return static_cast<int>(PTR_ERR(inode));
  }
  d_instantiate(dentry, inode);
  return 0;
}

// Makes something by `make(fd)` in the directory and binds the dentry to it.
template <typename Make>
int make_and_instantiate(struct inode *dir, struct dentry *dentry, const host_identity &as,
                         Make make) {
  const hostfs_held held(dir);
  if (held.fd() < 0) return held.fd();
  if (int error = make(held.fd())) return error;
  return instantiate(dir, dentry, host_fs_lookup(&as, held.fd(), name_of(dentry)));
}

int hostfs_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *nd) {
  const host_identity as = hostfs_caller();
  const hostfs_held held(dir);
  if (held.fd() < 0) return held.fd();
  // Who says nothing of a look-up makes no file to open it.
  const bool will_open = nd != nullptr;
  int data = -1;
  const int fd = host_fs_create(&as, held.fd(), name_of(dentry),
                                static_cast<unsigned>(mode) & 07777, will_open ? &data : nullptr);
  if (fd < 0) return fd;
  const int error = instantiate(dir, dentry, fd);
  if (error) {
    if (data >= 0) host_fs_close(data);
    return error;
  }
  // The inode is new, and nobody but the caller has it: the number cannot have been in use.
  hostfs_i(dentry->d_inode)->made = data;
  return 0;
}

int hostfs_mkdir(struct inode *dir, struct dentry *dentry, int mode) {
  const host_identity as = hostfs_caller();
  return make_and_instantiate(dir, dentry, as, [&](int fd) {
    return host_fs_mkdir(&as, fd, name_of(dentry), static_cast<unsigned>(mode) & 07777);
  });
}

int hostfs_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  const host_identity as = hostfs_caller();
  return make_and_instantiate(dir, dentry, as, [&](int fd) {
    return host_fs_mknod(&as, fd, name_of(dentry), static_cast<unsigned>(mode), MAJOR(dev),
                         MINOR(dev));
  });
}

int hostfs_symlink(struct inode *dir, struct dentry *dentry, const char *target) {
  const host_identity as = hostfs_caller();
  return make_and_instantiate(
      dir, dentry, as, [&](int fd) { return host_fs_symlink(&as, fd, name_of(dentry), target); });
}

int hostfs_link(struct dentry *old_dentry, struct inode *dir, struct dentry *dentry) {
  const host_identity as = hostfs_caller();
  struct inode *inode = old_dentry->d_inode;
  const hostfs_held held(inode), held_dir(dir);
  if (held.fd() < 0) return held.fd();
  if (held_dir.fd() < 0) return held_dir.fd();
  if (int error = host_fs_link(&as, held.fd(), held_dir.fd(), name_of(dentry))) return error;
  hostfs_refresh(inode);
  hostfs_refresh(dir);
  d_instantiate(dentry, igrab(inode));
  return 0;
}

// Removes a name by `call(fd)` of the directory. What had it can be looked at afterwards.
template <typename Remove>
int remove(struct inode *dir, struct inode *inode, Remove call) {
  const hostfs_held held(inode), held_dir(dir);
  if (held.fd() < 0) return held.fd();
  if (held_dir.fd() < 0) return held_dir.fd();
  if (int error = call(held_dir.fd())) return error;
  hostfs_refresh(inode);
  hostfs_refresh(dir);
  hostfs_removed(inode);
  return 0;
}

int hostfs_unlink(struct inode *dir, struct dentry *dentry) {
  const host_identity as = hostfs_caller();
  return remove(dir, dentry->d_inode,
                [&](int fd) { return host_fs_unlink(&as, fd, name_of(dentry)); });
}

int hostfs_rmdir(struct inode *dir, struct dentry *dentry) {
  const host_identity as = hostfs_caller();
  return remove(dir, dentry->d_inode,
                [&](int fd) { return host_fs_rmdir(&as, fd, name_of(dentry)); });
}

int hostfs_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                  struct dentry *new_dentry) {
  const hostfs_held held_old(old_dir), held_new(new_dir);
  if (held_old.fd() < 0) return held_old.fd();
  if (held_new.fd() < 0) return held_new.fd();
  const host_identity as = hostfs_caller();
  const auto move = [&] {
    return host_fs_rename(&as, held_old.fd(), name_of(old_dentry), held_new.fd(),
                          name_of(new_dentry));
  };
  int error;
  if (struct inode *target = new_dentry->d_inode) {
    error = remove(new_dir, target, [&](int) { return move(); });
  } else {
    error = move();
    if (!error) hostfs_refresh(new_dir);
  }
  if (error) return error;
  hostfs_refresh(old_dentry->d_inode);
  if (new_dir != old_dir) hostfs_refresh(old_dir);
  return 0;
}

}  // namespace

struct dentry_operations hostfs_dops = {
    .d_revalidate = hostfs_revalidate,
};

struct inode_operations hostfs_dir_iops = {
    .create = hostfs_create,
    .lookup = hostfs_lookup,
    .link = hostfs_link,
    .unlink = hostfs_unlink,
    .symlink = hostfs_symlink,
    .mkdir = hostfs_mkdir,
    .rmdir = hostfs_rmdir,
    .mknod = hostfs_mknod,
    .rename = hostfs_rename,
    .permission = hostfs_permission,
    .setattr = hostfs_setattr,
    .getattr = hostfs_getattr,
    .setxattr = hostfs_setxattr,
    .getxattr = hostfs_getxattr,
    .listxattr = hostfs_listxattr,
    .removexattr = hostfs_removexattr,
};
