/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Shared by dcache.cc and dcache_prune.cc: the list of unused dentries, least recently used last,
 * and the freeing of one dentry.
 *
 * A dentry is on the list exactly while it is hashed and its count is 0.
 */
#ifndef UKERN_VFS_DCACHE_INTERNAL_H
#define UKERN_VFS_DCACHE_INTERNAL_H

#include "ukern/vfs/vfs.h"

#ifdef __cplusplus
extern "C" {
#endif

extern struct list_head dentry_unused; /* under dcache_lock */

static inline void dentry_lru_add(struct dentry *dentry) {
  list_add(&dentry->d_lru, &dentry_unused);
  stat_add(&dentry_stat.nr_unused, 1);
}

static inline void dentry_lru_del(struct dentry *dentry) {
  if (list_empty(&dentry->d_lru)) return;
  list_del_init(&dentry->d_lru);
  stat_add(&dentry_stat.nr_unused, -1);
}

/*
 * Frees an unused dentry. Enters with dcache_lock and its d_lock held and releases both; may sleep
 * after that. Returns the parent, whose reference the caller has to drop, or NULL.
 */
struct dentry *dentry_kill(struct dentry *dentry);

/*
 * The next dentry of a walk over the tree below `root`, parents before children; NULL at the end.
 * dcache_lock is held all the time.
 */
struct dentry *dentry_next_below(struct dentry *root, struct dentry *at);

/* Called before a dentry is allocated: frees some when there are far too many unused ones. May
 * sleep. */
void dcache_limit_now(void);

#if UKERN_DEBUG
void ukern_dentry_forget(struct dentry *dentry); /* frees the reference log */
#else
static inline void ukern_dentry_forget(struct dentry *) {}
#endif

#ifdef __cplusplus
}
#endif
#endif
