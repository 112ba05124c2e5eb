// SPDX-License-Identifier: GPL-2.0
#include "thread.h"

#include "netlink.h"
#include "ox_types.h"

ox_u32_t g_trans_timeout = 10000;

/* ---- sending ---- */

static int send_pages(struct tarn_trans *trans) {
  struct sk_buff **pages = trans_pages(trans);
  if (!ox_load(daemon_pid)) return 0;
  const tarn_hold_signals held;
  for (int i = 0; i < trans->pages; ++i) {
    struct ox_msg_wr *page = reinterpret_cast<struct ox_msg_wr *>(pages[i]->data + OX_NLMSG_HDRLEN);
    page->wseq = static_cast<ox_u32_t>(trans->seq);
    const int len = i == 0 ? OX_PAGE_PAYLOAD : static_cast<int>(page->dlen2 + OX_MSG_WR_LEN);
    const int result = tarn_send_page(&pages[i], len, OX_OP_WRITE, OX_NLM_F_MULTI,
                                      static_cast<ox_u32_t>(trans->seq));
    if (result < 0) {
      printk("tarn_send_netlink OX_OP_WRITE page fail\n");
      return result;
    }
  }
  return 0;
}

static int send_whole(struct tarn_trans *trans) {
  trans->msg.wseq = static_cast<ox_u32_t>(trans->seq);
  const int result = tarn_send_netlink(&trans->msg, static_cast<int>(trans_msglen(trans)),
                                       OX_OP_COLLECT, 0, static_cast<ox_u32_t>(trans->seq));
  if (result < 0) printk("tarn_send_netlink OX_OP_COLLECT fail\n");
  return result;
}

int trans_send(struct tarn_trans *trans) {
  bool paged = false;
  if (trans->msg.op == OX_OP_WRITE) {
    const ox_u16_t type = trans_wr(trans)->type;
    BUG_ON(type != OX_WRITE_WHOLE && type != OX_WRITE_PAGED);
    paged = type == OX_WRITE_PAGED;
  }
  const int result = paged ? send_pages(trans) : send_whole(trans);
  list_del_init(&trans->list);
  /* Sent pages are no longer in the record; frees the others. */
  tarn_trans_free(trans, 1);
  return result;
}

/* ---- the worker threads ---- */

/* Kinds of threads, terminated by null, and the number of each. */
static const ox_thread_cb_t tarn_thd_func[] = {tarn_thd_trans, nullptr};
static const char *const tarn_thd_name[] = {"tarn_trans", nullptr};
static const int pwkthd_nr[] = {1};
static ox_thread_t *ppwkthd[ARRAY_SIZE(pwkthd_nr)];

static int start_kind(int kind) {
  const int count = pwkthd_nr[kind];
  ox_thread_t *threads =
      static_cast<ox_thread_t *>(ox_malloc(count * sizeof(ox_thread_t), GFP_KERNEL | __GFP_ZERO));
  if (!threads) return -ENOMEM;
  ppwkthd[kind] = threads;
  int result = 0;
  for (int j = 0; j < count && result == 0; ++j) {
    ox_thread_init(&threads[j], tarn_thd_name[kind], 0, static_cast<ox_u16_t>(j),
                   tarn_thd_func[kind], nullptr);
    result = ox_thread_create(&threads[j]);
  }
  return result;
}

int tarn_start_threads(void) {
  memset(ppwkthd, 0, sizeof(ppwkthd));
  for (int kind = 0; tarn_thd_func[kind] && tarn_thd_name[kind]; ++kind) {
    const int result = start_kind(kind);
    if (result < 0) {
      tarn_stop_threads();
      return result;
    }
  }
  return 0;
}

/* A thread whose start timed out can be stopped only once it is running. */
static void wait_until_up(ox_thread_t *thread) {
  if (!(ox_load(thread->t_flags) & OX_THREAD_RUNNING)) wait_for_completion(&thread->t_up);
}

static void stop_kind(int kind) {
  ox_thread_t *threads = ppwkthd[kind];
  if (!threads) return;
  ppwkthd[kind] = nullptr;
  for (int j = 0; j < pwkthd_nr[kind]; ++j) {
    if (!threads[j].t_task) continue; /* never created */
    wait_until_up(&threads[j]);
    __atomic_fetch_or(&threads[j].t_flags, OX_THREAD_STOP, __ATOMIC_RELAXED);
    complete(&g_tworker_waits);
  }
  for (int j = 0; j < pwkthd_nr[kind]; ++j) {
    if (threads[j].t_task) ox_thread_kill(&threads[j]);
  }
  ox_free(threads);
}

int tarn_stop_threads(void) {
  for (int kind = 0; tarn_thd_func[kind] && tarn_thd_name[kind]; ++kind) stop_kind(kind);
  return 0;
}

/* Takes the next rule with waiting records, with the queue's reference; null if there is none or
 * the thread has to stop. */
static struct prule_node *next_rule(ox_thread_t *thread) {
  spin_guard guard(g_transq.lock);
  if (list_empty(&g_transq.head) || ox_thread_stopping(thread)) return nullptr;
  struct prule_node *rule = list_entry(g_transq.head.next, struct prule_node, aux_list);
  list_del_init(&rule->aux_list);
  return rule;
}

/* Takes the rule's waiting records and puts them back. False if there are none. */
static bool turn_records(struct prule_node *rule) {
  LIST_HEAD(records);
  {
    spin_guard guard(rule->node_lock);
    list_splice_init(&rule->transq, &records);
  }
  if (list_empty(&records)) return false;
  spin_guard guard(rule->node_lock);
  list_splice(&records, &rule->transq);
  return true;
}

static void queue_again(struct prule_node *rule) {
  spin_guard guard(g_transq.lock);
  if (!list_empty(&rule->aux_list)) return;
  prule_node_get(rule);
  list_add_tail(&rule->aux_list, &g_transq.head);
}

int tarn_thd_trans(ox_thread_t *thread) {
  printk("tarn_thd_trans: start\n");
  do {
    ox_complete_timedwait(&g_tworker_waits, g_trans_timeout);
    while (struct prule_node *node = next_rule(thread)) {
      prule_ref rule(node);
      if (turn_records(node)) queue_again(node);
    }
  } while (!ox_thread_stopping(thread));
  printk("tarn_thd_trans: recv stop event\n");
  printk("tarn_thd_trans: stop\n");
  return 0;
}
