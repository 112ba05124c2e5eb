// SPDX-License-Identifier: GPL-2.0
// The inode operations: looking names up, and the calls that change names and attributes. Each
// performs the same operation below, binds or refreshes the upper
// objects, and hands the change to capture. Names change under exactly one lower lock, the lower
// directory's i_mutex (both directories' for a rename), which is held across the capture as well.

#include "tarn.h"
#include "dir.h"
#include "ox_guard.h"
#include "trans.h"

namespace {

typedef ox_owner<struct dentry, dput> dentry_ref;

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

// What a lower directory, whose i_mutex is held, has under the name of an upper dentry.
struct dentry *look_up_below(struct dentry *lower_dir, const struct dentry *dentry) {
  return lookup_one_len(reinterpret_cast<const char *>(dentry->d_name.name), lower_dir,
                        static_cast<int>(dentry->d_name.len));
}

// What an upper dentry stands for in its lower directory, whose i_mutex is held: a lower dentry
// with a reference, or an error pointer. -ESTALE: it is not what it was, and the dentry is dropped;
// -EBUSY: something is mounted there below.
struct dentry *lower_name(struct dentry *lower_dir, struct dentry *dentry) {
  struct dentry *found = look_up_below(lower_dir, dentry);
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

void tarn_copy_attr_times(struct inode *inode, const struct inode *lower) {
  inode->i_atime = lower->i_atime;
  inode->i_mtime = lower->i_mtime;
  inode->i_ctime = lower->i_ctime;
}

void tarn_copy_attr_times_and_size(struct inode *inode, struct inode *lower) {
  tarn_copy_attr_times(inode, lower);
  i_size_write(inode, i_size_read(lower));
  inode->i_blocks = lower->i_blocks;
}

void tarn_copy_attr_all(struct inode *inode, const struct inode *lower) {
  inode->i_mode = lower->i_mode;
  inode->i_uid = lower->i_uid;
  inode->i_gid = lower->i_gid;
  inode->i_rdev = lower->i_rdev;
  tarn_copy_attr_times(inode, lower);
  inode->i_blkbits = lower->i_blkbits;
  inode->i_flags = lower->i_flags;
  inode->i_nlink = lower->i_nlink;
}

namespace {

// A lower file that is held against writing (a running program) would refuse its read-write open as
// busy.
void allow_lower_writes(struct dentry *lower_dentry) {
  struct inode *lower = lower_dentry->d_inode;
  if (S_ISDIR(lower->i_mode) || S_ISLNK(lower->i_mode) || special_file(lower->i_mode)) return;
  spin_guard guard(lower->i_lock);
  const int count = atomic_read(&lower->i_writecount);
  if (count >= 0) return;
  printk("tarn_lookup: %s's lower_inode->i_writecount=%d, adjust it\n", lower_dentry->d_name.name,
         count);
  atomic_set(&lower->i_writecount, 0);
}

// Gives `dentry` its record, which takes over both references of the lower path.
int bind_dentry(struct dentry *dentry, struct dentry *lower_dentry, struct vfsmount *lower_mnt) {
  auto *info =
      static_cast<struct tarn_dentry_info *>(kmem_cache_alloc(tarn_dentry_info_cache, GFP_KERNEL));
  if (!info) {
    dput(lower_dentry);
    mntput(lower_mnt);
    return -ENOMEM;
  }
  info->lower_path.dentry = lower_dentry;
  info->lower_path.mnt = lower_mnt;
  info->former = nullptr;
  dentry->d_fsdata = info;
  return 0;
}

// A dentry whose record has been stored gives its lower path back when it is released, also after
// an error.
struct dentry *tarn_lookup(struct inode *dir, struct dentry *dentry, struct nameidata *) {
  dentry->d_op = &tarn_dops;
  struct dentry *lower_parent = tarn_lower_dentry(dentry->d_parent);
  struct dentry *lower_dentry;
  {
    // Without it, two at once would have two lower dentries of one name.
    mutex_guard guard(lower_parent->d_inode->i_mutex, I_MUTEX_PARENT);
    lower_dentry = look_up_below(lower_parent, dentry);
  }
  if (IS_ERR(lower_dentry)) {
    d_drop(dentry);
    return lower_dentry;
  }
  struct vfsmount *lower_mnt = mntget(tarn_lower_mnt(dentry->d_parent));
  while (d_mountpoint(lower_dentry) && follow_down(&lower_mnt, &lower_dentry)) {
  }
  dir->i_atime = lower_parent->d_inode->i_atime;

  int rc = bind_dentry(dentry, lower_dentry, lower_mnt);
  if (!rc && !lower_dentry->d_inode) {
    d_instantiate(dentry, nullptr);
    d_rehash(dentry);
    return nullptr;
  }
  struct dentry *alias = nullptr;
  if (!rc) rc = tarn_interpose(lower_dentry, dentry, dir->i_sb, TARN_SPLICE, &alias);
  if (rc) {
    d_drop(dentry);
    return static_cast<struct dentry *>(ERR_PTR(rc));
  }
  allow_lower_writes(lower_dentry);
  return alias;
}

int tarn_permission(struct inode *inode, int mask, struct nameidata *nd) {
  if (!nd) return permission(tarn_lower_inode(inode), mask, nullptr);
  tarn_lower_nd lend(nd, tarn_lower_dentry(nd->dentry), tarn_lower_mnt(nd->dentry));
  return permission(tarn_lower_inode(inode), mask, nd);
}

int tarn_getattr(struct vfsmount *, struct dentry *dentry, struct kstat *stat) {
  return vfs_getattr(tarn_lower_mnt(dentry), tarn_lower_dentry(dentry), stat);
}

// ------------------------------------------------------------------------------------------- names

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

int tarn_mkdir(struct inode *dir, struct dentry *dentry, int mode) {
  const int rc = mkdir_below(dir, dentry, mode);
  drop_if_negative(dentry);
  return rc;
}

int mknod_below(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  locked_lower_name lower(dentry);
  int rc = lower.error_to_make(dentry);
  if (!rc) rc = vfs_mknod(lower.inode(), tarn_lower_dentry(dentry), mode, dev);
  if (bind_created(dir, dentry, &rc)) tarn_copy_attr_times_and_size(dir, lower.inode());
  return rc;
}

// Device nodes, FIFOs and sockets are not captured.
int tarn_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  const int rc = mknod_below(dir, dentry, mode, dev);
  drop_if_negative(dentry);
  return rc;
}

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

int tarn_symlink(struct inode *dir, struct dentry *dentry, const char *symname) {
  const int rc = symlink_below(dir, dentry, symname);
  drop_if_negative(dentry);
  return rc;
}

int link_below(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  const loff_t size = i_size_read(old_dentry->d_inode);
  dentry_ref lower_old(dget(tarn_lower_dentry(old_dentry)));
  dentry_ref lower_new(dget(tarn_lower_dentry(new_dentry)));
  dentry_ref old_name(tarn_hold_name(old_dentry));
  if (tarn_lower_mnt(old_dentry) != tarn_lower_mnt(new_dentry->d_parent)) return -EXDEV;
  locked_lower_name lower(new_dentry);
  int rc = lower.error_to_make(new_dentry);
  if (rc) return rc;
  tarn_name_change change(lower_new.get());
  rc = vfs_link(lower_old.get(), lower.inode(), lower_new.get());
  if (!bind_created(dir, new_dentry, &rc)) return rc;
  tarn_copy_attr_times_and_size(dir, lower.inode());
  struct inode *old_inode = old_dentry->d_inode;
  old_inode->i_nlink = tarn_lower_inode(old_inode)->i_nlink;
  i_size_write(new_dentry->d_inode, size);
  tarn_sync_2dentry(OX_OP_LINK, old_dentry, new_dentry, &change);
  return rc;
}

// Whatever the result, the next access through either name looks both up again.
int tarn_link(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry) {
  const int rc = link_below(old_dentry, dir, new_dentry);
  d_drop(tarn_lower_dentry(old_dentry));
  d_drop(new_dentry);
  d_drop(old_dentry);
  return rc;
}

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

int tarn_unlink(struct inode *dir, struct dentry *dentry) {
  const int rc = unlink_below(dir, dentry);
  if (rc && rc != -ESTALE && d_unhashed(dentry)) d_rehash(dentry);
  return rc;
}

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

int tarn_rmdir(struct inode *dir, struct dentry *dentry) {
  dentry_ref held(dget(dentry));
  const int rc = rmdir_below(dir, dentry);
  if (!rc) d_drop(dentry);
  return rc;
}

// ------------------------------------------------------------------------------------------ rename

// True if a replicated directory's name is how `path` begins; a separator need not follow.
bool in_replicated_directory(const char *path) {
  struct dir_set *set = get_dir_set();
  read_guard guard(set->rwlock);
  for (struct list_head *p = ox_first(&set->head); p != &set->head; p = p->next) {
    const struct dir_node *node = list_entry(p, struct dir_node, list);
    if (!strncmp(path, node->dir.repdir, strnlen(node->dir.repdir, sizeof(node->dir.repdir))))
      return true;
  }
  return false;
}

// The calling task's program as a dentry and the mount it was reached by, with a reference on each.
class task_program {
 public:
  task_program() {
    struct mm_struct *mm = get_task_mm(current);
    if (!mm) return;
    down_read(&mm->mmap_sem);
    for (struct vm_area_struct *vma = mm->mmap; vma; vma = vma->vm_next) {
      if ((vma->vm_flags & VM_EXECUTABLE) && vma->vm_file) {
        mnt_ = mntget(vma->vm_file->f_vfsmnt);
        dentry_ = dget(vma->vm_file->f_dentry);
        break;
      }
    }
    up_read(&mm->mmap_sem);
    mmput(mm);
  }
  ~task_program() {
    if (dentry_) dput(dentry_);
    if (mnt_) mntput(mnt_);
  }
  task_program(const task_program &) = delete;
  task_program &operator=(const task_program &) = delete;

  // Its path from the root of the name space; false when that does not fit. Empty for a kernel
  // thread.
  template <size_t N>
  bool path(char (&text)[N]) const {
    char scratch[N];
    memset(text, 0, N);
    memset(scratch, 0, N);
    spin_guard guard(dcache_lock);  // the names and parents on the way stay as they are
    struct dentry *dentry = dentry_;
    struct vfsmount *mnt = mnt_;
    while (dentry && mnt) {
      if (dentry != mnt->mnt_root && dentry != dentry->d_parent) {
        const unsigned char *name = dentry->d_name.name;
        if (!name) break;
        if (snprintf(scratch, N, "/%s%s", name, text) >= static_cast<int>(N)) return false;
        strcpy(text, scratch);
        dentry = dentry->d_parent;
      } else {
        if (mnt->mnt_parent == mnt) break;
        dentry = mnt->mnt_mountpoint;
        mnt = mnt->mnt_parent;
      }
    }
    return true;
  }

 private:
  struct dentry *dentry_ = nullptr;
  struct vfsmount *mnt_ = nullptr;
};

// Whether it is the daemon's path, which somebody may be setting meanwhile.
bool is_daemon_path(const char *program) {
  for (const char &byte : mirrord_full_name) {
    if (ox_load(byte) != *program) return false;
    if (!*program++) return true;
  }
  return false;
}

bool current_is_daemon() {
  char program[128];
  return task_program().path(program) && is_daemon_path(program);
}

// What lies in a replicated directory is moved by the daemon alone. A path that cannot be had is
// not tested.
bool rename_is_refused(struct dentry *old_dentry) {
  tarn_lower_path path(old_dentry);
  if (!path || !in_replicated_directory(path.get()) || current_is_daemon()) return false;
  printk("tarn_rename:block %s\n", path.get());
  return true;
}

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

int tarn_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                struct dentry *new_dentry) {
  if (rename_is_refused(old_dentry)) return -EACCES;
  return rename_below(old_dir, old_dentry, new_dir, new_dentry);
}

// -------------------------------------------------------------------------------------- attributes

// The upper mapping follows a shrinking file, and one that grows past what the upper super block
// would allow.
int truncate_upper(struct inode *inode, const struct iattr *ia) {
  if (!(ia->ia_valid & ATTR_SIZE)) return 0;
  const loff_t size = i_size_read(inode);
  const struct super_block *sb = inode->i_sb;
  const bool shrinks = ia->ia_size < size;
  const bool may_not_fit = ia->ia_size > size && sb->s_maxbytes < tarn_lower_sb(sb)->s_maxbytes;
  return shrinks || may_not_fit ? vmtruncate(inode, ia->ia_size) : 0;
}

// Changes the lower object and captures the change, also one that was refused. The lower file
// system sees its own file in the record; capture sees the record as the lower call left it.
int setattr_below(struct dentry *dentry, struct iattr *ia) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  dentry_ref name(tarn_hold_name(dentry));
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  struct file *file = ia->ia_valid & ATTR_FILE ? ia->ia_file : nullptr;
  if (file) ia->ia_file = tarn_lower_file(file);
  const int rc = notify_change(lower_dentry, ia);
  if (file) ia->ia_file = file;
  tarn_attr_sync(dentry, ia);
  if (!rc) tarn_mode_sync(dentry, ia->ia_valid & ATTR_MODE ? ia->ia_mode : mode);
  return rc;
}

int tarn_setattr(struct dentry *dentry, struct iattr *ia) {
  struct inode *inode = dentry->d_inode;
  struct inode *lower = tarn_lower_inode(inode);
  int rc = inode_change_ok(lower, ia);
  if (!rc) rc = truncate_upper(inode, ia);
  if (!rc) rc = setattr_below(dentry, ia);
  if (rc) return rc;

  tarn_copy_attr_all(inode, lower);
  if (ia->ia_valid & ATTR_MTIME_SET) inode->i_mtime = lower->i_mtime;
  if (ia->ia_valid & ATTR_CTIME) inode->i_ctime = lower->i_ctime;
  if (ia->ia_valid & ATTR_ATIME_SET) inode->i_atime = lower->i_atime;
  i_size_write(inode, i_size_read(lower));
  inode->i_blocks = lower->i_blocks;
  return 0;
}

// Extended attributes pass through under the lower object's lock and are not captured, but for the
// mode that one may change.

int tarn_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                  int flags) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->setxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  const int rc = lower->i_op->setxattr(lower_dentry, name, value, size, flags);
  tarn_mode_sync(dentry, mode);  // an access list has the mode in it
  return rc;
}

}  // namespace

ssize_t tarn_getxattr_lower(struct dentry *lower_dentry, const char *name, void *value,
                            size_t size) {
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->getxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  return lower->i_op->getxattr(lower_dentry, name, value, size);
}

namespace {

ssize_t tarn_getxattr(struct dentry *dentry, const char *name, void *value, size_t size) {
  return tarn_getxattr_lower(tarn_lower_dentry(dentry), name, value, size);
}

ssize_t tarn_listxattr(struct dentry *dentry, char *list, size_t size) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->listxattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  return lower->i_op->listxattr(lower_dentry, list, size);
}

int tarn_removexattr(struct dentry *dentry, const char *name) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op->removexattr) return -EOPNOTSUPP;
  mutex_guard guard(lower->i_mutex);
  const umode_t mode = lower->i_mode;
  const int rc = lower->i_op->removexattr(lower_dentry, name);
  tarn_mode_sync(dentry, mode);
  return rc;
}

// ---------------------------------------------------------------------------------- symbolic links

int tarn_readlink(struct dentry *dentry, char __user *buf, int bufsiz) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op || !lower->i_op->readlink) return -EINVAL;
  const int rc = lower->i_op->readlink(lower_dentry, buf, bufsiz);
  if (rc >= 0) dentry->d_inode->i_atime = lower->i_atime;
  return rc;
}

constexpr int link_text_size = 4096;

// The link's text with its zero byte, or an error pointer; the caller frees it.
char *link_text(struct dentry *dentry) {
  ox_owner<char, kfree> text(static_cast<char *>(kmalloc(link_text_size, GFP_KERNEL)));
  if (!text) return static_cast<char *>(ERR_PTR(-ENOMEM));
  int rc;
  {
    kernel_ds_guard kernel_ds;
    rc = dentry->d_inode->i_op->readlink(dentry, reinterpret_cast<char __user *>(text.get()),
                                         link_text_size);
  }
  if (rc >= link_text_size) rc = -ENAMETOOLONG;  // no room for the zero byte
  if (rc < 0) return static_cast<char *>(ERR_PTR(rc));
  text.get()[rc] = 0;
  return text.release();
}

// The walk owns the text until tarn_put_link. After an error pointer it ends without giving back
// where it stood.
void *tarn_follow_link(struct dentry *dentry, struct nameidata *nd) {
  char *text = link_text(dentry);
  if (IS_ERR(text)) {
    path_release(nd);
    return text;
  }
  nd_set_link(nd, text);
  return nullptr;
}

void tarn_put_link(struct dentry *, struct nameidata *nd, void *) {
  kfree(nd_get_link(nd));
}

}  // namespace

struct inode_operations tarn_dir_iops = {
    .create = tarn_create,
    .lookup = tarn_lookup,
    .link = tarn_link,
    .unlink = tarn_unlink,
    .symlink = tarn_symlink,
    .mkdir = tarn_mkdir,
    .rmdir = tarn_rmdir,
    .mknod = tarn_mknod,
    .rename = tarn_rename,
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};

struct inode_operations tarn_symlink_iops = {
    .readlink = tarn_readlink,
    .follow_link = tarn_follow_link,
    .put_link = tarn_put_link,
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};

struct inode_operations tarn_main_iops = {
    .permission = tarn_permission,
    .setattr = tarn_setattr,
    .getattr = tarn_getattr,
    .setxattr = tarn_setxattr,
    .getxattr = tarn_getxattr,
    .listxattr = tarn_listxattr,
    .removexattr = tarn_removexattr,
};
