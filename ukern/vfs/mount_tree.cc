// SPDX-License-Identifier: GPL-2.0
// The mount tree: references on mounts, finding the mount on a dentry, attaching and detaching.
//
// Changes of the tree hold namespace_sem for writing, and vfsmount_lock for each step that a lookup
// must not see half done.

#include "ukern/vfs/mount_internal.h"

#include <linux/hash.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

static const unsigned kHashBits = 10;
static const unsigned kHashSize = 1u << kHashBits;
static const unsigned kAlign = 16;  // of addresses: the low bits are constant

DEFINE_SPINLOCK(vfsmount_lock);
struct rw_semaphore namespace_sem;
struct namespace_ *ukern_namespace;
LIST_HEAD(ukern_all_mounts);

static struct list_head hashtable[kHashSize];
static struct kmem_cache *mnt_cache;

int mnt_init(void) {
  for (unsigned i = 0; i < kHashSize; i++) INIT_LIST_HEAD(&hashtable[i]);
  init_rwsem(&namespace_sem);
  INIT_LIST_HEAD(&ukern_all_mounts);
  mnt_cache = kmem_cache_create("mnt_cache", sizeof(struct vfsmount), 0, 0, nullptr, nullptr);
  return mnt_cache ? 0 : -ENOMEM;
}

void mnt_exit(void) {
  kmem_cache_destroy(mnt_cache);
  mnt_cache = nullptr;
}

static struct list_head *hash_chain(struct vfsmount *mnt, struct dentry *dentry) {
  const unsigned long both =
      (reinterpret_cast<unsigned long>(mnt) + reinterpret_cast<unsigned long>(dentry)) / kAlign;
  return &hashtable[hash_long(both, kHashBits)];
}

struct vfsmount *alloc_vfsmnt(const char *name) {
  auto *mnt = static_cast<struct vfsmount *>(kmem_cache_alloc(mnt_cache, GFP_KERNEL));

  if (!mnt) return nullptr;
  memset(mnt, 0, sizeof(*mnt));
  atomic_set(&mnt->mnt_count, 1);
  INIT_LIST_HEAD(&mnt->mnt_hash);
  INIT_LIST_HEAD(&mnt->mnt_child);
  INIT_LIST_HEAD(&mnt->mnt_mounts);
  INIT_LIST_HEAD(&mnt->mnt_list);
  ukern_vfsmount_ref(mnt, 1);
  // Without memory for the name "none" is shown.
  if (name) mnt->mnt_devname = kstrdup(name, GFP_KERNEL);
  SpinGuard guard(vfsmount_lock);
  list_add_tail(&mnt->mnt_all, &ukern_all_mounts);
  return mnt;
}

void free_vfsmnt(struct vfsmount *mnt) {
  {
    SpinGuard guard(vfsmount_lock);
    list_del(&mnt->mnt_all);
  }
  ukern_vfsmount_forget(mnt);
  kfree(mnt->mnt_devname);
  kmem_cache_free(mnt_cache, mnt);
}

void mntput_no_expire(struct vfsmount *mnt) {
  struct super_block *sb = mnt->mnt_sb;

  ukern_vfsmount_ref(mnt, -1);
  BUG_ON(atomic_read(&mnt->mnt_count) <= 0);
  if (!atomic_dec_and_lock(&mnt->mnt_count, &vfsmount_lock)) return;
  spin_unlock(&vfsmount_lock);  // hand-over: from atomic_dec_and_lock
  dput(mnt->mnt_root);
  free_vfsmnt(mnt);
  deactivate_super(sb);
}

struct vfsmount *__lookup_mnt(struct vfsmount *mnt, struct dentry *dentry) {
  struct vfsmount *child;
  list_for_each_entry(child, hash_chain(mnt, dentry), mnt_hash) {
    if (child->mnt_parent == mnt && child->mnt_mountpoint == dentry) return child;
  }
  return nullptr;
}

struct vfsmount *lookup_mnt(struct vfsmount *mnt, struct dentry *dentry) {
  SpinGuard guard(vfsmount_lock);
  return mntget(__lookup_mnt(mnt, dentry));
}

bool mnt_is_attached(struct vfsmount *mnt) {
  return mnt->mnt_namespace && mnt->mnt_namespace == ukern_namespace;
}

// Attaches a mount to (nd->mnt, nd->dentry), on which it takes references. The mount's own
// reference becomes the tree's.
static void attach(struct vfsmount *mnt, struct nameidata *nd) {
  SpinGuard guard(vfsmount_lock);
  mnt->mnt_parent = mntget(nd->mnt);
  mnt->mnt_mountpoint = dget(nd->dentry);
  stat_add(&nd->dentry->d_mounted, 1);
  mnt->mnt_namespace = ukern_namespace;
  list_add_tail(&mnt->mnt_list, &ukern_namespace->list);
  list_add_tail(&mnt->mnt_hash, hash_chain(nd->mnt, nd->dentry));
  list_add_tail(&mnt->mnt_child, &nd->mnt->mnt_mounts);
  ukern_namespace->event++;
}

int graft_tree(struct vfsmount *mnt, struct nameidata *nd) {
  struct inode *dir = nd->dentry->d_inode;
  int err = -ENOENT;

  if (mnt->mnt_sb->s_flags & MS_NOUSER) return -EINVAL;
  if (S_ISDIR(dir->i_mode) != S_ISDIR(mnt->mnt_root->d_inode->i_mode)) return -ENOTDIR;

  MutexGuard guard(dir->i_mutex);
  if (!IS_DEADDIR(dir) && (IS_ROOT(nd->dentry) || !d_unhashed(nd->dentry))) {
    attach(mnt, nd);
    err = 0;
  }
  return err;
}

struct vfsmount *next_mnt(struct vfsmount *at, struct vfsmount *root) {
  if (!list_empty(&at->mnt_mounts))
    return list_entry(at->mnt_mounts.next, struct vfsmount, mnt_child);
  while (at != root) {
    struct list_head *next = at->mnt_child.next;
    if (next != &at->mnt_parent->mnt_mounts) return list_entry(next, struct vfsmount, mnt_child);
    at = at->mnt_parent;
  }
  return nullptr;
}

void umount_tree(struct vfsmount *mnt, struct list_head *kill) {
  struct vfsmount *at;

  for (at = mnt; at; at = next_mnt(at, mnt)) list_move_tail(&at->mnt_hash, kill);
  list_for_each_entry(at, kill, mnt_hash) {
    list_del_init(&at->mnt_list);
    list_del_init(&at->mnt_child);
    at->mnt_namespace = nullptr;
    if (at->mnt_parent != at) stat_add(&at->mnt_mountpoint->d_mounted, -1);
  }
  ukern_namespace->event++;
}

void release_mounts(struct list_head *kill) {
  while (!list_empty(kill)) {
    struct vfsmount *mnt = list_entry(kill->next, struct vfsmount, mnt_hash);
    struct vfsmount *parent = nullptr;
    struct dentry *mountpoint = nullptr;

    list_del_init(&mnt->mnt_hash);
    {
      SpinGuard guard(vfsmount_lock);
      if (mnt->mnt_parent != mnt) {
        parent = mnt->mnt_parent;
        mountpoint = mnt->mnt_mountpoint;
        mnt->mnt_parent = mnt;
        mnt->mnt_mountpoint = mnt->mnt_root;
      }
    }
    dput(mountpoint);
    mntput(parent);
    mntput(mnt);
  }
}

bool mnt_is_busy(struct vfsmount *mnt, int expected) {
  return !list_empty(&mnt->mnt_mounts) || atomic_read(&mnt->mnt_count) > expected;
}

int may_umount(struct vfsmount *mnt) {
  SpinGuard guard(vfsmount_lock);
  return !mnt_is_busy(mnt, 2);
}

// Replaces a task's root or working directory.
static void replace_path(struct fs_struct *fs, struct vfsmount **mnt, struct dentry **dentry,
                         struct vfsmount *new_mnt, struct dentry *new_dentry) {
  struct dentry *old_dentry;
  struct vfsmount *old_mnt;
  {
    WriteGuard guard(fs->lock);
    old_dentry = *dentry;
    old_mnt = *mnt;
    *mnt = mntget(new_mnt);
    *dentry = dget(new_dentry);
  }
  dput(old_dentry);
  mntput(old_mnt);
}

void set_fs_root(struct fs_struct *fs, struct vfsmount *mnt, struct dentry *dentry) {
  replace_path(fs, &fs->rootmnt, &fs->root, mnt, dentry);
}

void set_fs_pwd(struct fs_struct *fs, struct vfsmount *mnt, struct dentry *dentry) {
  replace_path(fs, &fs->pwdmnt, &fs->pwd, mnt, dentry);
}

int ukern_namespace_start(struct vfsmount *root) {
  struct namespace_ *ns = static_cast<struct namespace_ *>(kzalloc(sizeof(*ns), GFP_KERNEL));

  if (!ns) return -ENOMEM;
  atomic_set(&ns->count, 1);
  INIT_LIST_HEAD(&ns->list);
  ns->root = root;
  root->mnt_namespace = ns;
  list_add(&root->mnt_list, &ns->list);
  ukern_namespace = ns;
  return 0;
}

void ukern_namespace_stop(void) {
  LIST_HEAD(kill);

  if (!ukern_namespace) return;
  {
    ExclusiveGuard guard(namespace_sem);
    SpinGuard tree_guard(vfsmount_lock);
    umount_tree(ukern_namespace->root, &kill);
  }
  kfree(ukern_namespace);
  ukern_namespace = nullptr;
  release_mounts(&kill);
}
