// SPDX-License-Identifier: GPL-2.0
#include "rule.h"

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

/* Differs between rules that were added one after the other, also where the clock went back or the
 * module was loaded anew in between. */
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
  atomic_set(&node->refcnt, 2); /* the list's and its maker's */
  node->mem_max = PRULE_MEM_MAX;
  node->generation = new_generation();
  initmatch(&node->path, 0, 1, CMP_STR);
  spin_lock_init(&node->node_lock);
}

/* ---- the set ---- */

/* With the lock held for writing: a path that the node includes does not lead to it any more. */
static void unindex_locked(struct prule_node *node) {
  rule_index_del(&ruleset.index, node->keys, node->keynum);
  for (struct prule_node **at = &ruleset.stopped; *at; at = &(*at)->next_stopped) {
    if (*at != node) continue;
    *at = node->next_stopped;
    break;
  }
  node->place = 0;
}

/* Nodes that were taken off the set, under its lock; gives the list's references back once it is
 * released. */
class removed_rules {
 public:
  removed_rules() { INIT_LIST_HEAD(&nodes_); }
  ~removed_rules() {
    struct prule_node *node, *next;
    list_for_each_entry_safe(node, next, &nodes_, list) {
      list_del_init(&node->list);
      prule_node_put(node);
    }
  }
  removed_rules(const removed_rules &) = delete;
  removed_rules &operator=(const removed_rules &) = delete;

  /* With the lock held for writing, before anything else: what flushes have left behind. A flush
   * takes all there is, and nothing has come since: the index is of these alone. */
  void take_flushed_locked() {
    ruleset.flushed.drain(&ruleset.head, &nodes_);
    if (list_empty(&nodes_)) return;
    memset(&ruleset.index, 0, sizeof(ruleset.index));
    ruleset.stopped = nullptr;
    struct prule_node *node;
    list_for_each_entry(node, &nodes_, list) node->place = 0;
  }
  void take_locked(struct prule_node *node) {
    unindex_locked(node);
    list_move_tail(&node->list, &nodes_);
  }

 private:
  struct list_head nodes_;
};

static struct prule_node *find_locked(const uuid_t uuid) {
  for (struct list_head *p = ox_first(&ruleset.head); p != &ruleset.head; p = p->next) {
    struct prule_node *node = list_entry(p, struct prule_node, list);
    if (uuid_same(node->rule.uuid, uuid)) return node;
  }
  return nullptr;
}

struct prule_node *findnode_byuuid(const uuid_t uuid) {
  read_guard guard(ruleset.rwlock);
  struct prule_node *node = find_locked(uuid);
  if (node) prule_node_get(node);
  return node;
}

/*
 * Messages with rules come on their own socket, also before prule_init, beside prule_exit and after
 * it. Each holds the set for as long as it is at work. This is no lock, because it has to hold
 * before any lock has been made.
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

  /* What prule_init has made can be used from now on. */
  static void begin() {
    smp_wmb();
    ox_store(exists_, true);
  }
  /* Nobody comes any more, and who is there has gone. Sleeps. */
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
  static atomic_t users_; /* who found no set does not count for longer than that takes */
  bool counted_;
};

bool set_user::exists_;
atomic_t set_user::users_;

/* The automaton and the keys of the node's workdir. 0, or -1 without memory, with neither. */
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
  /* A text without an end cannot be compiled. */
  const bool ended = strnlen(node->rule.workdir, OX_WORKDIR_LEN) < OX_WORKDIR_LEN;
  if (!ended || compile_workdir(node.get())) {
    printk("create reppath error!\n");
    return OX_ERR_PATTERN;
  }

  removed_rules removed;
  bool exists;
  {
    write_guard guard(ruleset.rwlock);
    removed.take_flushed_locked();
    exists = find_locked(node->rule.uuid) != nullptr;
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
  removed.take_flushed_locked();
  if (node->place) {
    --ruleset.rulenum;
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
  /* Searches go on meanwhile: what they find leads on to the rest. */
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
  if (guard) removed.take_flushed_locked();
}

int do_flush(int) {
  const set_user set;
  if (set) flush_set();
  return 0;
}

/* ---- socket options ---- */

int do_ox_set_ctl(struct sock *, int code, void __user *user, unsigned int length) {
  if (!capable(CAP_NET_ADMIN)) return -EPERM;
  switch (code) {
    case OX_SO_REP_ADD:
      return do_add(user, length);
    case OX_SO_REP_DEL:
      return do_del(user, length);
    case OX_SO_REP_FLUSH:
      return do_flush(0);
    default:
      printk("do_ox_set_ctl: unknown request %i\n", code);
      return OX_ERR_REQUEST;
  }
}

static int get_rule(void __user *user, int *length) {
  if (static_cast<unsigned>(*length) < sizeof(struct prule_info)) return OX_ERR_SIZE;
  struct prule_info info;
  unsigned long left = copy_from_user(&info, user, sizeof(info));
  if (left) return static_cast<int>(left);
  prule_ref node(findnode_byuuid(info.uuid));
  if (!node) return OX_ERR_NOENT;
  left = copy_to_user(user, &node->rule, sizeof(node->rule));
  *length = sizeof(node->rule);
  return static_cast<int>(left);
}

/*
 * All rules at one moment, each with a reference: what is copied to user space must not be under
 * the lock. The references stand in blocks of a page, since the kernel gives no block that is large
 * enough for any number of them.
 */
class rule_snapshot {
 public:
  rule_snapshot() = default;
  ~rule_snapshot() {
    while (struct block *block = blocks_) {
      for (int i = 0; i < block->used; ++i) prule_node_put(block->nodes[i]);
      blocks_ = block->next;
      kfree(block);
    }
  }
  rule_snapshot(const rule_snapshot &) = delete;
  rule_snapshot &operator=(const rule_snapshot &) = delete;

  /* 0; OX_ERR_COUNT when there are not `count` rules; OX_ERR_NOMEM. */
  int take(int count) {
    {
      read_guard guard(ruleset.rwlock);
      if (count != ox_load(ruleset.rulenum)) return OX_ERR_COUNT;
    }
    for (int room = 0; room < count; room += kBlockNodes) {
      struct block *block = static_cast<struct block *>(kzalloc(sizeof(*block), GFP_KERNEL));
      if (!block) return OX_ERR_NOMEM;
      block->next = blocks_;
      blocks_ = block;
    }
    read_guard guard(ruleset.rwlock);
    if (count != ox_load(ruleset.rulenum)) return OX_ERR_COUNT;
    /* A flush may be at work beside us: there may be fewer by now. */
    struct list_head *p = ox_first(&ruleset.head);
    for (struct block *block = blocks_; block; block = block->next) {
      for (; p != &ruleset.head && count_ < count && block->used < kBlockNodes; p = p->next) {
        struct prule_node *node = list_entry(p, struct prule_node, list);
        prule_node_get(node);
        block->nodes[block->used++] = node;
        ++count_;
      }
    }
    return 0;
  }

  int count() const { return count_; }

  /* each(rule) in list order until it returns something else than 0, which is the result. */
  template <typename Each>
  unsigned long each(Each each) const {
    for (const struct block *block = blocks_; block; block = block->next) {
      for (int i = 0; i < block->used; ++i) {
        if (const unsigned long result = each(block->nodes[i]->rule)) return result;
      }
    }
    return 0;
  }

 private:
  static const int kBlockNodes = PAGE_SIZE / sizeof(void *) - 2;
  struct block {
    struct block *next;
    int used;
    struct prule_node *nodes[kBlockNodes];
  };
  static_assert(sizeof(struct block) == PAGE_SIZE, "a block is a page");

  struct block *blocks_ = nullptr;
  int count_ = 0;
};

static int get_rules(void __user *user, int *length) {
  if (static_cast<unsigned>(*length) != sizeof(struct prule_info)) return OX_ERR_SIZE;
  struct prule_info info;
  unsigned long left = copy_from_user(&info, user, sizeof(info));
  if (left) return static_cast<int>(left);
  rule_snapshot rules;
  const int result = rules.take(info.rulenum);
  if (result) return result;
  struct prule __user *slot = static_cast<struct prule __user *>(user);
  left = rules.each(
      [&slot](const struct prule &rule) { return copy_to_user(slot++, &rule, sizeof(rule)); });
  if (left) return static_cast<int>(left);
  *length = static_cast<int>(rules.count() * sizeof(struct prule));
  return 0;
}

static int get_info(void __user *user, int *length) {
  if (static_cast<unsigned>(*length) < sizeof(struct prule_info)) return OX_ERR_SIZE;
  struct prule_info info;
  const unsigned long left = copy_from_user(&info, user, sizeof(info));
  if (left) return static_cast<int>(left);
  int answer;
  if (info.op == OX_INFO_COUNT) {
    read_guard guard(ruleset.rwlock);
    answer = ox_load(ruleset.rulenum);
  } else if (info.op == OX_INFO_EXIST) {
    prule_ref node(findnode_byuuid(info.uuid));
    if (!node) return 0; /* the caller has put its own answer for this there */
    answer = 1;
  } else {
    return OX_ERR_SIZE;
  }
  char __user *field = static_cast<char __user *>(user) + __builtin_offsetof(prule_info, rulenum);
  return static_cast<int>(copy_to_user(field, &answer, sizeof(answer)));
}

int do_ox_get_ctl(struct sock *, int code, void __user *user, int *length) {
  if (!capable(CAP_NET_ADMIN)) return -EPERM;
  switch (code) {
    case OX_SO_GET_INFO:
      return get_info(user, length);
    case OX_SO_GET_RULE:
      return get_rule(user, length);
    case OX_SO_GET_RULES:
      return get_rules(user, length);
    default:
      printk("do_ox_get_ctl: unknown request %i\n", code);
      return OX_ERR_REQUEST;
  }
}

static struct nf_sockopt_ops prule_sockopts = {
    .list = {},
    .pf = PF_INET,
    .set_optmin = OX_SO_RULE_SET_FIRST,
    .set_optmax = OX_SO_RULE_SET_LAST + 1,
    .set = do_ox_set_ctl,
    .compat_set = nullptr,
    .get_optmin = OX_SO_RULE_GET_FIRST,
    .get_optmax = OX_SO_RULE_GET_LAST + 1,
    .get = do_ox_get_ctl,
    .compat_get = nullptr,
    .use = 0,
    .cleanup_task = nullptr,
};

/* ---- start and stop ---- */

static void destroy_cache(struct kmem_cache *&cache) {
  struct kmem_cache *old = cache;
  cache = nullptr;
  kmem_cache_destroy(old);
}

/* The rules that are left go with the set. */
static void end_set(void) {
  set_user::end();
  flush_set();
}

int prule_init(void) {
  INIT_LIST_HEAD(&ruleset.head);
  ruleset.rulenum = 0;
  rwlock_init(&ruleset.rwlock);
  ox_flush_init(&ruleset.flushed);
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
    destroy_cache(rulenode_cachep); /* the cache of hit arrays stays */
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
