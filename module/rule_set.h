/* SPDX-License-Identifier: GPL-2.0 */
/* The structures of the set of rules, for its implementation and tests. */
#ifndef TARN_RULE_SET_H
#define TARN_RULE_SET_H

#include "ox_set.h"
#include "rule.h"

struct prule_set : ox_set<struct prule_node> {
  int rulenum;
  ox_u64_t last_place;
  struct rule_index index; /* of all nodes; after a flush also of the detached ones */
  /* The stopped rules in list order, flushed ones too. Inserted under stop_lock, while others may
   * read. */
  struct prule_node *stopped;
  spinlock_t stop_lock;
};

extern struct nf_sockopt_ops prule_sockopts;

#endif
