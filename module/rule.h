/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The replication rules and the socket options that manage them.
 *
 * A rule node is reference counted: the set holds one reference, each lookup and each hit one more,
 * the last put frees it. `rule` and `path` do not change once the node is in the set.
 *
 * Locks: ruleset.rwlock guards the list, the count and the index. Lookups and the search for hits
 * hold it for reading, add and delete for writing. A flush holds it for reading only and so never
 * waits for readers: it takes the whole chain off the head and leaves the chain itself as it is,
 * and the references are dropped by whoever next holds the lock alone (see ox_flush.h). ox_flush's
 * own spin lock or stop_lock is taken inside it. node_lock is never held together with another
 * lock.
 *
 * Results are 0, OX_ERR_* or the positive number of bytes that a user copy left uncopied.
 */
#ifndef TARN_RULE_H
#define TARN_RULE_H

#include "kernel.h"
#include "ox_flush.h"
#include "ox_guard.h"
#include "ox_msg.h"
#include "rule_index.h"
#include "statematch.h"

/* Values of prule_node.status. */
enum prule_status {
  PRULE_ACTIVE = 0,
  PRULE_STOPPED = 1 /* for good: a record of it could not be made */
};

#define PRULE_MEM_MAX (1 << 30)
/* The most rules that one change can hit. */
#define HIT_RULES_MAX 32

struct prule_node {
  struct list_head list;     /* under ruleset.rwlock */
  struct list_head aux_list; /* in g_transq, under its lock */
  atomic_t refcnt;
  struct prule rule;
  matchdr_t path;
  spinlock_t node_lock;
  struct list_head transq; /* records that wait, under node_lock */
  atomic_t transnr;        /* the number of the last record */
  ox_u64_t bytes_send;     /* bytes captured, without a lock */
  ox_s32_t mem_max;        /* not enforced */
  atomic_t mem_used;
  int status; /* enum prule_status; read without a lock, set by prule_stop */
  /* In each of its records, so that nobody takes the numbers of a rule that was deleted and added
   * again for those of the first one. Never 0. */
  ox_u32_t generation;

  /* Larger than that of every rule before it in the list; 0: it is not in the set. Under
   * ruleset.rwlock. */
  ox_u64_t place;
  struct prule_node *next_stopped; /* in ruleset.stopped */
  struct rule_key *keys;           /* its places in ruleset.index */
  int keynum;
};

struct prule_set {
  struct list_head head; /* in the order of insertion */
  int rulenum;
  rwlock_t rwlock;
  struct ox_flush flushed; /* nodes that a flush took off while others were reading */
  ox_u64_t last_place;
  struct rule_index index; /* of all nodes; after a flush also of those it took off */
  /* The stopped rules in list order, likewise. Put in under stop_lock, while others may read. */
  struct prule_node *stopped;
  spinlock_t stop_lock;
};

struct hit_rules {
  struct prule_node *arr[HIT_RULES_MAX];
};
static_assert(sizeof(struct hit_rules) == 256, "a hit array is 32 pointers");

extern struct kmem_cache *rulenode_cachep;
extern struct kmem_cache *hit_rule_cache;

struct prule_set *get_prule_set(void);
void prule_node_get(struct prule_node *node);
void prule_node_put(struct prule_node *node);
/* For prule_node_put: the node has no reference left. Sleeps not. */
void free_prulenode(struct prule_node *node);
/* The rule of that name with a reference for the caller, or null. */
struct prule_node *findnode_byuuid(const uuid_t uuid);

typedef ox_owner<struct prule_node, prule_node_put> prule_ref;

/* `record` is a struct prule in user memory (or in the kernel's, under KERNEL_DS). They sleep. */
int do_add(const void __user *record, unsigned length);
int do_del(const void __user *record, unsigned length);
int do_flush(int flag);
/* Takes that very node off the set, if it is there. 0. */
int delnode_fromlist(struct prule_node *node);
/* Stops a rule for good: every change hits it as long as it is in the set. Takes the set's lock for
 * reading and stop_lock. Sleeps not. */
void prule_stop(struct prule_node *node);

int do_ox_set_ctl(struct sock *sk, int code, void __user *user, unsigned int length);
int do_ox_get_ctl(struct sock *sk, int code, void __user *user, int *length);

/* 0, OX_ERR_NOMEM, or the error of the registration. */
[[nodiscard]] int prule_init(void);
void prule_exit(void);

#endif
