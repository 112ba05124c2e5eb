// SPDX-License-Identifier: GPL-2.0
// Finding and freeing unused dentries: for memory, for an unmount, below a directory. And walks
// over a tree of dentries.
//
// dentry_kill drops dcache_lock, so a walk that frees a dentry restarts afterwards.

#include "ukern/vfs/dcache_internal.h"

#include <linux/rwsem.h>

#include "ukern/sync/guard.h"

LIST_HEAD(dentry_unused);

struct dentry *dentry_next_below(struct dentry *root, struct dentry *at) {
  if (!list_empty(&at->d_subdirs))
    return list_entry(at->d_subdirs.next, struct dentry, d_u.d_child);
  while (at != root) {
    struct list_head *next = at->d_u.d_child.next;
    if (next != &at->d_parent->d_subdirs) return list_entry(next, struct dentry, d_u.d_child);
    at = at->d_parent;
  }
  return nullptr;
}

// Frees the dentry and drops its parent's reference. Enters and leaves with dcache_lock held;
// releases it in between.
static void prune_one(struct dentry *dentry) {
  spin_lock(&dentry->d_lock);
  struct dentry *parent = dentry_kill(dentry);
  dput(parent);
  spin_lock(&dcache_lock);
}

// An unmount frees its super block's dentries itself, so others free them only with s_umount held.
static bool prune_foreign(struct dentry *dentry) {
  struct super_block *sb = dentry->d_sb;
  SharedTryGuard guard(sb->s_umount);
  if (!guard || !sb->s_root) return false;
  prune_one(dentry);
  return true;
}

void prune_dcache(int count) {
  SpinGuard guard(dcache_lock);
  for (; count > 0 && !list_empty(&dentry_unused); count--) {
    struct dentry *dentry = list_entry(dentry_unused.prev, struct dentry, d_lru);
    if (dentry->d_flags & DCACHE_REFERENCED) {
      // A second chance at the recently used end.
      ukern_dentry_flags(dentry, 0, DCACHE_REFERENCED);
      list_move(&dentry->d_lru, &dentry_unused);
    } else if (!prune_foreign(dentry)) {
      break;
    }
  }
}

void dcache_limit_now(void) {
  if (stat_read(&dentry_stat.nr_unused) > 2 * stat_read(&ukern_cache_limit) + 128)
    prune_dcache(2 * 128);
}

// Frees at most `count` unused dentries of this super block from the least recently used end, where
// the caller has gathered them. The caller keeps it from being unmounted. Enters and leaves with
// dcache_lock held.
static void prune_tail_locked(int count, struct super_block *sb) {
  for (; count > 0 && !list_empty(&dentry_unused); count--) {
    struct dentry *dentry = list_entry(dentry_unused.prev, struct dentry, d_lru);
    if (dentry->d_sb != sb) break;
    prune_one(dentry);
  }
}

// Both shrink functions repeat until they find nothing: freeing a dentry may leave its parent
// unused.

void shrink_dcache_sb(struct super_block *sb) {
  struct dentry *dentry, *next;
  int found;

  SpinGuard guard(dcache_lock);
  do {
    LIST_HEAD(mine);
    found = 0;
    list_for_each_entry_safe(dentry, next, &dentry_unused, d_lru) {
      if (dentry->d_sb != sb) continue;
      list_move_tail(&dentry->d_lru, &mine);
      found++;
    }
    list_splice(&mine, dentry_unused.prev);
    prune_tail_locked(found, sb);
  } while (found);
}

void shrink_dcache_parent(struct dentry *parent) {
  struct super_block *sb = parent->d_sb;
  int found;

  SpinGuard guard(dcache_lock);
  do {
    found = 0;
    for (struct dentry *at = parent; (at = dentry_next_below(parent, at)) != nullptr;) {
      if (atomic_read(&at->d_count)) continue;
      list_move_tail(&at->d_lru, &dentry_unused);
      found++;
    }
    prune_tail_locked(found, sb);
  } while (found);
}

void d_prune_aliases(struct inode *inode) {
  struct dentry *dentry;

  SpinGuard guard(dcache_lock);
again:
  list_for_each_entry(dentry, &inode->i_dentry, d_alias) {
    if (atomic_read(&dentry->d_count)) continue;
    prune_one(dentry);
    goto again;
  }
}

int d_invalidate(struct dentry *dentry) {
  SpinGuard guard(dcache_lock);
  if (d_unhashed(dentry)) return 0;
  if (!list_empty(&dentry->d_subdirs)) {
    SpinPause meanwhile(dcache_lock);
    shrink_dcache_parent(dentry);
  }
  SpinGuard dentry_guard(dentry->d_lock);
  // A directory in use could still get children, so it stays hashed.
  if (atomic_read(&dentry->d_count) > 1 && dentry->d_inode && S_ISDIR(dentry->d_inode->i_mode))
    return -EBUSY;
  __d_drop(dentry);
  return 0;
}

int have_submounts(struct dentry *parent) {
  struct dentry *at;
  int found = 0;

  SpinGuard guard(dcache_lock);
  for (at = parent; at && !found; at = dentry_next_below(parent, at)) found = d_mountpoint(at) != 0;
  return found;
}

void d_genocide(struct dentry *root) {
  struct dentry *at = root;

  SpinGuard guard(dcache_lock);
  while ((at = dentry_next_below(root, at)) != nullptr) {
    if (d_unhashed(at) || !at->d_inode) continue;
    ukern_dentry_ref(at, -1);
    if (atomic_dec_and_test(&at->d_count)) dentry_lru_add(at);
  }
}
