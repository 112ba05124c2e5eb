/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The replication rules and the socket options that manage them.
 *
 * A rule node is reference counted: the set holds one reference, each look-up and each hit one
 * more; the last put frees it. `rule` and `path` do not change once the node is in the set.
 *
 * Locks: the set's rwlock guards the list, the count and the index. Look-ups and the search for
 * hits hold it for reading, add and delete for writing. A flush holds it for reading only and so
 * never waits for readers: it detaches the whole chain from the head, and the next writer drops the
 * references (see ox_flush.h). ox_flush's own spin lock or stop_lock is taken inside it. node_lock
 * is never held together with another lock.
 *
 * Results are 0, OX_ERR_* or the positive number of bytes that a user copy left uncopied.
 */
#ifndef TARN_RULE_H
#define TARN_RULE_H

#include "kernel.h"
#include "ox_guard.h"
#include "ox_msg.h"
#include "rule_index.h"
#include "statematch.h"

/* Values of prule_node.status. */
enum prule_status {
  PRULE_ACTIVE = 0,
  PRULE_STOPPED = 1 /* permanently: a record could not be made */
};

#define PRULE_MEM_MAX (1 << 30)
/* The largest number of rules that one change can hit. */
#define HIT_RULES_MAX 32

struct prule_node {
  struct list_head list;     /* under ruleset.rwlock */
  struct list_head aux_list; /* in g_transq, under its lock */
  atomic_t refcnt;
  struct prule rule;
  matchdr_t path;
  spinlock_t node_lock;
  struct list_head transq; /* waiting records, under node_lock */
  atomic_t transnr;        /* the number of the last record */
  ox_u64_t bytes_send;     /* bytes captured, without a lock */
  ox_s32_t mem_max;        /* not enforced */
  atomic_t mem_used;
  int status; /* enum prule_status; read without a lock, set by prule_stop */
  /* Sent in each record, so that the numbers of a rule that was deleted and added again are not
   * mistaken for the former ones. Never 0. */
  ox_u32_t generation;

  /* Its order in the list, ascending; 0: not in the set. Under ruleset.rwlock. */
  ox_u64_t place;
  struct prule_node *next_stopped; /* in ruleset.stopped */
  struct rule_key *keys;           /* its entries in ruleset.index */
  int keynum;

  const ox_u8_t *uuid() const { return rule.uuid; }
  void get();
  void put();
};

struct prule_set; /* rule_set.h */

struct hit_rules {
  struct prule_node *arr[HIT_RULES_MAX];
};
static_assert(sizeof(struct hit_rules) == 256, "a hit array is 32 pointers");

extern struct kmem_cache *rulenode_cachep;
extern struct kmem_cache *hit_rule_cache;

struct prule_set *get_prule_set(void);
void prule_node_get(struct prule_node *node);
void prule_node_put(struct prule_node *node);
/* For prule_node_put: the node has no reference left. Does not sleep. */
void free_prulenode(struct prule_node *node);
/* Does either path (path2 may be null) hit the rule? */
inline bool prule_is_hit(const struct prule_node *rule, const char *path1, const char *path2) {
  return match(&rule->path, path1) != STATE_MISS ||
         (path2 && match(&rule->path, path2) != STATE_MISS);
}
/* Is there no rule? Then a change has no record. Takes no lock. */
bool prule_set_is_empty(void);
/* A path with its length, or no path. */
struct prule_path {
  const char *text;
  unsigned long len;
};
inline struct prule_path prule_path_of(const char *text) {
  return {text, text ? strlen(text) : 0};
}
/*
 * Finds the rules that either path (path2 may be none) hits, at most 32 in list order, with a
 * reference on each. Returns their number.
 */
[[nodiscard]] int prule_get_hits(struct hit_rules *hits, const struct prule_path &path1,
                                 const struct prule_path &path2);
/* For a change that has no record, without memory: uses up a number of each rule that either path
 * hits, or of all if path1 is null. */
void prule_skip_numbers(const char *path1, const char *path2);
/* Returns the rule of this UUID with a reference for the caller, or null. */
struct prule_node *findnode_byuuid(const uuid_t uuid);

inline void prule_node::get() {
  prule_node_get(this);
}
inline void prule_node::put() {
  prule_node_put(this);
}

typedef ox_owner<struct prule_node, prule_node_put> prule_ref;

/* `record` is a struct prule in user memory (or kernel memory, under KERNEL_DS). May sleep. */
int do_add(const void __user *record, unsigned length);
int do_del(const void __user *record, unsigned length);
int do_flush(int flag);
/* Removes this node from the set, if it is in it. Returns 0. */
int delnode_fromlist(struct prule_node *node);
/* Stops a rule permanently: every change hits it while it is in the set. Takes the set's lock for
 * reading and stop_lock. Does not sleep. */
void prule_stop(struct prule_node *node);

int do_ox_set_ctl(struct sock *sk, int code, void __user *user, unsigned int length);
int do_ox_get_ctl(struct sock *sk, int code, void __user *user, int *length);

/* Returns 0, OX_ERR_NOMEM, or the error of the registration. */
[[nodiscard]] int prule_init(void);
void prule_exit(void);

#endif
