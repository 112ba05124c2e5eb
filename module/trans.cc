// SPDX-License-Identifier: GPL-2.0
#include "trans.h"

#include "netlink.h"
#include "ox_guard.h"
#include "ox_types.h"
#include "ox_uuid.h"
#include "tarn.h"
#include "thread.h"

struct mem_option g_option;
ox_que_t g_transq;
struct completion g_tworker_waits;

/* ---- records ---- */

ox_u32_t trans_msglen(const struct tarn_trans *trans) {
  if (trans->msg.op <= OX_OP_RENAME) {
    return OX_MSG_PARA_LEN + trans_para(trans)->dlen1 + trans_para(trans)->dlen2;
  }
  if (trans->msg.op == OX_OP_SETATTR) return OX_MSG_ATTR_LEN + trans->msg.l1 + trans->msg.l2;
  if (trans->msg.op == OX_OP_WRITE) {
    return OX_MSG_WR_LEN + trans_wr(trans)->dlen1 + trans_wr(trans)->dlen2;
  }
  return 0;
}

static int trans_charge(const struct tarn_trans *trans) {
  return static_cast<int>(trans_msglen(trans) + TARN_TRANS_FIELDS);
}

ox_s32_t mem_buff_add(struct tarn_trans *trans) {
  const int charge = trans_charge(trans);
  const ox_s32_t behind_head = static_cast<ox_s32_t>(trans_msglen(trans) - OX_MSG_LEN);
  atomic_add(charge, &g_option.mem_used);
  atomic_add(charge, &trans->r->mem_used);
  ox_store(trans->r->bytes_send, ox_load(trans->r->bytes_send) + behind_head);
  return behind_head;
}

void trans_init(struct tarn_trans *trans, struct prule_node *rule, ox_u32_t op) {
  INIT_LIST_HEAD(&trans->list);
  memcpy(trans->msg.uuid, rule->rule.uuid, sizeof(trans->msg.uuid));
  trans->msg.op = static_cast<ox_u8_t>(op);
  trans->msg.os = OX_OS_LINUX;
  trans->msg.seq = rule->generation;
  trans->msg.ts = ox_current_time_us();
  trans->r = rule;
  trans->seq = 0;
  trans->wr_size = 0;
}

/* Sets the lengths to `len` wire bytes, so that the charge equals the later release. */
static void set_lengths(struct tarn_trans *trans, ox_u32_t len) {
  if (trans->msg.op == OX_OP_SETATTR) {
    trans_attr(trans)->dlen2 = len - OX_MSG_ATTR_LEN;
  } else if (trans->msg.op == OX_OP_WRITE) {
    trans_wr(trans)->dlen2 = len - OX_MSG_WR_LEN;
  } else {
    trans_para(trans)->dlen1 = static_cast<ox_u16_t>(len - OX_MSG_PARA_LEN);
  }
}

struct tarn_trans *tarn_var_alloc(struct prule_node *rule, ox_u32_t op, ox_u32_t len, gfp_t gfp) {
  /* Cleared: fields without a meaning are zero on the wire. */
  struct tarn_trans *trans = static_cast<struct tarn_trans *>(
      ox_malloc(static_cast<ox_u64_t>(TARN_TRANS_FIELDS) + len, gfp | __GFP_ZERO));
  if (!trans) return nullptr;
  trans_init(trans, rule, op);
  set_lengths(trans, len);
  mem_buff_add(trans);
  return trans;
}

int tarn_wrtrans_free(struct tarn_trans *trans, int free_pages) {
  if (trans_wr(trans)->type == OX_WRITE_PAGED && free_pages) {
    struct sk_buff **pages = trans_pages(trans);
    for (int i = trans->pages - 1; i >= 0; --i) {
      if (pages[i]) kfree_skb(pages[i]);
    }
  }
  return ox_free(trans);
}

int tarn_trans_free(struct tarn_trans *trans, int free_pages) {
  const int charge = trans_charge(trans);
  atomic_sub(charge, &g_option.mem_used);
  atomic_sub(charge, &trans->r->mem_used);
  prule_node_put(trans->r);
  return trans->msg.op == OX_OP_WRITE ? tarn_wrtrans_free(trans, free_pages) : ox_free(trans);
}

int tarn_trans_commit(struct tarn_trans *trans, struct prule_node *rule) {
  if (!trans->seq) trans->seq = atomic_inc_return(&rule->transnr);
  trans_send(trans);
  return 0;
}

int tarn_transq_submit(struct prule_node *rule) {
  spin_guard guard(g_transq.lock);
  if (list_empty(&rule->aux_list)) {
    prule_node_get(rule);
    list_add_tail(&rule->aux_list, &g_transq.head);
    complete(&g_tworker_waits);
  }
  return 0;
}

/* ---- hits ---- */

int tarn_get_hit_rule(struct hit_rules **hits, const struct prule_path &path1,
                      const struct prule_path &path2, gfp_t gfp) {
  struct hit_rules *found = static_cast<struct hit_rules *>(kmem_cache_zalloc(hit_rule_cache, gfp));
  if (!found) return -ENOMEM;
  *hits = found;
  return prule_get_hits(found, path1, path2);
}

void tarn_stop_rule(struct prule_node *rule) {
  prule_stop(rule);
  tarn_send_stop_rule(rule->rule.uuid);
}

/* ---- start and stop ---- */

int tarn_trans_init(void) {
  atomic_set(&g_option.mem_used, 0);
  g_option.mem_max = PRULE_MEM_MAX;
  ox_que_init(&g_transq);
  init_completion(&g_tworker_waits);
  tarn_names_init();
  return tarn_start_threads();
}

int tarn_trans_exit(void) {
  tarn_stop_threads();
  init_completion(&g_tworker_waits);
  printk("tarn_trans_exit: flush g_transq\n");
  ox_que_init(&g_transq);
  return 0;
}
