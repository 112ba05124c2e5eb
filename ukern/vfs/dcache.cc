// SPDX-License-Identifier: GPL-2.0
// The dentry cache: allocation, the hash, references, and attaching dentries to inodes. Freeing
// unused dentries is in dcache_prune.cc.
//
// dcache_lock covers the whole tree. Lookups take it too, so that an unused dentry leaves the
// unused list as soon as it is found, and no lookup sees a rename half done.

#include "ukern/vfs/dcache_internal.h"

#include <linux/gfp.h>
#include <linux/hash.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

// The hash has about as many chains as there are dentries: a small table stays in the CPU cache,
// and a large one has no long chains.
static const unsigned kPageBits = 9;  // log2 of the chains whose heads fill a page
static const unsigned kMinHashBits = kPageBits + 1;
static const unsigned kMaxHashBits = kPageBits + MAX_ORDER - 1;
static const unsigned kGrowth = 2;  // bits at each growth
static const unsigned kNameHashBits = 32;

DEFINE_SPINLOCK(dcache_lock);
struct dentry_stat_t dentry_stat;

static ukern_field<struct hlist_head *> hashtable;  // dcache_lock covers this and the next
static ukern_field<unsigned> hash_bits;
static struct kmem_cache *dentry_cache;

static struct hlist_head *new_table(unsigned bits) {
  static_assert(sizeof(struct hlist_head) << kPageBits == PAGE_SIZE);
  return reinterpret_cast<struct hlist_head *>(
      __get_free_pages(GFP_KERNEL | __GFP_ZERO, bits - kPageBits));
}

static void free_table(struct hlist_head *table, unsigned bits) {
  free_pages(reinterpret_cast<unsigned long>(table), bits - kPageBits);
}

int dcache_init(void) {
  dentry_stat = {};
  INIT_LIST_HEAD(&dentry_unused);
  hash_bits = kMinHashBits;
  hashtable = new_table(hash_bits);
  if (!hashtable) return -ENOMEM;
  dentry_cache = kmem_cache_create("dentry_cache", sizeof(struct dentry), 0, SLAB_RECLAIM_ACCOUNT,
                                   nullptr, nullptr);
  if (dentry_cache) return 0;
  free_table(hashtable, hash_bits);
  return -ENOMEM;
}

void dcache_exit(void) {
  kmem_cache_destroy(dentry_cache);
  dentry_cache = nullptr;
  free_table(hashtable, hash_bits);
}

static struct hlist_head *hash_chain(struct dentry *parent, unsigned hash) {
  // The parent is hashed first: a sum would make names in two directories collide.
  const unsigned long directory = hash_long(reinterpret_cast<unsigned long>(parent), kNameHashBits);
  return &hashtable[hash_long(directory ^ hash, hash_bits)];
}

// Moves all dentries of an old table to the current one.
static void rehash_all_locked(struct hlist_head *old, unsigned old_bits) {
  for (struct hlist_head *chain = old; chain < old + (1ul << old_bits); chain++) {
    while (chain->first) {
      struct dentry *dentry = hlist_entry(chain->first, struct dentry, d_hash);
      hlist_del(&dentry->d_hash);
      hlist_add_head(&dentry->d_hash, hash_chain(dentry->d_parent, dentry->d_name.hash));
    }
  }
}

// Moves all dentries to a larger table. Without memory for it the chains just get longer.
static void grow_hash(void) {
  const unsigned bits = min(hash_bits + kGrowth, kMaxHashBits);
  struct hlist_head *fresh = new_table(bits);
  if (!fresh) return;

  struct hlist_head *unused;
  unsigned unused_bits;
  {
    SpinGuard guard(dcache_lock);
    if (hash_bits < bits) {
      unused = hashtable;
      unused_bits = hash_bits;
      hashtable = fresh;
      hash_bits = bits;
      rehash_all_locked(unused, unused_bits);
    } else {
      unused = fresh;
      unused_bits = bits;
    }
  }
  free_table(unused, unused_bits);
}

struct dentry *d_alloc(struct dentry *parent, const struct qstr *name) {
  struct dentry *dentry;
  unsigned char *text;

  dcache_limit_now();
  dentry = static_cast<struct dentry *>(kmem_cache_alloc(dentry_cache, GFP_KERNEL));
  if (!dentry) return nullptr;
  memset(dentry, 0, sizeof(*dentry));

  text = dentry->d_iname;
  if (name->len > DNAME_INLINE_LEN_MIN - 1) {
    text = static_cast<unsigned char *>(kmalloc(name->len + 1, GFP_KERNEL));
    if (!text) {
      kmem_cache_free(dentry_cache, dentry);
      return nullptr;
    }
  }
  memcpy(text, name->name, name->len);
  text[name->len] = 0;
  dentry->d_name = {.hash = name->hash, .len = name->len, .name = text};

  atomic_set(&dentry->d_count, 1);
  dentry->d_flags = DCACHE_UNHASHED;
  spin_lock_init(&dentry->d_lock);
  INIT_HLIST_NODE(&dentry->d_hash);
  INIT_LIST_HEAD(&dentry->d_lru);
  INIT_LIST_HEAD(&dentry->d_subdirs);
  INIT_LIST_HEAD(&dentry->d_alias);
  INIT_LIST_HEAD(&dentry->d_u.d_child);
  ukern_dentry_ref(dentry, 1);

  if (parent) {
    dentry->d_parent = dget(parent);
    dentry->d_sb = parent->d_sb;
  }
  bool crowded;
  {
    SpinGuard guard(dcache_lock);
    if (parent) list_add(&dentry->d_u.d_child, &parent->d_subdirs);
    stat_add(&dentry_stat.nr_dentry, 1);
    crowded = hash_bits < kMaxHashBits && 2 * dentry_stat.nr_dentry > 1 << hash_bits;
  }
  if (crowded) grow_hash();
  return dentry;
}

// Frees a dentry without references. No locks held: d_release may sleep.
static void d_free(struct dentry *dentry) {
  BUG_ON(atomic_read(&dentry->d_count));
  BUG_ON(!d_unhashed(dentry));
  BUG_ON(dentry->d_mounted);
  BUG_ON(!list_empty(&dentry->d_subdirs));
  if (dentry->d_op && dentry->d_op->d_release) dentry->d_op->d_release(dentry);
  if (dname_external(dentry)) kfree(dentry->d_name.name);
  ukern_dentry_forget(dentry);
  kmem_cache_free(dentry_cache, dentry);
}

// Detaches the inode from the dentry, for dentry_iput. dcache_lock and d_lock are held.
static struct inode *take_inode_locked(struct dentry *dentry) {
  struct inode *inode = dentry->d_inode;
  dentry->d_inode = nullptr;
  if (inode) list_del_init(&dentry->d_alias);
  return inode;
}

// Drops the reference that the dentry had on the inode. No locks held.
static void dentry_iput(struct dentry *dentry, struct inode *inode) {
  if (!inode) return;
  if (dentry->d_op && dentry->d_op->d_iput)
    dentry->d_op->d_iput(dentry, inode);
  else
    iput(inode);
}

struct dentry *dentry_kill(struct dentry *dentry) {
  struct dentry *parent;

  __d_drop(dentry);
  dentry_lru_del(dentry);
  list_del_init(&dentry->d_u.d_child);
  stat_add(&dentry_stat.nr_dentry, -1);
  struct inode *inode = take_inode_locked(dentry);
  spin_unlock(&dentry->d_lock);  // hand-over: from dput or prune_one
  spin_unlock(&dcache_lock);     // hand-over: from dput or prune_one
  dentry_iput(dentry, inode);
  parent = dentry->d_parent;
  d_free(dentry);
  return parent == dentry ? nullptr : parent;
}

void dput(struct dentry *dentry) {
  // The parent of a dentry that is freed loses a reference in turn, and so on upwards.
  while (dentry) {
    ukern_dentry_ref(dentry, -1);
    BUG_ON(atomic_read(&dentry->d_count) <= 0);
    if (atomic_read(&dentry->d_count) == 1) might_sleep();
    if (!atomic_dec_and_lock(&dentry->d_count, &dcache_lock)) return;

    spin_lock(&dentry->d_lock);
    const bool unwanted = dentry->d_op && dentry->d_op->d_delete && dentry->d_op->d_delete(dentry);
    if (!unwanted && !d_unhashed(dentry)) {
      ukern_dentry_flags(dentry, DCACHE_REFERENCED, 0);
      dentry_lru_add(dentry);
      spin_unlock(&dentry->d_lock);  // hand-over: else to dentry_kill
      spin_unlock(&dcache_lock);     // hand-over: from atomic_dec_and_lock
      cache_pruner_kick();
      return;
    }
    dentry = dentry_kill(dentry);
  }
}

struct dentry *dget_locked(struct dentry *dentry) {
  atomic_inc(&dentry->d_count);
  dentry_lru_del(dentry);
  ukern_dentry_ref(dentry, 1);
  return dentry;
}

// The alias for a further user of the inode to share: a disconnected one only if there is no other.
struct dentry *d_find_alias(struct inode *inode) {
  struct dentry *found = nullptr;
  struct dentry *alias;
  SpinGuard guard(dcache_lock);
  list_for_each_entry(alias, &inode->i_dentry, d_alias) {
    if (!S_ISDIR(inode->i_mode) && d_unhashed(alias)) continue;
    found = alias;
    if (!(alias->d_flags & DCACHE_DISCONNECTED)) break;
  }
  if (found) dget_locked(found);
  return found;
}

// A disconnected dentry is allocated only for an inode without aliases, and later aliases are added
// before it. So only the last alias need be checked.
static struct dentry *disconnected_alias_locked(struct inode *inode) {
  if (list_empty(&inode->i_dentry)) return nullptr;
  struct dentry *oldest = list_entry(inode->i_dentry.prev, struct dentry, d_alias);
  if (!(oldest->d_flags & DCACHE_DISCONNECTED)) return nullptr;
  return S_ISDIR(inode->i_mode) || !d_unhashed(oldest) ? dget_locked(oldest) : nullptr;
}

static void d_instantiate_locked(struct dentry *dentry, struct inode *inode) {
  if (inode) list_add(&dentry->d_alias, &inode->i_dentry);
  dentry->d_inode = inode;
}

void d_instantiate(struct dentry *dentry, struct inode *inode) {
  BUG_ON(!list_empty(&dentry->d_alias));
  SpinGuard guard(dcache_lock);
  d_instantiate_locked(dentry, inode);
}

struct dentry *d_alloc_root(struct inode *root_inode) {
  static const struct qstr name = {
      .hash = 0, .len = 1, .name = reinterpret_cast<const unsigned char *>("/")};
  struct dentry *root;

  if (!root_inode) return nullptr;
  root = d_alloc(nullptr, &name);
  if (!root) return nullptr;
  root->d_sb = root_inode->i_sb;
  root->d_parent = root;
  d_instantiate(root, root_inode);
  return root;
}

struct dentry *d_splice_alias(struct inode *inode, struct dentry *dentry) {
  struct dentry *alias;

  if (!inode) {
    d_add(dentry, nullptr);
    return nullptr;
  }
  {
    SpinGuard guard(dcache_lock);
    alias = disconnected_alias_locked(inode);
    if (!alias) d_instantiate_locked(dentry, inode);
  }
  d_rehash(dentry);
  if (!alias) return nullptr;
  d_move(alias, dentry);
  iput(inode);
  return alias;
}

static bool name_matches(struct dentry *parent, struct dentry *dentry, struct qstr *name) {
  struct qstr *have = &dentry->d_name;
  if (parent->d_op && parent->d_op->d_compare)
    return parent->d_op->d_compare(parent, have, name) == 0;
  return have->len == name->len && memcmp(have->name, name->name, name->len) == 0;
}

struct dentry *__d_lookup(struct dentry *parent, struct qstr *name) {
  struct dentry *dentry;
  struct dentry *found = nullptr;
  struct hlist_node *node;

  SpinGuard guard(dcache_lock);
  hlist_for_each_entry(dentry, node, hash_chain(parent, name->hash), d_hash) {
    if (dentry->d_name.hash != name->hash || dentry->d_parent != parent) continue;
    {
      SpinGuard dentry_guard(dentry->d_lock);
      if (name_matches(parent, dentry, name)) found = dget_locked(dentry);
    }
    if (found) break;
  }
  return found;
}

struct dentry *d_lookup(struct dentry *parent, struct qstr *name) {
  return __d_lookup(parent, name);
}

void d_delete(struct dentry *dentry) {
  BUG_ON(!dentry->d_inode);
  struct inode *inode = nullptr;
  {
    SpinGuard guard(dcache_lock);
    SpinGuard dentry_guard(dentry->d_lock);
    if (atomic_read(&dentry->d_count) == 1)
      inode = take_inode_locked(dentry);
    else
      __d_drop(dentry);
  }
  dentry_iput(dentry, inode);
}

static void rehash_locked(struct dentry *dentry, struct hlist_head *chain) {
  ukern_dentry_flags(dentry, 0, DCACHE_UNHASHED);
  hlist_add_head(&dentry->d_hash, chain);
}

void d_rehash(struct dentry *dentry) {
  SpinGuard guard(dcache_lock);
  SpinGuard dentry_guard(dentry->d_lock);
  // A dentry that is hashed twice would make a ring of its chain.
  BUG_ON(!d_unhashed(dentry));
  rehash_locked(dentry, hash_chain(dentry->d_parent, dentry->d_name.hash));
}

// Gives the dentry the target's name. The target is about to be dropped: of the dentry's name it
// gets the hash, the length and, if that is allocated separately, the text; an inline text stays as
// it is.
static void switch_names(struct dentry *dentry, struct dentry *target) {
  const bool target_external = dname_external(target);
  const bool external = dname_external(dentry);
  const struct qstr ours = dentry->d_name;

  dentry->d_name = target->d_name;
  if (!target_external) {
    memcpy(dentry->d_iname, target->d_iname, sizeof(dentry->d_iname));
    dentry->d_name.name = dentry->d_iname;
  }
  target->d_name = ours;
  if (!external) target->d_name.name = target->d_iname;
}

// lock_rename walks up without dcache_lock, so a rename within a directory must not touch d_parent.
static void switch_parents(struct dentry *dentry, struct dentry *target) {
  if (dentry->d_parent == target->d_parent) return;
  list_del_init(&dentry->d_u.d_child);
  list_del_init(&target->d_u.d_child);
  struct dentry *const parent = target->d_parent;
  if (IS_ROOT(dentry)) {
    target->d_parent = target;
  } else {
    target->d_parent = dentry->d_parent;
    list_add(&target->d_u.d_child, &target->d_parent->d_subdirs);
  }
  dentry->d_parent = parent;
  list_add(&dentry->d_u.d_child, &parent->d_subdirs);
}

void d_move(struct dentry *dentry, struct dentry *target) {
  struct dentry *first = target < dentry ? target : dentry;
  struct dentry *second = target < dentry ? dentry : target;

  if (!dentry->d_inode) printk(KERN_WARNING "VFS: moving negative dcache entry\n");

  SpinGuard guard(dcache_lock);
  SpinGuard first_guard(first->d_lock);
  SpinGuard second_guard(second->d_lock, DENTRY_D_LOCK_NESTED);

  __d_drop(dentry);
  rehash_locked(dentry, hash_chain(target->d_parent, target->d_name.hash));
  __d_drop(target);
  switch_names(dentry, target);
  switch_parents(dentry, target);
}

int is_subdir(struct dentry *child, struct dentry *parent) {
  SpinGuard guard(dcache_lock);
  while (child != parent && !IS_ROOT(child)) child = child->d_parent;
  return child == parent;
}

void dentry_unhash(struct dentry *dentry) {
  dget(dentry);
  shrink_dcache_parent(dentry);
  SpinGuard guard(dcache_lock);
  SpinGuard dentry_guard(dentry->d_lock);
  // The caller's reference and the one just taken: the directory has no other user.
  if (atomic_read(&dentry->d_count) == 2) __d_drop(dentry);
}
