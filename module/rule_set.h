/* SPDX-License-Identifier: GPL-2.0 */
/* What the set of rules is made of: for the files that implement it, and their tests. */
#ifndef TARN_RULE_SET_H
#define TARN_RULE_SET_H

#include "ox_set.h"
#include "rule.h"

struct prule_set : ox_set<struct prule_node> {
  int rulenum;
  ox_u64_t last_place;
  struct rule_index index; /* of all nodes; after a flush also of those it took off */
  /* The stopped rules in list order, likewise. Put in under stop_lock, while others may read. */
  struct prule_node *stopped;
  spinlock_t stop_lock;
};

extern struct nf_sockopt_ops prule_sockopts;

#endif
