// SPDX-License-Identifier: GPL-2.0
// The operations that change names. Names change under exactly one lower lock, the lower
// directory's i_mutex (both directories' for a rename), which is held across the capture as well.

#include "dir.h"
#include "inode_ops.h"
#include "trans.h"

struct dentry *tarn_lookup_lower(struct dentry *lower_dir, const struct dentry *dentry) {
  return lookup_one_len(reinterpret_cast<const char *>(dentry->d_name.name), lower_dir,
                        static_cast<int>(dentry->d_name.len));
}

namespace {

// The mode that every symbolic link gets: 07777.
constexpr int symlink_mode = 4095;

// Somebody may have changed names in a lower directory by another way than this mount. So each
// change of names locks the lower inodes of the upper directories and looks there for what it is
// about: only what still goes by its name is changed.

// The next access looks the name up again.
int stale_name(struct dentry *dentry) {
  d_drop(dentry);
  return -ESTALE;
}

// What an upper dentry stands for in its lower directory, whose i_mutex is held: a lower dentry
// with a reference, or an error pointer. -ESTALE: it is not what it was, and the dentry is dropped;
// -EBUSY: something is mounted there below.
struct dentry *lower_name(struct dentry *lower_dir, struct dentry *dentry) {
  struct dentry *found = tarn_lookup_lower(lower_dir, dentry);
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

// The result of lower_name.
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

// The lower directory of an upper dentry, with its lock, and what the dentry stands for in it.
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
  // Of a name at which something is to be made: that goes by the dentry that is bound already.
  int error_to_make(struct dentry *dentry) const {
    if (error()) return error();
    return get() == tarn_lower_dentry(dentry) ? 0 : stale_name(dentry);
  }
  // Lets go of the name where the upper dentry holds it anyway: the lower file system looks at how
  // many use it.
  void give_back(const struct dentry *bound) {
    if (get() == bound) name_.give_back();
  }

 private:
  dentry_ref dir_;  // given back after the lock
  mutex_guard lock_;
  found_name name_;
};

void drop_if_negative(struct dentry *dentry) {
  if (!dentry->d_inode) d_drop(dentry);
}

// What a new object's owner and times are, as the change that capture reports after its creation.
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
  if (!rc && !lower_dentry->d_inode) rc = -ESTALE;  // made, and out of reach at once
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

// What mkdir, mknod and symlink do after their lower call: `rc` is its result. True when the dentry
// was bound.
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
  // The new name is one of the object's as well, but not the one that the record tells of.
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

// Whatever the result, the next access through either name looks both up again.
int tarn_link(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  const int rc = link_below(old_dentry, dir, new_dentry);
  d_drop(tarn_lower_dentry(old_dentry));
  d_drop(new_dentry);
  d_drop(old_dentry);
  return rc;
}

namespace {

// The path is that of the place, which stays known when nothing is there any more.
void capture_removal(ox_u32_t op, struct dentry *lower_dir, struct dentry *dentry) {
  tarn_record_path path(lower_dir, tarn_lower_mnt(dentry), &dentry->d_name);
  tarn_names_sync(op, path, nullptr, 0, nullptr);
}

// Whether somebody else uses an upper dentry that is to go. Nobody comes to it from now on: it is
// out of the cache, and its directory is locked.
bool is_shared(struct dentry *dentry) {
  d_drop(dentry);
  return atomic_read(&dentry->d_count) > 1;
}

int unlink_below(struct inode *dir, struct dentry *dentry) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  locked_lower_name lower(dentry);
  if (lower.error()) return lower.error();
  // With a second user the lower dentry keeps its inode: whoever has the upper one still works with
  // it. Without one the lower file system must not see any, or NFS keeps the file under another
  // name.
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
  // Held beyond d_delete, so that the lower dentry keeps its inode for whoever is in the directory.
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

// Both lower directories of a rename, locked.
class rename_guard {
 public:
  rename_guard(struct dentry *dir1, struct dentry *dir2)
      : dir1_(dir1), dir2_(dir2), trap_(lock_rename(dir1_, dir2_)) {}
  ~rename_guard() { unlock_rename(dir1_, dir2_); }
  rename_guard(const rename_guard &) = delete;
  rename_guard &operator=(const rename_guard &) = delete;
  // The one in the directory that is further up which the other directory lies below; or null.
  const struct dentry *trap() const { return trap_; }

 private:
  struct dentry *dir1_;
  struct dentry *dir2_;
  const struct dentry *trap_;
};

int rename_below(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                 struct dentry *new_dentry) {
  // What is mounted below, a second time or another file system, is part of the upper tree; the VFS
  // has compared the upper mounts alone.
  if (tarn_lower_mnt(old_dentry->d_parent) != tarn_lower_mnt(new_dentry->d_parent)) return -EXDEV;
  dentry_ref lower_old_dir(dget(tarn_lower_dentry(old_dentry->d_parent)));
  dentry_ref lower_new_dir(dget(tarn_lower_dentry(new_dentry->d_parent)));
  if (lower_old_dir.get() != lower_new_dir.get() &&
      lower_old_dir->d_inode == lower_new_dir->d_inode)
    return stale_name(new_dentry);  // one lock twice
  rename_guard guard(lower_old_dir.get(), lower_new_dir.get());
  found_name lower_old(lower_name(lower_old_dir.get(), old_dentry));
  if (lower_old.error()) return lower_old.error();
  found_name lower_new(lower_name(lower_new_dir.get(), new_dentry));
  if (lower_new.error()) return lower_new.error();
  // The VFS has made these tests on the upper dentries, which may be elsewhere.
  if (lower_old.get() == guard.trap()) return -EINVAL;
  if (lower_new.get() == guard.trap()) return -ENOTEMPTY;
  const int mode = lower_old.get()->d_inode ? int{lower_old.get()->d_inode->i_mode} : 0;

  tarn_name_change change(lower_old.get());
  const int rc =
      vfs_rename(lower_old_dir->d_inode, lower_old.get(), lower_new_dir->d_inode, lower_new.get());
  if (rc) return rc;
  // Both places, whatever has them by now.
  tarn_record_path old_path(lower_old_dir.get(), tarn_lower_mnt(old_dentry), &old_dentry->d_name);
  tarn_record_path new_path(lower_new_dir.get(), tarn_lower_mnt(new_dentry), &new_dentry->d_name);
  tarn_names_sync(OX_OP_RENAME, old_path, &new_path, mode, &change);
  tarn_copy_attr_all(new_dir, lower_new_dir->d_inode);
  if (old_dir != new_dir) tarn_copy_attr_all(old_dir, lower_old_dir->d_inode);
  return 0;
}

}  // namespace

int tarn_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                struct dentry *new_dentry) {
  tarn_lower_path path(old_dentry);
  // A path that cannot be had is not tested.
  if (path && dir_refuses_rename(path.get())) return -EACCES;
  return rename_below(old_dir, old_dentry, new_dir, new_dentry);
}
