// SPDX-License-Identifier: GPL-2.0
// Super blocks: allocation, lookup, references and shutdown, and their anonymous devices.
//
// s_count references the memory; all active references together count as S_BIAS of it. s_active
// counts the mounts. s_umount is held for writing while a super block is filled in and while it is
// shut down.

#include "ukern/vfs/super_internal.h"

#include <linux/bitops.h>
#include <linux/module.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/writeback.h>

#include "ukern/sync/guard.h"
#include "ukern/sync/lockcheck.h"

LIST_HEAD(super_blocks);
DEFINE_SPINLOCK(sb_lock);

static const unsigned long kMinors = 1ul << MINORBITS;
static DEFINE_SPINLOCK(minors_lock);
static unsigned long minors[kMinors / BITS_PER_LONG];  // bit n: anonymous device n is in use

int super_init(void) {
  INIT_LIST_HEAD(&super_blocks);
  memset(minors, 0, sizeof(minors));
  return 0;
}

void super_exit(void) {
  super_report_busy();
}

static struct super_block *alloc_super(struct file_system_type *type) {
  static struct super_operations no_ops = {};
  struct super_block *s = static_cast<struct super_block *>(kzalloc(sizeof(*s), GFP_KERNEL));

  if (!s) return nullptr;
  UKERN_LOCK_DEPTH(mount_depth());
  INIT_LIST_HEAD(&s->s_list);
  INIT_LIST_HEAD(&s->s_inodes);
  INIT_LIST_HEAD(&s->s_dirty);
  INIT_LIST_HEAD(&s->s_io);
  INIT_LIST_HEAD(&s->s_files);
  INIT_LIST_HEAD(&s->s_instances);
  init_rwsem(&s->s_umount);
  lockdep_set_class(&s->s_umount, &type->s_umount_key);
  mutex_init(&s->s_lock);
  lockdep_set_class(&s->s_lock, &type->s_lock_key);
  mutex_init(&s->s_vfs_rename_mutex);
  note_super_depth(s);
  init_waitqueue_head(&s->s_wait_unfrozen);
  s->s_count = S_BIAS;
  atomic_set(&s->s_active, 1);
  s->s_maxbytes = MAX_NON_LFS;
  s->s_op = &no_ops;
  s->s_time_gran = 1000000000;
  ukern_super_ref(s, 1);
  down_write(&s->s_umount);
  return s;
}

static void destroy_super(struct super_block *s) {
  ukern_super_forget(s);
  kfree(s);
}

int __put_super(struct super_block *sb) {
  if (--sb->s_count) return 0;
  destroy_super(sb);
  return 1;
}

int __put_super_and_need_restart(struct super_block *sb) {
  if (list_empty(&sb->s_list)) {
    __put_super(sb);
    return 1;
  }
  sb->s_count--;
  BUG_ON(sb->s_count == 0);
  return 0;
}

static void put_super(struct super_block *sb) {
  SpinGuard guard(sb_lock);
  __put_super(sb);
}

void deactivate_super(struct super_block *s) {
  struct file_system_type *fs = s->s_type;

  ukern_super_ref(s, -1);
  BUG_ON(atomic_read(&s->s_active) <= 0);
  if (!atomic_dec_and_lock(&s->s_active, &sb_lock)) return;
  s->s_count -= S_BIAS - 1;
  spin_unlock(&sb_lock);  // hand-over: from atomic_dec_and_lock
  down_write(&s->s_umount);
  fs->kill_sb(s);
  put_filesystem(fs);
  put_super(s);
}

// Turns an s_count reference into an active one; false if the super block is being shut down.
// s_umount is held for writing.
static bool activate(struct super_block *s) {
  if (!s->s_root) return false;
  SpinGuard guard(sb_lock);
  if (s->s_count <= S_BIAS) return false;
  atomic_inc(&s->s_active);
  ukern_super_ref(s, 1);
  s->s_count--;
  return true;
}

// Takes an active reference and s_umount for writing; false if the super block was being shut down.
// Consumes an s_count reference.
static bool grab_super(struct super_block *s) {
  down_write(&s->s_umount);
  if (activate(s)) return true;
  up_write(&s->s_umount);  // hand-over: else to the caller
  put_super(s);
  yield();
  return false;
}

static void discard_new_super(struct super_block *s) {
  up_write(&s->s_umount);  // hand-over: from alloc_super
  destroy_super(s);
}

static struct super_block *find_super_locked(struct file_system_type *type,
                                             int (*test)(struct super_block *, void *),
                                             void *data) {
  struct super_block *s;
  if (!test) return nullptr;
  list_for_each_entry(s, &type->fs_supers, s_instances) {
    if (test(s, data)) return s;
  }
  return nullptr;
}

static int register_super_locked(struct super_block *fresh, struct file_system_type *type,
                                 int (*set)(struct super_block *, void *), void *data) {
  const int err = set(fresh, data);
  if (err) return err;
  fresh->s_type = type;
  strlcpy(fresh->s_id, type->name, sizeof(fresh->s_id));
  list_add_tail(&fresh->s_list, &super_blocks);
  list_add(&fresh->s_instances, &type->fs_supers);
  return 0;
}

struct super_block *sget(struct file_system_type *type, int (*test)(struct super_block *, void *),
                         int (*set)(struct super_block *, void *), void *data) {
  struct super_block *fresh = nullptr;

  for (;;) {
    struct super_block *old;
    int err = 0;
    {
      SpinGuard guard(sb_lock);
      old = find_super_locked(type, test, data);
      if (old && !fresh) old->s_count++;
      if (!old && fresh) err = register_super_locked(fresh, type, set, data);
    }
    if (!old && !fresh) {
      fresh = alloc_super(type);
      if (!fresh) return static_cast<struct super_block *>(ERR_PTR(-ENOMEM));
    } else if (!fresh) {
      if (grab_super(old)) return old;
    } else if (old || err) {
      // Frees the spare one first: its s_umount, which is held, is of the class that is about to be
      // taken.
      discard_new_super(fresh);
      fresh = nullptr;
      if (err) return static_cast<struct super_block *>(ERR_PTR(err));
    } else {
      get_filesystem(type);
      return fresh;
    }
  }
}

// The lowest free minor, or kMinors. minors_lock is held.
static unsigned long free_minor_locked(void) {
  for (unsigned long word = 0; word < kMinors / BITS_PER_LONG; word++) {
    if (~minors[word])
      return word * BITS_PER_LONG + static_cast<unsigned>(__builtin_ctzl(~minors[word]));
  }
  return kMinors;
}

int set_anon_super(struct super_block *s, void *) {
  SpinGuard guard(minors_lock);
  const unsigned long minor = free_minor_locked();
  if (minor >= kMinors) return -EMFILE;
  __set_bit(minor, minors);
  s->s_dev = MKDEV(0, static_cast<dev_t>(minor));
  return 0;
}

// Frees all dentries and inodes of a super block that has a root, and reports those in use.
static void evict_super(struct super_block *sb) {
  struct super_operations *op = sb->s_op;
  struct dentry *root = sb->s_root;

  sb->s_root = nullptr;
  shrink_dcache_parent(root);
  shrink_dcache_sb(sb);
  dcache_report_busy(root, 1);
  dput(root);
  fsync_super(sb);

  MutexGuard guard(sb->s_lock);
  sb->s_flags &= ~static_cast<unsigned long>(MS_ACTIVE);
  invalidate_inodes(sb);
  if (op->write_super && sb->s_dirt) op->write_super(sb);
  if (op->put_super) op->put_super(sb);
  if (invalidate_inodes(sb)) {
    printk(
        "VFS: Busy inodes after unmount of %s. Self-destruct in 5 seconds.  Have a nice day...\n",
        sb->s_id);
    inode_report_busy(sb);
  }
}

void generic_shutdown_super(struct super_block *sb) {
  if (sb->s_root) evict_super(sb);
  {
    SpinGuard guard(sb_lock);
    list_del_init(&sb->s_list);
    list_del_init(&sb->s_instances);
  }
  up_write(&sb->s_umount);  // hand-over: from deactivate_super
}

void kill_anon_super(struct super_block *sb) {
  const unsigned long minor = MINOR(sb->s_dev);
  generic_shutdown_super(sb);
  SpinGuard guard(minors_lock);
  __clear_bit(minor, minors);
}

void kill_litter_super(struct super_block *sb) {
  if (sb->s_root) d_genocide(sb->s_root);
  kill_anon_super(sb);
}

int simple_set_mnt(struct vfsmount *mnt, struct super_block *sb) {
  mnt->mnt_sb = sb;
  mnt->mnt_root = dget(sb->s_root);
  return 0;
}

static int fill_new_super(struct super_block *s, int flags, void *data,
                          int (*fill_super)(struct super_block *, void *, int)) {
  int err;

  s->s_flags = static_cast<unsigned long>(static_cast<unsigned>(flags));
  err = fill_super(s, data, flags & MS_SILENT ? 1 : 0);
  if (err) {
    up_write(&s->s_umount);  // hand-over: from sget
    deactivate_super(s);
    return err;
  }
  s->s_flags |= MS_ACTIVE;
  return 0;
}

int get_sb_nodev(struct file_system_type *fs_type, int flags, void *data,
                 int (*fill_super)(struct super_block *, void *, int), struct vfsmount *mnt) {
  struct super_block *s = sget(fs_type, nullptr, set_anon_super, nullptr);
  int err;

  if (IS_ERR(s)) return static_cast<int>(PTR_ERR(s));
  err = fill_new_super(s, flags, data, fill_super);
  return err ? err : simple_set_mnt(mnt, s);
}

static int any_super(struct super_block *, void *) {
  return 1;
}

int get_sb_single(struct file_system_type *fs_type, int flags, void *data,
                  int (*fill_super)(struct super_block *, void *, int), struct vfsmount *mnt) {
  struct super_block *s = sget(fs_type, any_super, set_anon_super, nullptr);
  int err;

  if (IS_ERR(s)) return static_cast<int>(PTR_ERR(s));
  if (!s->s_root) {
    err = fill_new_super(s, flags, data, fill_super);
    if (err) return err;
  }
  do_remount_sb(s, flags, data, 0);
  return simple_set_mnt(mnt, s);
}

struct vfsmount *vfs_kern_mount(struct file_system_type *type, int flags, const char *name,
                                void *data) {
  struct vfsmount *mnt;
  int err;

  if (!type) return static_cast<struct vfsmount *>(ERR_PTR(-ENODEV));
  mnt = alloc_vfsmnt(name);
  if (!mnt) return static_cast<struct vfsmount *>(ERR_PTR(-ENOMEM));
  err = get_sb_at_depth(type, flags, name, data, mnt);
  if (err < 0) {
    free_vfsmnt(mnt);
    return static_cast<struct vfsmount *>(ERR_PTR(err));
  }
  mnt->mnt_mountpoint = mnt->mnt_root;
  mnt->mnt_parent = mnt;
  up_write(&mnt->mnt_sb->s_umount);  // hand-over: from sget
  return mnt;
}

struct vfsmount *do_kern_mount(const char *fstype, int flags, const char *name, void *data) {
  struct file_system_type *type = get_fs_type(fstype);
  struct vfsmount *mnt;

  if (!type) return static_cast<struct vfsmount *>(ERR_PTR(-ENODEV));
  mnt = vfs_kern_mount(type, flags, name, data);
  put_filesystem(type);
  return mnt;
}

struct vfsmount *kern_mount(struct file_system_type *type) {
  return vfs_kern_mount(type, 0, type->name, nullptr);
}
