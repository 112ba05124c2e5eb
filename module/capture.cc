// SPDX-License-Identifier: GPL-2.0
/* Paths, rule hits and numbers of a change. */

#include "capture.h"

#include "ox_types.h"
#include "ox_uuid.h"

enum tarn_numbering change_paths::number(struct tarn_trans **records, int count,
                                         enum tarn_names_effect effect, tarn_name_change *change) {
  for (;;) {
    const enum tarn_numbering result = names_.number(records, count, effect, change);
    if (result != TARN_NAMES_MOVED) return result;
    /* The change of names rarely affects these paths: take them again. */
    take(GFP_NOFS);
    if (changed()) return result;
  }
}

void capture_leave_out(const struct prule_node *rule, int number, const char *why,
                       const char *path) {
  char uuid[OX_UUID_TEXT];
  uuid_unparse_upper(rule->rule.uuid, uuid);
  printk("<3>tarn_trans: rule %s: record %d is left out, %s: %.880s\n", uuid, number, why, path);
}

void capture_leave_out_next(struct prule_node *rule, const char *why, const char *path) {
  capture_leave_out(rule, atomic_inc_return(&rule->transnr), why, path);
}

bool capture_paths(change_paths &paths, gfp_t gfp) {
  if (paths.take(gfp)) return true;
  if (paths.without_memory()) prule_skip_numbers(nullptr, nullptr);
  return false;
}

int capture_hits(struct hit_rules **hits, const change_paths &paths, gfp_t gfp) {
  const int count = tarn_get_hit_rule(hits, paths.text1(), paths.text2(), gfp);
  if (count < 0) prule_skip_numbers(paths.path1(), paths.path2());
  return count;
}

const char capture_too_long[] = "its path is too long";
const char capture_busy[] = "a change of names has taken too long";

void capture_discard(struct tarn_trans *trans) {
  struct prule_node *rule = trans->r;
  ox_store(rule->bytes_send, ox_load(rule->bytes_send) - (trans_msglen(trans) - OX_MSG_LEN));
  prule_node_get(rule); /* returns the record's reference to its maker */
  tarn_trans_free(trans, 1);
}

int capture_failed(struct prule_node *rule, const char *failure) {
  tarn_stop_rule(rule);
  printk("%s", failure);
  return -ENOMEM;
}
