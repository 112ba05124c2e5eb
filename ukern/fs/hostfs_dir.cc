// SPDX-License-Identifier: GPL-2.0
// hostfs: lookup, revalidation, creation and removal of names.
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

// The host has another object, or none, under the dentry's name. d_invalidate leaves a directory in
// use hashed, so that walks would still find it: it is unhashed here, and its users keep it.
// Returns the result of d_revalidate.
int invalidate(struct dentry *dentry) {
  struct inode *inode = dentry->d_inode;
  if (!S_ISDIR(inode->i_mode)) return 0;
  if (have_submounts(dentry)) return 1;
  shrink_dcache_parent(dentry);
  d_drop(dentry);
  return 0;
}

// Stats a name in the host directory `dir`. The inode's number identifies its object only while a
// descriptor of it is open. A closed one is reopened by the name and compared by its handle.
int stat_name(const host_identity &as, int dir, const char *name, struct inode *inode,
              struct uk_stat *stat) {
  if (!inode) return host_fs_stat_name(&as, dir, name, stat);
  const hostfs_held held(inode, HOSTFS_IF_OPEN);
  if (held.fd() >= 0) return host_fs_stat_name(&as, dir, name, stat);
  const int fd = host_fs_lookup(&as, dir, name);
  if (fd < 0) return fd;
  const int error = host_fs_stat(fd, stat);
  if (error || !hostfs_same_object(inode, stat) || !hostfs_adopt_fd(inode, fd)) host_fs_close(fd);
  return error;
}

int stat_child(const host_identity &as, struct inode *dir, const char *name, struct inode *inode,
               struct uk_stat *stat) {
  const hostfs_held held(dir);
  return held.fd() < 0 ? held.fd() : stat_name(as, held.fd(), name, inode, stat);
}

// Compares the dentry with the host's object of that name. Returns the result of d_revalidate.
int check_on_host(struct dentry *dentry) {
  if (IS_ROOT(dentry) || d_mountpoint(dentry)) return 1;
  // A rename onto a negative dentry leaves it unhashed.
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
  const int error = stat_child(as, parent->d_inode, name, dentry->d_inode, &stat);
  dput(parent);
  struct inode *inode = dentry->d_inode;
  if (inode) {
    if (error && error != -ENOENT && error != -ENOTDIR) return 0;
    if (error || !hostfs_same_object(inode, &stat)) return invalidate(dentry);
    hostfs_apply_stat(inode, &stat);
  } else if (error != -ENOENT) {
    return 0;
  }
  request_stamp(&current->request, &dentry->d_time);
  return 1;
}

// A dentry's parent and name.
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

// A layer above revalidates the lower dentry that it found at its own lookup. Another layer over
// the same directory may since have renamed that dentry, or instantiated it: it no longer belongs
// to the name being walked. A layer's directories have our inode numbers.
int was_moved(const struct dentry *dentry, const struct dentry *walked) {
  if (!walked || walked == dentry || IS_ROOT(dentry) || IS_ROOT(walked)) return 0;
  if (d_mountpoint(const_cast<struct dentry *>(dentry))) return 0;
  if (!walked->d_inode) return dentry->d_inode != nullptr;
  const place here(dentry), there(walked);
  return here.dir != there.dir || strcmp(here.name, there.name) != 0;
}

int hostfs_revalidate(struct dentry *dentry, struct nameidata *) {
  if (was_moved(dentry, current->walked)) return 0;
  return request_knows(&current->request, &dentry->d_time) ? 1 : check_on_host(dentry);
}

// Unhashes the old name of a directory that the host has moved, so that it is not in the tree
// twice.
void unhash_moved(struct inode *inode) {
  if (!S_ISDIR(inode->i_mode)) return;
  if (struct dentry *alias = d_find_alias(inode)) {
    if (!check_on_host(alias)) d_drop(alias);
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
  unhash_moved(inode);
  return d_splice_alias(inode, dentry);
}

// Instantiates a dentry with the object just created under its name. Takes over `fd`, a path
// descriptor of the object or an error.
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

// Creates an object in the directory with `make(fd)` and instantiates the dentry.
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
  // A caller without a nameidata does not open the file.
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
  // The object is new, so its inode is too, and only the caller has it.
  hostfs_i(dentry->d_inode)->created_fd = data;
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

// Removes a name with `call(fd)`, fd of the directory. The descriptor held on the inode allows
// refreshing its attributes afterwards.
template <typename Remove>
int remove(struct inode *dir, struct inode *inode, Remove call) {
  const hostfs_held held(inode), held_dir(dir);
  if (held.fd() < 0) return held.fd();
  if (held_dir.fd() < 0) return held_dir.fd();
  if (int error = call(held_dir.fd())) return error;
  hostfs_refresh(inode);
  hostfs_refresh(dir);
  hostfs_note_removed(inode);
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
