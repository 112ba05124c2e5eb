// SPDX-License-Identifier: GPL-2.0
// The operations that change names. Each holds the lower directory's i_mutex (both directories' for
// a rename) across the lower call and the capture.

#include "dir.h"
#include "inode_ops.h"
#include "trans.h"

struct dentry *tarn_lookup_lower(struct dentry *lower_dir, const struct dentry *dentry) {
  return lookup_one_len(reinterpret_cast<const char *>(dentry->d_name.name), lower_dir,
                        static_cast<int>(dentry->d_name.len));
}

namespace {

// The mode of every symbolic link: 07777.
constexpr int symlink_mode = 4095;

// Names in a lower directory may be changed other than through this mount. So each operation locks
// the lower inodes of the upper directories, looks the name up there, and goes on only if it still
// has the expected object.

// Makes the next access look the name up again.
int stale_name(struct dentry *dentry) {
  d_drop(dentry);
  return -ESTALE;
}

// The bound lower dentry, with a reference, if a look-up in the directory, whose i_mutex is held,
// would find it: it is hashed under the name, and its file system has no revalidation. Otherwise
// null. Nothing is moved into or out of a locked directory, so d_lock is not needed.
struct dentry *bound_in_place(struct dentry *lower_dir, const struct dentry *dentry) {
  struct dentry *bound = tarn_lower_dentry(dentry);
  if (bound->d_op && bound->d_op->d_revalidate) return nullptr;
  if (d_unhashed(bound) || bound->d_parent != lower_dir ||
      bound->d_name.len != dentry->d_name.len ||
      memcmp(bound->d_name.name, dentry->d_name.name, dentry->d_name.len))
    return nullptr;
  return dget(bound);
}

// Looks up the name of an upper dentry in its lower directory, whose i_mutex is held. Returns a
// lower dentry with a reference, or an error pointer: -ESTALE if the object is another one, and the
// upper dentry is dropped; -EBUSY if something is mounted on the lower dentry.
struct dentry *lower_name(struct dentry *lower_dir, struct dentry *dentry) {
  struct dentry *found = bound_in_place(lower_dir, dentry);
  if (!found) found = tarn_lookup_lower(lower_dir, dentry);
  if (IS_ERR(found)) return found;
  const struct inode *expected = dentry->d_inode ? tarn_lower_inode(dentry->d_inode) : nullptr;
  int rc = 0;
  if (d_mountpoint(found))
    rc = -EBUSY;
  else if (found->d_inode != expected)
    rc = stale_name(dentry);
  if (!rc) return found;
  dput(found);
  return static_cast<struct dentry *>(ERR_PTR(rc));
}

// Owns the result of lower_name.
class found_name {
 public:
  explicit found_name(struct dentry *found) : found_(found), own_(!IS_ERR(found)) {}
  ~found_name() { give_back(); }
  found_name(const found_name &) = delete;
  found_name &operator=(const found_name &) = delete;
  int error() const { return IS_ERR(found_) ? static_cast<int>(PTR_ERR(found_)) : 0; }
  struct dentry *get() const {
    return found_;
  }
  void give_back() {
    if (own_) dput(found_);
    own_ = false;
  }

 private:
  struct dentry *found_;
  bool own_;
};

// The locked lower directory of an upper dentry, and the result of lower_name in it.
class locked_lower_name {
 public:
  explicit locked_lower_name(struct dentry *dentry)
      : dir_(dget(tarn_lower_dentry(dentry->d_parent))),
        lock_(inode()->i_mutex, I_MUTEX_PARENT),
        name_(lower_name(dir_.get(), dentry)) {}
  locked_lower_name(const locked_lower_name &) = delete;
  locked_lower_name &operator=(const locked_lower_name &) = delete;

  struct inode *inode() const {
    return dir_->d_inode;
  }
  struct dentry *dir() const {
    return dir_.get();
  }
  struct dentry *get() const {
    return name_.get();
  }
  int error() const { return name_.error(); }
  // For the creation of an object, which uses the lower dentry that is already bound.
  int error_to_make(struct dentry *dentry) const {
    if (error()) return error();
    return get() == tarn_lower_dentry(dentry) ? 0 : stale_name(dentry);
  }
  // Drops the reference if the upper dentry has its own: the lower file system checks the count.
  void give_back(const struct dentry *bound) {
    if (get() == bound) name_.give_back();
  }

 private:
  dentry_ref dir_;  // released after the lock
  mutex_guard lock_;
  found_name name_;
};

void drop_if_negative(struct dentry *dentry) {
  if (!dentry->d_inode) d_drop(dentry);
}

// A new object's owner and times, as the attribute change that is captured after its creation.
struct iattr attr_of_new(const struct inode *inode, int mode, const struct inode *lower_dir) {
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_MODE | ATTR_UID | ATTR_GID | ATTR_CTIME;
  ia.ia_mode = mode;
  ia.ia_uid = inode->i_uid;
  ia.ia_gid = inode->i_gid;
  ia.ia_atime = lower_dir->i_atime;
  ia.ia_mtime = lower_dir->i_mtime;
  ia.ia_ctime = lower_dir->i_ctime;
  return ia;
}

}  // namespace

int tarn_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *nd) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  locked_lower_name lower(dentry);
  int rc = lower.error_to_make(dentry);
  if (rc) return rc;
  {
    tarn_lower_nd lend(nd, lower_dentry, tarn_lower_mnt(dentry));
    rc = vfs_create(lower.inode(), lower_dentry, mode, nd);
  }
  if (!rc && !lower_dentry->d_inode) rc = -ESTALE;  // created, but removed at once
  if (!rc) rc = tarn_interpose(lower_dentry, dentry, dir->i_sb, TARN_INSTANTIATE);
  if (rc) return rc;
  tarn_sync_1dentry(OX_OP_CREATE, dentry, mode);
  tarn_copy_attr_times_and_size(dir, lower.inode());
  const struct iattr ia = attr_of_new(dentry->d_inode, mode, lower.inode());
  tarn_attr_sync(dentry, &ia);
  tarn_mode_sync(dentry, mode);
  return 0;
}

namespace {

// Binds the dentry after the lower call of mkdir, mknod or symlink with result `rc`. Returns true
// if it was bound.
bool bind_created(struct inode *dir, struct dentry *dentry, int *rc) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  if (*rc || !lower_dentry->d_inode) return false;
  *rc = tarn_interpose(lower_dentry, dentry, dir->i_sb, TARN_INSTANTIATE);
  return *rc == 0;
}

int mkdir_below(struct inode *dir, struct dentry *dentry, int mode) {
  locked_lower_name lower(dentry);
  int rc = lower.error_to_make(dentry);
  if (!rc) rc = vfs_mkdir(lower.inode(), tarn_lower_dentry(dentry), mode);
  if (!bind_created(dir, dentry, &rc)) return rc;
  tarn_sync_1dentry(OX_OP_MKDIR, dentry, mode);
  tarn_copy_attr_times_and_size(dir, lower.inode());
  dir->i_nlink = lower.inode()->i_nlink;
  const struct iattr ia = attr_of_new(dentry->d_inode, mode, lower.inode());
  tarn_attr_sync(dentry, &ia);
  tarn_mode_sync(dentry, mode);
  return rc;
}

}  // namespace

int tarn_mkdir(struct inode *dir, struct dentry *dentry, int mode) {
  const int rc = mkdir_below(dir, dentry, mode);
  drop_if_negative(dentry);
  return rc;
}

namespace {

int mknod_below(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  locked_lower_name lower(dentry);
  int rc = lower.error_to_make(dentry);
  if (!rc) rc = vfs_mknod(lower.inode(), tarn_lower_dentry(dentry), mode, dev);
  if (bind_created(dir, dentry, &rc)) tarn_copy_attr_times_and_size(dir, lower.inode());
  return rc;
}

}  // namespace

// Device nodes, FIFOs and sockets are not captured.
int tarn_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  const int rc = mknod_below(dir, dentry, mode, dev);
  drop_if_negative(dentry);
  return rc;
}

namespace {

int symlink_below(struct inode *dir, struct dentry *dentry, const char *symname) {
  dentry_ref lower_dentry(dget(tarn_lower_dentry(dentry)));
  locked_lower_name lower(dentry);
  int rc = lower.error_to_make(dentry);
  if (!rc) rc = vfs_symlink(lower.inode(), lower_dentry.get(), symname, symlink_mode);
  if (!bind_created(dir, dentry, &rc)) return rc;
  tarn_copy_attr_times_and_size(dir, lower.inode());
  tarn_sym_sync(dentry, symname, symlink_mode);
  return rc;
}

}  // namespace

int tarn_symlink(struct inode *dir, struct dentry *dentry, const char *symname) {
  const int rc = symlink_below(dir, dentry, symname);
  drop_if_negative(dentry);
  return rc;
}

namespace {

int link_below(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  const loff_t size = i_size_read(old_dentry->d_inode);
  dentry_ref lower_old(dget(tarn_lower_dentry(old_dentry)));
  dentry_ref lower_new(dget(tarn_lower_dentry(new_dentry)));
  dentry_ref old_name(tarn_hold_name(old_dentry));
  if (tarn_lower_mnt(old_dentry) != tarn_lower_mnt(new_dentry->d_parent)) return -EXDEV;
  locked_lower_name lower(new_dentry);
  int rc = lower.error_to_make(new_dentry);
  if (rc) return rc;
  // Before the link: the record needs the old name, and the new one is then a name of the object
  // too.
  const bool in_place = tarn_is_in_place(old_dentry, old_name ? old_name.get() : lower_old.get());
  tarn_name_change change(lower_new.get());
  rc = vfs_link(lower_old.get(), lower.inode(), lower_new.get());
  if (!bind_created(dir, new_dentry, &rc)) return rc;
  tarn_copy_attr_times_and_size(dir, lower.inode());
  struct inode *old_inode = old_dentry->d_inode;
  old_inode->i_nlink = tarn_lower_inode(old_inode)->i_nlink;
  i_size_write(new_dentry->d_inode, size);
  tarn_sync_2dentry(OX_OP_LINK, old_dentry, new_dentry, &change, in_place);
  return rc;
}

}  // namespace

// Whatever the result, the next access by either name looks it up again.
int tarn_link(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  const int rc = link_below(old_dentry, dir, new_dentry);
  d_drop(tarn_lower_dentry(old_dentry));
  d_drop(new_dentry);
  d_drop(old_dentry);
  return rc;
}

namespace {

// The record's path is the directory's and the name: the removed object has none.
void capture_removal(ox_u32_t op, struct dentry *lower_dir, struct dentry *dentry) {
  tarn_record_path path(lower_dir, tarn_lower_mnt(dentry), &dentry->d_name);
  tarn_names_sync(op, path, nullptr, 0, nullptr);
}

// Does anyone else use an upper dentry that is to be removed? New users cannot find it: it is
// unhashed, and its directory is locked.
bool is_shared(struct dentry *dentry) {
  d_drop(dentry);
  return atomic_read(&dentry->d_count) > 1;
}

int unlink_below(struct inode *dir, struct dentry *dentry) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  locked_lower_name lower(dentry);
  if (lower.error()) return lower.error();
  // If the upper dentry has other users, a reference makes the lower dentry keep its inode for
  // them. Otherwise the lower file system must see no second user, or NFS renames the file instead
  // of removing it.
  dentry_ref held(is_shared(dentry) ? dget(lower_dentry) : nullptr);
  lower.give_back(lower_dentry);
  const int rc = vfs_unlink(lower.inode(), lower.get());
  if (rc) return rc;
  capture_removal(OX_OP_UNLINK, lower.dir(), dentry);
  tarn_copy_attr_times(dir, lower.inode());
  struct inode *inode = dentry->d_inode;
  inode->i_nlink = tarn_lower_inode(inode)->i_nlink;
  inode->i_ctime = dir->i_ctime;
  return 0;
}

}  // namespace

int tarn_unlink(struct inode *dir, struct dentry *dentry) {
  const int rc = unlink_below(dir, dentry);
  if (rc && rc != -ESTALE && d_unhashed(dentry)) d_rehash(dentry);
  return rc;
}

namespace {

int rmdir_below(struct inode *dir, struct dentry *dentry) {
  // Held across d_delete, so that the lower dentry keeps its inode for tasks that work in the
  // directory.
  dentry_ref held(dget(tarn_lower_dentry(dentry)));
  locked_lower_name lower(dentry);
  if (lower.error()) return lower.error();
  const int rc = vfs_rmdir(lower.inode(), lower.get());
  if (!rc) d_delete(lower.get());
  // A refused removal is captured too.
  capture_removal(OX_OP_RMDIR, lower.dir(), dentry);
  tarn_copy_attr_times(dir, lower.inode());
  dir->i_nlink = lower.inode()->i_nlink;
  return rc;
}

}  // namespace

int tarn_rmdir(struct inode *dir, struct dentry *dentry) {
  dentry_ref held(dget(dentry));
  const int rc = rmdir_below(dir, dentry);
  if (!rc) d_drop(dentry);
  return rc;
}

namespace {

// Locks both lower directories of a rename.
class rename_guard {
 public:
  rename_guard(struct dentry *dir1, struct dentry *dir2)
      : dir1_(dir1), dir2_(dir2), trap_(lock_rename(dir1_, dir2_)) {}
  ~rename_guard() { unlock_rename(dir1_, dir2_); }
  rename_guard(const rename_guard &) = delete;
  rename_guard &operator=(const rename_guard &) = delete;
  // The child of one directory that is an ancestor of the other; or null.
  const struct dentry *trap() const { return trap_; }

 private:
  struct dentry *dir1_;
  struct dentry *dir2_;
  const struct dentry *trap_;
};

int rename_below(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                 struct dentry *new_dentry) {
  // Lower mounts (bind mounts, other file systems) are part of the upper tree; the VFS has compared
  // only the upper mounts.
  if (tarn_lower_mnt(old_dentry->d_parent) != tarn_lower_mnt(new_dentry->d_parent)) return -EXDEV;
  dentry_ref lower_old_dir(dget(tarn_lower_dentry(old_dentry->d_parent)));
  dentry_ref lower_new_dir(dget(tarn_lower_dentry(new_dentry->d_parent)));
  if (lower_old_dir.get() != lower_new_dir.get() &&
      lower_old_dir->d_inode == lower_new_dir->d_inode)
    return stale_name(new_dentry);  // the same i_mutex twice
  rename_guard guard(lower_old_dir.get(), lower_new_dir.get());
  found_name lower_old(lower_name(lower_old_dir.get(), old_dentry));
  if (lower_old.error()) return lower_old.error();
  found_name lower_new(lower_name(lower_new_dir.get(), new_dentry));
  if (lower_new.error()) return lower_new.error();
  // The VFS has made these tests on the upper dentries, whose lower ones may be at other places.
  if (lower_old.get() == guard.trap()) return -EINVAL;
  if (lower_new.get() == guard.trap()) return -ENOTEMPTY;
  const int mode = lower_old.get()->d_inode ? int{lower_old.get()->d_inode->i_mode} : 0;

  tarn_name_change change(lower_old.get());
  const int rc =
      vfs_rename(lower_old_dir->d_inode, lower_old.get(), lower_new_dir->d_inode, lower_new.get());
  if (rc) return rc;
  // The paths of both names, whatever object has them now.
  tarn_record_path old_path(lower_old_dir.get(), tarn_lower_mnt(old_dentry), &old_dentry->d_name);
  tarn_record_path new_path(lower_new_dir.get(), tarn_lower_mnt(new_dentry), &new_dentry->d_name);
  tarn_names_sync(OX_OP_RENAME, old_path, &new_path, mode, &change);
  tarn_copy_attr_all(new_dir, lower_new_dir->d_inode);
  if (old_dir != new_dir) tarn_copy_attr_all(old_dir, lower_old_dir->d_inode);
  return 0;
}

bool is_refused(struct dentry *dentry) {
  if (dir_set_is_empty()) return false;
  tarn_lower_path path(dentry);
  // Not checked if the path cannot be determined.
  return path && dir_refuses_rename(path.get());
}

}  // namespace

int tarn_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                struct dentry *new_dentry) {
  if (is_refused(old_dentry)) return -EACCES;
  return rename_below(old_dir, old_dentry, new_dir, new_dentry);
}
