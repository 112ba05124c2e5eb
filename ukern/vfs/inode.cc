// SPDX-License-Identifier: GPL-2.0
// The inode cache: allocation, lookup by hash, references and freeing.
//
// An inode is on exactly one of these lists by i_list: inode_in_use, inode_unused (count 0, clean,
// hashed), its super block's s_dirty or s_io. inode_lock covers the lists, i_state and the hash.

#include "ukern/vfs/inode_internal.h"

#include <linux/backing-dev.h>
#include <linux/hash.h>
#include <linux/mm.h>
#include <linux/pagemap.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/writeback.h>

#include "ukern/sync/guard.h"
#include "ukern/sync/lockcheck.h"

static const unsigned kHashBits = 16;
static const unsigned kHashSize = 1u << kHashBits;
static const unsigned kWaitQueues = 64;
static const unsigned kAlign = 16;  // of addresses: the low bits are constant

DEFINE_SPINLOCK(inode_lock);
LIST_HEAD(inode_in_use);
LIST_HEAD(inode_unused);
struct inodes_stat_t inodes_stat;

// Excludes the pruner and an unmount's pass over the inodes from each other.
static DEFINE_MUTEX(iprune_mutex);
static struct hlist_head hashtable[kHashSize];
static struct kmem_cache *inode_cachep;
static wait_queue_head_t wait_queues[kWaitQueues];
static unsigned long last_ino;  // under inode_lock

int inode_cache_init(void) {
  inodes_stat = {};
  INIT_LIST_HEAD(&inode_in_use);
  INIT_LIST_HEAD(&inode_unused);
  last_ino = 0;
  for (unsigned i = 0; i < kWaitQueues; i++) init_waitqueue_head(&wait_queues[i]);
  memset(hashtable, 0, sizeof(hashtable));
  inode_cachep = kmem_cache_create("inode_cache", sizeof(struct inode), 0, SLAB_RECLAIM_ACCOUNT,
                                   nullptr, nullptr);
  return inode_cachep ? 0 : -ENOMEM;
}

void inode_cache_exit(void) {
  kmem_cache_destroy(inode_cachep);
  inode_cachep = nullptr;
}

static struct hlist_head *hash_chain(struct super_block *sb, unsigned long hashval) {
  const unsigned long mixed = hash_long(
      hashval / kAlign + hashval + reinterpret_cast<unsigned long>(sb) / kAlign, kHashBits);
  return &hashtable[mixed & (kHashSize - 1)];
}

static wait_queue_head_t *wait_queue_of(struct inode *inode) {
  return &wait_queues[hash_long(reinterpret_cast<unsigned long>(inode), 6)];
}

void wake_up_inode(struct inode *inode) {
  wake_up_all(wait_queue_of(inode));
}

void wait_on_inode(struct inode *inode) {
  might_sleep();
  SpinGuard guard(inode_lock);
  wait_unlocked_inode(inode);
}

// Sleeps until the next wake-up on the inode's queue and releases inode_lock meanwhile. The inode
// may be freed then.
static void wait_for_change(struct inode *inode) {
  wait_queue_head_t *queue = wait_queue_of(inode);
  DEFINE_WAIT(wait);

  prepare_to_wait(queue, &wait, TASK_UNINTERRUPTIBLE);
  SpinPause meanwhile(inode_lock);
  schedule();
  finish_wait(queue, &wait);
}

void wait_unlocked_inode(struct inode *inode) {
  while (inode->i_state & I_LOCK) wait_for_change(inode);
}

void inode_init_once(struct inode *inode) {
  memset(inode, 0, sizeof(*inode));
  INIT_HLIST_NODE(&inode->i_hash);
  INIT_LIST_HEAD(&inode->i_list);
  INIT_LIST_HEAD(&inode->i_sb_list);
  INIT_LIST_HEAD(&inode->i_dentry);
  mutex_init(&inode->i_mutex);
  init_rwsem(&inode->i_alloc_sem);
  spin_lock_init(&inode->i_lock);
  INIT_RADIX_TREE(&inode->i_data.page_tree, GFP_ATOMIC);
  rwlock_init(&inode->i_data.tree_lock);
  INIT_LIST_HEAD(&inode->i_data.i_mmap);
  spin_lock_init(&inode->i_data.i_mmap_lock);
  INIT_LIST_HEAD(&inode->i_data.private_list);
  spin_lock_init(&inode->i_data.private_lock);
}

static struct inode *alloc_inode(struct super_block *sb) {
  static const struct address_space_operations no_aops = {};
  static struct inode_operations no_iops = {};
  static const struct file_operations no_fops = {};
  struct inode *inode;
  struct address_space *mapping;

  UKERN_LOCK_DEPTH(sb->ukern_depth);
  if (sb->s_op->alloc_inode) {
    inode = sb->s_op->alloc_inode(sb);
  } else {
    inode = static_cast<struct inode *>(kmem_cache_alloc(inode_cachep, GFP_KERNEL));
    if (inode) inode_init_once(inode);
  }
  if (!inode) return nullptr;

  inode->i_sb = sb;
  inode->i_blkbits = sb->s_blocksize_bits;
  inode->i_flags = 0;
  atomic_set(&inode->i_count, 1);
  inode->i_op = &no_iops;
  inode->i_fop = &no_fops;
  inode->i_nlink = 1;
  atomic_set(&inode->i_writecount, 0);
  inode->i_size = 0;
  inode->i_blocks = 0;
  inode->i_bytes = 0;
  inode->i_generation = 0;
  inode->i_rdev = 0;
  inode->dirtied_when = 0;
  inode->u.generic_ip = nullptr;
  inode->i_reflog = nullptr;
  ukern_inode_ref(inode, 1);

  mapping = &inode->i_data;
  mapping->a_ops = &no_aops;
  mapping->host = inode;
  mapping->flags = 0;
  mapping_set_gfp_mask(mapping, GFP_HIGHUSER);
  mapping->backing_dev_info = &default_backing_dev_info;
  inode->i_mapping = mapping;
  return inode;
}

void destroy_inode(struct inode *inode) {
  BUG_ON(!list_empty(&inode->i_dentry));
  BUG_ON(inode->i_data.nrpages);
  ukern_inode_forget(inode);
  if (inode->i_sb->s_op->destroy_inode)
    inode->i_sb->s_op->destroy_inode(inode);
  else
    kmem_cache_free(inode_cachep, inode);
}

// Adds a new inode to the lists of its super block.
static void link_inode_locked(struct inode *inode, struct hlist_head *chain, unsigned long state) {
  stat_add(&inodes_stat.nr_inodes, 1);
  list_add(&inode->i_list, &inode_in_use);
  list_add(&inode->i_sb_list, &inode->i_sb->s_inodes);
  if (chain) hlist_add_head(&inode->i_hash, chain);
  inode->i_state = state;
}

struct inode *new_inode(struct super_block *sb) {
  struct inode *inode = alloc_inode(sb);
  if (!inode) return nullptr;
  SpinGuard guard(inode_lock);
  inode->i_ino = ++last_ino;
  link_inode_locked(inode, nullptr, 0);
  return inode;
}

void __iget(struct inode *inode) {
  const int count = atomic_inc_return(&inode->i_count);
  ukern_inode_ref(inode, 1);
  if (count > 1) return;
  if (!(inode->i_state & (I_DIRTY | I_LOCK))) list_move(&inode->i_list, &inode_in_use);
  stat_add(&inodes_stat.nr_unused, -1);
}

struct inode *igrab(struct inode *inode) {
  SpinGuard guard(inode_lock);
  if (inode->i_state & (I_FREEING | I_WILL_FREE))
    inode = nullptr;
  else
    __iget(inode);
  return inode;
}

// Finds an inode; waits for one that is being freed and searches again. inode_lock is held, and
// released while waiting.
static struct inode *find_inode(struct super_block *sb, struct hlist_head *chain,
                                int (*test)(struct inode *, void *), void *data) {
  struct hlist_node *node;
  struct inode *inode;

again:
  hlist_for_each_entry(inode, node, chain, i_hash) {
    if (inode->i_sb != sb || !test(inode, data)) continue;
    if (!(inode->i_state & (I_FREEING | I_CLEAR | I_WILL_FREE))) return inode;
    wait_for_change(inode);
    goto again;
  }
  return nullptr;
}

static struct inode *ifind(struct super_block *sb, unsigned long hashval,
                           int (*test)(struct inode *, void *), void *data, bool wait) {
  struct inode *inode;

  SpinGuard guard(inode_lock);
  inode = find_inode(sb, hash_chain(sb, hashval), test, data);
  if (inode) {
    __iget(inode);
    if (wait) wait_unlocked_inode(inode);
  }
  return inode;
}

struct inode *ilookup5_nowait(struct super_block *sb, unsigned long hashval,
                              int (*test)(struct inode *, void *), void *data) {
  return ifind(sb, hashval, test, data, false);
}

struct inode *ilookup5(struct super_block *sb, unsigned long hashval,
                       int (*test)(struct inode *, void *), void *data) {
  might_sleep();
  return ifind(sb, hashval, test, data, true);
}

struct inode *iget5_locked(struct super_block *sb, unsigned long hashval,
                           int (*test)(struct inode *, void *), int (*set)(struct inode *, void *),
                           void *data) {
  struct hlist_head *chain = hash_chain(sb, hashval);
  struct inode *inode = ilookup5(sb, hashval, test, data);
  struct inode *fresh;

  if (inode) return inode;
  fresh = alloc_inode(sb);
  if (!fresh) return nullptr;

  {
    SpinGuard guard(inode_lock);
    // Another task may have created it meanwhile.
    inode = find_inode(sb, chain, test, data);
    if (inode) {
      __iget(inode);
    } else if (!set(fresh, data)) {
      link_inode_locked(fresh, chain, I_LOCK | I_NEW);
      return fresh;
    }
  }
  destroy_inode(fresh);
  if (inode) wait_on_inode(inode);
  return inode;
}

void unlock_new_inode(struct inode *inode) {
  {
    SpinGuard guard(inode_lock);
    inode->i_state &= ~static_cast<unsigned long>(I_LOCK | I_NEW);
  }
  wake_up_inode(inode);
}

static int has_number(struct inode *inode, void *ino) {
  return inode->i_ino == *static_cast<ino_t *>(ino);
}

ino_t iunique(struct super_block *sb, ino_t max_reserved) {
  static ino_t counter;  // under inode_lock
  ino_t ino;

  SpinGuard guard(inode_lock);
  do {
    if (counter <= max_reserved) counter = max_reserved + 1;
    ino = counter++;
  } while (find_inode(sb, hash_chain(sb, ino), has_number, &ino));
  return ino;
}

void __insert_inode_hash(struct inode *inode, unsigned long hashval) {
  struct hlist_head *chain = hash_chain(inode->i_sb, hashval);
  SpinGuard guard(inode_lock);
  hlist_add_head(&inode->i_hash, chain);
}

void remove_inode_hash(struct inode *inode) {
  SpinGuard guard(inode_lock);
  hlist_del_init(&inode->i_hash);
}

void clear_inode(struct inode *inode) {
  might_sleep();
  BUG_ON(inode->i_data.nrpages);
  BUG_ON(!(inode->i_state & I_FREEING));
  BUG_ON(inode->i_state & I_CLEAR);
  wait_on_inode(inode);
  if (inode->i_sb->s_op->clear_inode) inode->i_sb->s_op->clear_inode(inode);
  inode->i_state = I_CLEAR;
}

void generic_delete_inode(struct inode *inode) {
  struct super_operations *op = inode->i_sb->s_op;

  list_del_init(&inode->i_list);
  list_del_init(&inode->i_sb_list);
  inode->i_state |= I_FREEING;
  stat_add(&inodes_stat.nr_inodes, -1);
  spin_unlock(&inode_lock);  // hand-over: from iput

  if (op->delete_inode) {
    op->delete_inode(inode);
  } else {
    truncate_inode_pages(&inode->i_data, 0);
    clear_inode(inode);
  }
  remove_inode_hash(inode);
  wake_up_inode(inode);
  BUG_ON(inode->i_state != I_CLEAR);
  destroy_inode(inode);
}

// Drops the last reference of an inode that has links. It stays cached while the file system is
// mounted.
static void forget_inode(struct inode *inode) {
  if (!hlist_unhashed(&inode->i_hash)) {
    if (!(inode->i_state & (I_DIRTY | I_LOCK))) list_move(&inode->i_list, &inode_unused);
    stat_add(&inodes_stat.nr_unused, 1);
    if (inode->i_sb->s_flags & MS_ACTIVE) {
      spin_unlock(&inode_lock);  // hand-over: from iput
      cache_pruner_kick();
      return;
    }
    inode->i_state |= I_WILL_FREE;
    {
      SpinPause meanwhile(inode_lock);
      write_inode_now(inode, 1);
    }
    inode->i_state &= ~static_cast<unsigned long>(I_WILL_FREE);
    stat_add(&inodes_stat.nr_unused, -1);
    hlist_del_init(&inode->i_hash);
  }
  list_del_init(&inode->i_list);
  list_del_init(&inode->i_sb_list);
  inode->i_state |= I_FREEING;
  stat_add(&inodes_stat.nr_inodes, -1);
  spin_unlock(&inode_lock);  // hand-over: from iput
  if (inode->i_data.nrpages) truncate_inode_pages(&inode->i_data, 0);
  clear_inode(inode);
  wake_up_inode(inode);
  destroy_inode(inode);
}

void generic_drop_inode(struct inode *inode) {
  if (inode->i_nlink)
    forget_inode(inode);
  else
    generic_delete_inode(inode);
}

void iput(struct inode *inode) {
  struct super_operations *op;

  if (!inode) return;
  op = inode->i_sb->s_op;
  ukern_inode_ref(inode, -1);
  BUG_ON(atomic_read(&inode->i_count) <= 0);
  if (op->put_inode) op->put_inode(inode);
  if (!atomic_dec_and_lock(&inode->i_count, &inode_lock)) return;
  BUG_ON(inode->i_state == I_CLEAR);
  if (op->drop_inode)
    op->drop_inode(inode);
  else
    generic_drop_inode(inode);
}

// Frees inodes that were taken off the lists as I_FREEING. May sleep.
static void dispose_list(struct list_head *head) {
  while (!list_empty(head)) {
    struct inode *inode = list_entry(head->next, struct inode, i_list);

    list_del_init(&inode->i_list);
    if (inode->i_data.nrpages) truncate_inode_pages(&inode->i_data, 0);
    clear_inode(inode);
    {
      SpinGuard guard(inode_lock);
      hlist_del_init(&inode->i_hash);
      list_del_init(&inode->i_sb_list);
      stat_add(&inodes_stat.nr_inodes, -1);
    }
    wake_up_inode(inode);
    destroy_inode(inode);
  }
}

int invalidate_inodes(struct super_block *sb) {
  LIST_HEAD(freeable);
  struct inode *inode;
  int busy = 0;

  MutexGuard guard(iprune_mutex);
  {
    SpinGuard inode_guard(inode_lock);
    list_for_each_entry(inode, &sb->s_inodes, i_sb_list) {
      if (atomic_read(&inode->i_count)) {
        busy = 1;
        continue;
      }
      list_move(&inode->i_list, &freeable);
      inode->i_state |= I_FREEING;
      stat_add(&inodes_stat.nr_unused, -1);
    }
  }
  dispose_list(&freeable);
  return busy;
}

static bool can_free(struct inode *inode) {
  return !inode->i_state && !atomic_read(&inode->i_count) && !inode->i_data.nrpages;
}

// Drops the pages of an unused inode; true if it can be freed now. inode_lock is held, and released
// meanwhile.
static bool drop_pages(struct inode *inode) {
  __iget(inode);
  {
    SpinPause meanwhile(inode_lock);
    invalidate_inode_pages(&inode->i_data);
    iput(inode);
  }
  return !list_empty(&inode_unused) &&
         inode == list_entry(inode_unused.next, struct inode, i_list) && can_free(inode);
}

void prune_icache(int count) {
  LIST_HEAD(freeable);

  MutexGuard guard(iprune_mutex);
  {
    SpinGuard inode_guard(inode_lock);
    for (; count > 0 && !list_empty(&inode_unused); count--) {
      struct inode *inode = list_entry(inode_unused.prev, struct inode, i_list);

      if (inode->i_state || atomic_read(&inode->i_count)) {
        list_move(&inode->i_list, &inode_unused);
        continue;
      }
      if (inode->i_data.nrpages && !drop_pages(inode)) continue;
      list_move(&inode->i_list, &freeable);
      inode->i_state |= I_FREEING;
      stat_add(&inodes_stat.nr_unused, -1);
    }
  }
  dispose_list(&freeable);
}
