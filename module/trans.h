/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Change capture: from a change that was made on a lower object to one record per rule that it
 * hits, sent at once by the task that made the change.
 *
 * A record belongs to its builder until tarn_trans_commit, which sends and frees it. It owns one
 * reference on its rule. The builders take the rule set's lock for reading while they look for
 * hits, and what prule_stop takes, but no other lock; they sleep, also waiting for the daemon; they
 * may be called with the locks of the lower directories held. Where no memory can be had for a
 * record its rule is stopped for good and the daemon is told.
 */
#ifndef TARN_TRANS_H
#define TARN_TRANS_H

#include "kernel.h"
#include "ox_msg.h"
#include "ox_que.h"
#include "path.h"
#include "rule.h"

/* One change record in memory: these fields, then the wire record in its full length. */
struct tarn_trans {
  struct list_head list;
  union {
    struct prule_node *r;
    ox_u64_t pad0;
  };
  ox_s32_t pad1;
  int seq;     /* its number within the rule; 0 until commit */
  int wr_size; /* bytes of the write */
  int pages;   /* page buffers of a write; 1 when it is whole */
  struct ox_msg msg;
};

/* Bytes of the fields in front of the wire record. */
#define TARN_TRANS_FIELDS 40
static_assert(__builtin_offsetof(struct tarn_trans, msg) == TARN_TRANS_FIELDS,
              "the wire record follows the fields");

/* The wire record as its variant. */
inline struct ox_msg_para *trans_para(struct tarn_trans *trans) {
  return reinterpret_cast<struct ox_msg_para *>(&trans->msg);
}
inline const struct ox_msg_para *trans_para(const struct tarn_trans *trans) {
  return reinterpret_cast<const struct ox_msg_para *>(&trans->msg);
}
inline struct ox_msg_attr *trans_attr(struct tarn_trans *trans) {
  return reinterpret_cast<struct ox_msg_attr *>(&trans->msg);
}
inline struct ox_msg_wr *trans_wr(struct tarn_trans *trans) {
  return reinterpret_cast<struct ox_msg_wr *>(&trans->msg);
}
inline const struct ox_msg_wr *trans_wr(const struct tarn_trans *trans) {
  return reinterpret_cast<const struct ox_msg_wr *>(&trans->msg);
}
/* The page buffers of a paged write, which stand where the data of a whole one is, aligned. */
constexpr unsigned long trans_pages_at(unsigned long dlen1) {
  return (TARN_TRANS_FIELDS + OX_MSG_WR_LEN + dlen1 + sizeof(void *) - 1) & ~(sizeof(void *) - 1);
}
inline struct sk_buff **trans_pages(struct tarn_trans *trans) {
  return reinterpret_cast<struct sk_buff **>(reinterpret_cast<char *>(trans) +
                                             trans_pages_at(trans_wr(trans)->dlen1));
}

struct mem_option {
  ox_s32_t mem_max;  /* not enforced */
  atomic_t mem_used; /* bytes of all records in existence */
};

extern struct mem_option g_option;
/* Rules with records that wait; nothing puts any there. */
extern ox_que_t g_transq;
/* What the sender thread sleeps on. */
extern struct completion g_tworker_waits;

/* Length of the wire record, told by its own fields; 0 for an unknown operation. */
ox_u32_t trans_msglen(const struct tarn_trans *trans);
/* Charges the record to its rule and to the total; the bytes behind the common header. */
ox_s32_t mem_buff_add(struct tarn_trans *trans);
/* What every record begins with. */
void trans_init(struct tarn_trans *trans, struct prule_node *rule, ox_u32_t op);
/* A record with room for `len` wire bytes. It takes over the caller's reference on the rule. Null
 * without memory. */
[[nodiscard]] struct tarn_trans *tarn_var_alloc(struct prule_node *rule, ox_u32_t op, ox_u32_t len,
                                                gfp_t gfp = GFP_KERNEL);
/*
 * The rules that either path (path2 may be null) hits, at most 32, with a reference on each, in a
 * new array from hit_rule_cache. Their number, or -ENOMEM.
 */
[[nodiscard]] int tarn_get_hit_rule(struct hit_rules **hits, const char *path1, const char *path2,
                                    gfp_t gfp = GFP_KERNEL);
/* Numbers the record unless it has its number, sends it and frees it. 0, however the sending went.
 */
int tarn_trans_commit(struct tarn_trans *trans, struct prule_node *rule);
/* Puts the rule on g_transq, with a reference, unless it is there, and wakes the sender thread. 0.
 */
int tarn_transq_submit(struct prule_node *rule);
/* Gives the charge, the rule's reference and the record back. Page buffers only with free_pages
 * non-zero. 0. */
int tarn_trans_free(struct tarn_trans *trans, int free_pages);
int tarn_wrtrans_free(struct tarn_trans *trans, int free_pages);
/* Stops the rule of a record that could not be made, and tells the daemon. */
void tarn_stop_rule(struct prule_node *rule);

/*
 * The builders. 0; -ENOMEM when the hits could not be collected or a record could not be made. A
 * change of a dentry without a lower path is not captured, and the result is 0.
 */
int tarn_para_sync(ox_u32_t op, const char *path1, const char *path2, int mode);
int tarn_sync_1dentry(ox_u32_t op, struct dentry *dentry, int mode);
/* `in_place`: the first path is that dentry's own name, see tarn_record_path. */
int tarn_sync_2dentry(ox_u32_t op, struct dentry *dentry1, struct dentry *dentry2,
                      class tarn_name_change *change = nullptr, bool in_place = false);
int tarn_sym_sync(struct dentry *dentry, const char *symname, int mode);
int tarn_attr_sync(struct dentry *dentry, const struct iattr *iattr);
/*
 * A change of names: the paths, of which `second` may be null, are taken while nobody else's names
 * change. `change` is that of a rename or a link, which it ends; null for a removal.
 */
int tarn_names_sync(ox_u32_t op, tarn_record_path &first, tarn_record_path *second, int mode,
                    class tarn_name_change *change);
/* The mode that the lower object has, if the records have told another one so far: its file system
 * takes set-id bits away when a stranger writes, or gives a directory the set-group-id bit of the
 * one above. */
void tarn_mode_sync(struct dentry *dentry, umode_t told);
/* `buf` is read with copy_from_user; a fault there stops the rule as missing memory does. */
int tarn_write_sync(struct dentry *dentry, const char __user *buf, size_t count, loff_t offset);

/* Sets the queue up and starts the sender thread; the error of its start. */
[[nodiscard]] int tarn_trans_init(void);
/* Stops the sender thread, then tears the queue down. 0. */
int tarn_trans_exit(void);

#endif
