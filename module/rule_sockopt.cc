// SPDX-License-Identifier: GPL-2.0
/* The socket options that manage the rules. */

#include "rule_set.h"

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
 * All rules at one moment, with a reference on each: they must not be copied to user space under
 * the lock. The references are stored in blocks of a page, as kmalloc is limited.
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

  /* Returns 0; OX_ERR_COUNT if there are not `count` rules; OX_ERR_NOMEM. */
  int take(int count) {
    {
      read_guard guard(get_prule_set()->rwlock);
      if (count != ox_load(get_prule_set()->rulenum)) return OX_ERR_COUNT;
    }
    for (int room = 0; room < count; room += kBlockNodes) {
      struct block *block = static_cast<struct block *>(kzalloc(sizeof(*block), GFP_KERNEL));
      if (!block) return OX_ERR_NOMEM;
      block->next = blocks_;
      blocks_ = block;
    }
    read_guard guard(get_prule_set()->rwlock);
    if (count != ox_load(get_prule_set()->rulenum)) return OX_ERR_COUNT;
    /* A concurrent flush may have removed some. */
    struct list_head *p = ox_first(&get_prule_set()->head);
    for (struct block *block = blocks_; block; block = block->next) {
      for (; p != &get_prule_set()->head && count_ < count && block->used < kBlockNodes;
           p = p->next) {
        struct prule_node *node = list_entry(p, struct prule_node, list);
        prule_node_get(node);
        block->nodes[block->used++] = node;
        ++count_;
      }
    }
    return 0;
  }

  int count() const { return count_; }

  /* Calls each(rule) in list order until it returns non-zero, which is the result. */
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
    read_guard guard(get_prule_set()->rwlock);
    answer = ox_load(get_prule_set()->rulenum);
  } else if (info.op == OX_INFO_EXIST) {
    prule_ref node(findnode_byuuid(info.uuid));
    if (!node) return 0; /* the caller has preset the answer for this */
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

struct nf_sockopt_ops prule_sockopts = {
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
