/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The dentry cache: one struct dentry per name that has been looked up, positive or negative.
 *
 * A dentry has a reference on its parent and, while it is positive, on its inode. Its own count is
 * d_count; at zero a hashed dentry stays on the unused list, and an unhashed one is freed.
 * dcache_lock protects the tree (d_parent, d_child, d_subdirs), the hash chains, the alias and
 * unused lists, d_flags and d_inode's changes; d_lock, taken inside it, covers changes of the name
 * and d_parent, which can be read under either lock. dput may sleep. Allocation failures give NULL.
 */
#ifndef UKERN_LINUX_DCACHE_H
#define UKERN_LINUX_DCACHE_H

#include <linux/compiler.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <asm/atomic.h>
#include <asm/system.h>

#ifdef __cplusplus
extern "C" {
#endif

struct dentry;
struct inode;
struct nameidata;
struct super_block;
struct reflog;
struct vfsmount;

#define IS_ROOT(x) ((x) == (x)->d_parent)

/* A name with its length and hash. The name need not be terminated. */
struct qstr {
  unsigned int hash;
  unsigned int len;
  const unsigned char *name;
};

struct dentry_stat_t {
  int nr_dentry;
  int nr_unused;
};
extern struct dentry_stat_t dentry_stat;

#define init_name_hash() 0

static inline unsigned long partial_name_hash(unsigned long c, unsigned long prevhash) {
  return (prevhash + (c << 4) + (c >> 4)) * 11;
}

static inline unsigned long end_name_hash(unsigned long hash) {
  return (unsigned int)hash;
}

static inline unsigned int full_name_hash(const unsigned char *name, unsigned int len) {
  unsigned long hash = init_name_hash();
  while (len--) hash = partial_name_hash(*name++, hash);
  return (unsigned int)end_name_hash(hash);
}

#define DNAME_INLINE_LEN_MIN 36

struct dentry_operations;

struct dentry {
  atomic_t d_count;
  unsigned int d_flags; /* DCACHE_*; under dcache_lock */
  spinlock_t d_lock;
  ukern_field<struct inode *, UKERN_PUBLISHED> d_inode; /* NULL: negative */
  struct hlist_node d_hash;
  struct dentry *d_parent;
  struct qstr d_name;
  struct list_head d_lru; /* on the unused list; under dcache_lock */
  union {
    struct list_head d_child; /* among the parent's d_subdirs */
  } d_u;
  struct list_head d_subdirs;
  struct list_head d_alias; /* among the inode's i_dentry */
  unsigned long d_time;     /* for d_revalidate */
  ukern_field<struct dentry_operations *, UKERN_PUBLISHED> d_op;
  struct super_block *d_sb;
  void *d_fsdata;
  int d_mounted; /* number of mounts on it; under vfsmount_lock */
  unsigned char d_iname[DNAME_INLINE_LEN_MIN];
  struct reflog *d_reflog; /* debug builds: log of the references */
};

/* Subclasses of d_lock: a second one may be taken, that of the target or child, as NESTED. */
enum dentry_d_lock_class { DENTRY_D_LOCK_NORMAL, DENTRY_D_LOCK_NESTED };

/*
 *               dcache_lock  d_lock  may sleep
 * d_revalidate  no           no      yes        1: valid, 0: not, negative: error
 * d_hash        no           no      yes        the dentry is the parent
 * d_compare     may be       yes     no         0: equal; the dentry is the parent
 * d_delete      yes          no      no         at d_count 0; 1: do not keep it
 * d_release     no           no      yes
 * d_iput        no           no      yes        takes over the dentry's inode reference
 */
struct dentry_operations {
  int (*d_revalidate)(struct dentry *, struct nameidata *);
  int (*d_hash)(struct dentry *, struct qstr *);
  int (*d_compare)(struct dentry *, struct qstr *, struct qstr *);
  int (*d_delete)(struct dentry *);
  void (*d_release)(struct dentry *);
  void (*d_iput)(struct dentry *, struct inode *);
};

#define DCACHE_DISCONNECTED 0x0004
#define DCACHE_REFERENCED 0x0008 /* used since the pruner's last visit */
#define DCACHE_UNHASHED 0x0010

extern spinlock_t dcache_lock;

#if UKERN_DEBUG
/* Logs a change of the dentry's count; called by dget and the like. */
void ukern_dentry_ref(struct dentry *dentry, int change);
#else
static inline void ukern_dentry_ref(struct dentry *, int) {}
#endif

/* Sets and clears bits of d_flags, which d_unhashed reads without a lock. Under dcache_lock. */
static inline void ukern_dentry_flags(struct dentry *dentry, unsigned int set, unsigned int clear) {
  __atomic_store_n(&dentry->d_flags, (dentry->d_flags | set) & ~clear, __ATOMIC_RELAXED);
}

/* Removes the dentry from the hash, so that no lookup finds it. Under dcache_lock and d_lock. */
static inline void __d_drop(struct dentry *dentry) {
  if (!(dentry->d_flags & DCACHE_UNHASHED)) {
    ukern_dentry_flags(dentry, DCACHE_UNHASHED, 0);
    hlist_del_init(&dentry->d_hash);
  }
}

static inline void d_drop(struct dentry *dentry) {
  spin_lock(&dcache_lock);
  spin_lock(&dentry->d_lock);
  __d_drop(dentry);
  spin_unlock(&dentry->d_lock);
  spin_unlock(&dcache_lock);
}

static inline int dname_external(struct dentry *dentry) {
  return dentry->d_name.name != dentry->d_iname;
}

/* Attaches an inode to a negative dentry and takes over the caller's reference on it; NULL leaves
 * the dentry negative. */
void d_instantiate(struct dentry *dentry, struct inode *inode);
/* Called after the file system has removed the name: makes the dentry negative if only the caller
 * uses it, else unhashes it. */
void d_delete(struct dentry *dentry);

/* A new unhashed negative dentry, count 1; its name is copied. Takes a reference on the parent, if
 * there is one. */
struct dentry *d_alloc(struct dentry *parent, const struct qstr *name);
/*
 * Instantiates and hashes `dentry`; if the inode already has a disconnected dentry, moves that one
 * into place and returns it with a reference. NULL: `dentry` itself is used. Takes over the inode
 * reference.
 */
struct dentry *d_splice_alias(struct inode *inode, struct dentry *dentry);
void shrink_dcache_sb(struct super_block *sb);
void shrink_dcache_parent(struct dentry *parent);
/* Unhashes a dentry; -EBUSY for a directory with other users. May sleep. */
int d_invalidate(struct dentry *dentry);

/* The root dentry, "/", of a new file system. Takes over the inode reference; on NULL the caller
 * keeps it. */
struct dentry *d_alloc_root(struct inode *inode);

/* Drops one reference from each dentry below `root`: for file systems that keep their tree in the
 * cache. */
void d_genocide(struct dentry *root);

/* An alias of the inode, hashed unless it is a directory's, with a reference, or NULL. A
 * disconnected one only if there is no other. */
struct dentry *d_find_alias(struct inode *inode);
/* Frees the unused aliases of the inode. */
void d_prune_aliases(struct inode *inode);

/* Is a file system mounted on this dentry or below it? */
int have_submounts(struct dentry *parent);

void d_rehash(struct dentry *dentry);

static inline void d_add(struct dentry *entry, struct inode *inode) {
  d_instantiate(entry, inode);
  d_rehash(entry);
}

/* Moves `dentry` to the name and parent of `target`, which gets dentry's. Both parents' i_mutex are
 * held. */
void d_move(struct dentry *dentry, struct dentry *target);

/* The cached child of that name with a reference, or NULL. Does not see a rename half done. */
struct dentry *d_lookup(struct dentry *parent, struct qstr *name);
struct dentry *__d_lookup(struct dentry *parent, struct qstr *name);

/*
 * The path from the current task's root, written at the end of the buffer; " (deleted)" is added
 * for an unhashed dentry. ERR_PTR(-ENAMETOOLONG) when it does not fit. Does not sleep.
 */
char *d_path(struct dentry *dentry, struct vfsmount *mnt, char *buf, int buflen);

static inline struct dentry *dget(struct dentry *dentry) {
  if (dentry) {
    BUG_ON(!atomic_read(&dentry->d_count));
    atomic_inc(&dentry->d_count);
    ukern_dentry_ref(dentry, 1);
  }
  return dentry;
}

/* As dget, also from zero. Under dcache_lock. */
struct dentry *dget_locked(struct dentry *dentry);

static inline int d_unhashed(struct dentry *dentry) {
  return (int)(__atomic_load_n(&dentry->d_flags, __ATOMIC_RELAXED) & DCACHE_UNHASHED);
}

static inline struct dentry *dget_parent(struct dentry *dentry) {
  struct dentry *ret;
  spin_lock(&dentry->d_lock);
  ret = dget(dentry->d_parent);
  spin_unlock(&dentry->d_lock);
  return ret;
}

void dput(struct dentry *dentry);

static inline int d_mountpoint(struct dentry *dentry) {
  return __atomic_load_n(&dentry->d_mounted, __ATOMIC_RELAXED);
}

/* The mount on (mnt, dentry), with a reference; NULL when there is none. */
struct vfsmount *lookup_mnt(struct vfsmount *mnt, struct dentry *dentry);

#ifdef __cplusplus
}
#endif
#endif
