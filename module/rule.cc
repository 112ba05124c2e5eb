// SPDX-License-Identifier: GPL-2.0
#include "rule_set.h"

#include "ox_types.h"
#include "ox_uuid.h"
#include "trans.h"

struct kmem_cache *rulenode_cachep;
struct kmem_cache *hit_rule_cache;

static struct prule_set ruleset;

struct prule_set *get_prule_set(void) {
  return &ruleset;
}

/* ---- nodes ---- */

void prule_node_get(struct prule_node *node) {
  atomic_inc(&node->refcnt);
}

void prule_node_put(struct prule_node *node) {
  if (atomic_dec_and_test(&node->refcnt)) free_prulenode(node);
}

void free_prulenode(struct prule_node *node) {
  if (!node) return;
  struct tarn_trans *trans, *next;
  list_for_each_entry_safe(trans, next, &node->transq, list) {
    list_del_init(&trans->list);
    tarn_trans_free(trans, 1);
  }
  clearmatch(&node->path);
  kfree(node->keys);
  kmem_cache_free(rulenode_cachep, node);
}

/* Returns a number that differs between successive rules, even if the clock went back or the module
 * was reloaded in between. */
static ox_u32_t new_generation(void) {
  static atomic_t added;
  const ox_u64_t now = static_cast<ox_u64_t>(ox_current_time_us());
  const ox_u32_t mixed = static_cast<ox_u32_t>(now) ^ static_cast<ox_u32_t>(now >> 32);
  const ox_u32_t generation =
      mixed + static_cast<ox_u32_t>(atomic_inc_return(&added)) * 2654435761u;
  return generation ? generation : 1;
}

static void init_node(struct prule_node *node) {
  INIT_LIST_HEAD(&node->list);
  INIT_LIST_HEAD(&node->aux_list);
  INIT_LIST_HEAD(&node->transq);
  atomic_set(&node->refcnt, 2); /* the list's and the creator's */
  node->mem_max = PRULE_MEM_MAX;
  node->generation = new_generation();
  initmatch(&node->path, 0, 1, CMP_STR);
  spin_lock_init(&node->node_lock);
}

/* ---- the set ---- */

/* Removes the node from the index. The lock is held for writing. */
static void unindex_locked(struct prule_node *node) {
  rule_index_del(&ruleset.index, node->keys, node->keynum);
  for (struct prule_node **at = &ruleset.stopped; *at; at = &(*at)->next_stopped) {
    if (*at != node) continue;
    *at = node->next_stopped;
    break;
  }
  node->place = 0;
}

typedef ox_removed<struct prule_node> removed_rules;

/* A flush removes all nodes, and none was added since: the index has only these. */
static void take_flushed_locked(removed_rules &removed) {
  removed.take_flushed_locked(ruleset);
  if (list_empty(removed.nodes())) return;
  memset(&ruleset.index, 0, sizeof(ruleset.index));
  ruleset.stopped = nullptr;
  struct prule_node *node;
  list_for_each_entry(node, removed.nodes(), list) node->place = 0;
}

struct prule_node *findnode_byuuid(const uuid_t uuid) {
  return ruleset.find(uuid);
}

/*
 * Netlink messages with rules may arrive before prule_init, during prule_exit and after it. Each
 * counts as a user of the set while it is handled. This is not a lock, because it must work before
 * locks are initialized.
 */
class set_user {
 public:
  set_user() : counted_(ox_load(exists_)) {
    if (!counted_) return;
    atomic_inc(&users_);
    smp_mb();
    if (!ox_load(exists_)) leave();
  }
  ~set_user() {
    if (counted_) leave();
  }
  set_user(const set_user &) = delete;
  set_user &operator=(const set_user &) = delete;
  explicit operator bool() const { return counted_; }

  /* Opens the set to users. */
  static void begin() {
    smp_wmb();
    ox_store(exists_, true);
  }
  /* Closes the set and waits until all users have left. Sleeps. */
  static void end() {
    ox_store(exists_, false);
    smp_mb();
    while (atomic_read(&users_)) schedule_timeout_uninterruptible(1);
  }

 private:
  void leave() {
    counted_ = false;
    smp_mb();
    atomic_dec(&users_);
  }

  static bool exists_;
  static atomic_t users_; /* a user that finds no set counts only for a moment */
  bool counted_;
};

bool set_user::exists_;
atomic_t set_user::users_;

/* Compiles the automaton and the keys of the node's workdir. Returns 0, or -1 without memory, with
 * neither. */
static int compile_workdir(struct prule_node *node) {
  if (build_path_match(&node->path, node->rule.workdir)) return -1;
  node->keys = rule_keys_new(node, node->rule.workdir, &node->keynum);
  if (node->keys) return 0;
  clearmatch(&node->path);
  return -1;
}

int do_add(const void __user *record, unsigned length) {
  const unsigned size = sizeof(struct prule);
  if (length != size) {
    printk("do_add: size %d != %d\n", length, size);
    return OX_ERR_SIZE;
  }
  const set_user set;
  kmem_owner<struct prule_node> node(
      set ? rulenode_cachep : nullptr,
      set ? static_cast<struct prule_node *>(kmem_cache_zalloc(rulenode_cachep, GFP_KERNEL))
          : nullptr);
  if (!node) {
    printk("do_add: kmem_cache_zalloc rulenode_cachep err\n");
    return OX_ERR_NOMEM;
  }
  init_node(node.get());
  const unsigned long left = copy_from_user(&node->rule, record, size);
  if (left) {
    printk("do_add: copy_from_user err, ret=%d, %d\n", static_cast<int>(left), size);
    return static_cast<int>(left);
  }
  /* A text without a NUL cannot be compiled. */
  const bool ended = strnlen(node->rule.workdir, OX_WORKDIR_LEN) < OX_WORKDIR_LEN;
  if (!ended || compile_workdir(node.get())) {
    printk("create reppath error!\n");
    return OX_ERR_PATTERN;
  }

  removed_rules removed;
  bool exists;
  {
    write_guard guard(ruleset.rwlock);
    take_flushed_locked(removed);
    exists = ruleset.find_locked(node->rule.uuid) != nullptr;
    node->status = PRULE_ACTIVE;
    if (!exists) {
      list_add_tail(&node->list, &ruleset.head);
      node->place = ++ruleset.last_place;
      rule_index_add(&ruleset.index, node->keys, node->keynum);
      ++ruleset.rulenum;
    }
  }
  if (exists) {
    clearmatch(&node->path);
    kfree(node->keys);
    return OX_ERR_EXIST;
  }
  prule_node_put(node.release());
  return 0;
}

int do_del(const void __user *record, unsigned length) {
  if (length != sizeof(struct prule)) return OX_ERR_REQUEST;
  uuid_t uuid;
  const unsigned long left = copy_from_user(uuid, record, sizeof(uuid));
  if (left) return static_cast<int>(left);
  const set_user set;
  if (!set) return OX_ERR_NOENT;
  prule_ref node(findnode_byuuid(uuid));
  return node ? delnode_fromlist(node.get()) : OX_ERR_NOENT;
}

int delnode_fromlist(struct prule_node *node) {
  removed_rules removed;
  write_guard guard(ruleset.rwlock);
  take_flushed_locked(removed);
  if (node->place) {
    --ruleset.rulenum;
    unindex_locked(node);
    removed.take_locked(node);
  }
  return 0;
}

void prule_stop(struct prule_node *node) {
  read_guard set_guard(ruleset.rwlock);
  spin_guard guard(ruleset.stop_lock);
  if (ox_load(node->status) == PRULE_STOPPED) return;
  ox_store(node->status, PRULE_STOPPED);
  if (!node->place) return;
  struct prule_node **at = &ruleset.stopped;
  while (*at && (*at)->place < node->place) at = &(*at)->next_stopped;
  /* Searches may be walking the list: they must find the rest. */
  ox_store(node->next_stopped, *at);
  smp_wmb();
  ox_store(*at, node);
}

static void flush_set() {
  {
    read_guard guard(ruleset.rwlock);
    ruleset.flushed.detach(
        &ruleset.head, [](struct list_head *) { ox_store(ruleset.rulenum, ruleset.rulenum - 1); });
  }
  removed_rules removed;
  write_try_guard guard(ruleset.rwlock);
  if (guard) take_flushed_locked(removed);
}

int do_flush(int) {
  const set_user set;
  if (set) flush_set();
  return 0;
}

/* ---- hits ---- */

/* Collects the first of the offered rules in list order. */
class first_hits {
 public:
  explicit first_hits(struct hit_rules *hits) : arr_(hits->arr), count_(0) {}

  /* Adds the rule if `path` hits it. Returns false if later rules of the list cannot be among the
   * first. */
  bool offer(struct prule_node *rule, const char *path) {
    if (count_ == HIT_RULES_MAX && rule->place > arr_[count_ - 1]->place) return false;
    int at = count_;
    while (at > 0 && arr_[at - 1]->place > rule->place) --at;
    if (at > 0 && arr_[at - 1] == rule) return true;
    if (ox_load(rule->status) != PRULE_STOPPED && match(&rule->path, path) == STATE_MISS) {
      return true;
    }
    if (count_ == HIT_RULES_MAX) --count_;
    for (int i = count_++; i > at; --i) arr_[i] = arr_[i - 1];
    arr_[at] = rule;
    return true;
  }

  /* Takes a reference on each and returns their number. */
  int get_all() {
    for (int i = 0; i < count_; ++i) prule_node_get(arr_[i]);
    return count_;
  }

 private:
  struct prule_node **arr_;
  int count_;
};

bool prule_set_is_empty(void) {
  return ox_first(&ruleset.head) == &ruleset.head;
}

int prule_get_hits(struct hit_rules *hits, const struct prule_path &path1,
                   const struct prule_path &path2) {
  first_hits first(hits);
  read_guard guard(ruleset.rwlock);
  /* The index may still contain flushed rules. */
  if (prule_set_is_empty()) return 0;
  struct prule_node *stopped = ox_load(ruleset.stopped);
  while (stopped && first.offer(stopped, path1.text)) stopped = ox_load(stopped->next_stopped);
  const struct prule_path *const paths[] = {&path1, &path2};
  for (const struct prule_path *path : paths) {
    if (!path->text) continue;
    rule_index_search(&ruleset.index, path->text, path->len,
                      [&](struct prule_node *rule) { return first.offer(rule, path->text); });
  }
  return first.get_all();
}

void prule_skip_numbers(const char *path1, const char *path2) {
  read_guard guard(ruleset.rwlock);
  for (struct list_head *p = ox_first(&ruleset.head); p != &ruleset.head; p = p->next) {
    struct prule_node *rule = list_entry(p, struct prule_node, list);
    if (ox_load(rule->status) == PRULE_STOPPED) continue;
    if (!path1 || prule_is_hit(rule, path1, path2)) atomic_inc(&rule->transnr);
  }
}

/* ---- start and stop ---- */

static void destroy_cache(struct kmem_cache *&cache) {
  struct kmem_cache *old = cache;
  cache = nullptr;
  kmem_cache_destroy(old);
}

/* The remaining rules are freed with the set. */
static void end_set(void) {
  set_user::end();
  flush_set();
}

int prule_init(void) {
  ruleset.init();
  ruleset.rulenum = 0;
  memset(&ruleset.index, 0, sizeof(ruleset.index));
  ruleset.stopped = nullptr;
  spin_lock_init(&ruleset.stop_lock);

  const unsigned long flags = SLAB_RECLAIM_ACCOUNT | SLAB_MEM_SPREAD;
  rulenode_cachep =
      kmem_cache_create("rulenode_cachep", sizeof(struct prule_node), 0, flags, nullptr, nullptr);
  if (!rulenode_cachep) {
    printk("prule_init: kmem_cache_create error.\n");
    return OX_ERR_NOMEM;
  }
  hit_rule_cache =
      kmem_cache_create("hit_rule_cache", sizeof(struct hit_rules), 0, flags, nullptr, nullptr);
  if (!hit_rule_cache) {
    printk("hit rule cache create error.\n");
    destroy_cache(rulenode_cachep);
    return OX_ERR_NOMEM;
  }
  set_user::begin();
  const int result = nf_register_sockopt(&prule_sockopts);
  if (result) {
    printk("prule_init: register sockopt error!\n");
    end_set();
    destroy_cache(rulenode_cachep); /* hit_rule_cache is not destroyed */
    return result;
  }
  printk("Register prule sockopt success\n");
  return 0;
}

void prule_exit(void) {
  nf_unregister_sockopt(&prule_sockopts);
  printk("prule_exit: flush ruleset\n");
  end_set();
  rwlock_init(&ruleset.rwlock);
  destroy_cache(rulenode_cachep);
  destroy_cache(hit_rule_cache);
}
