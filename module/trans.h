/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Change capture: builds one record per hit rule of a change of a lower object, and sends it at
 * once in the task that made the change.
 *
 * A builder owns a record until tarn_trans_commit, which sends and frees it. A record owns one
 * reference on its rule. The builders take the spin locks of path.h, the rule set's lock for
 * reading, and stop_lock, but no mutex. They sleep, also while they wait for the daemon, and may be
 * called with the locks of the lower directories held. Without memory for a record its rule is
 * stopped permanently and the daemon is told.
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
  int seq;     /* its number within the rule; 0 until it is numbered */
  int wr_size; /* bytes of the write */
  int pages;   /* page buffers of a write; 1 for a whole one */
  struct ox_msg msg;
};

/* Bytes of the fields before the wire record. */
#define TARN_TRANS_FIELDS 40
static_assert(__builtin_offsetof(struct tarn_trans, msg) == TARN_TRANS_FIELDS,
              "the wire record follows the fields");

/* The wire record by its type. */
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
/* The page buffers of a paged write, aligned, in the place of a whole write's data. */
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
/* Rules with waiting records; the module itself queues none. */
extern ox_que_t g_transq;
/* The sender thread waits for it. */
extern struct completion g_tworker_waits;

/* The length of the wire record from its own fields; 0 for an unknown operation. */
ox_u32_t trans_msglen(const struct tarn_trans *trans);
/* Charges the record to its rule and to the total. Returns its bytes after the common header. */
ox_s32_t mem_buff_add(struct tarn_trans *trans);
/* Initializes the common part of a record. */
void trans_init(struct tarn_trans *trans, struct prule_node *rule, ox_u32_t op);
/* Makes a record with room for `len` wire bytes; takes over the caller's reference on the rule.
 * Null without memory. */
[[nodiscard]] struct tarn_trans *tarn_var_alloc(struct prule_node *rule, ox_u32_t op, ox_u32_t len,
                                                gfp_t gfp = GFP_KERNEL);
/*
 * Finds the rules that either path (path2 may be null) hits, at most 32, with a reference on each,
 * in a new array from hit_rule_cache. Returns their number, or -ENOMEM.
 */
[[nodiscard]] int tarn_get_hit_rule(struct hit_rules **hits, const struct prule_path &path1,
                                    const struct prule_path &path2, gfp_t gfp = GFP_KERNEL);
[[nodiscard]] inline int tarn_get_hit_rule(struct hit_rules **hits, const char *path1,
                                           const char *path2) {
  return tarn_get_hit_rule(hits, prule_path_of(path1), prule_path_of(path2));
}
/* Numbers the record if it has no number, sends it and frees it. Always returns 0. */
int tarn_trans_commit(struct tarn_trans *trans, struct prule_node *rule);
/* Puts the rule on g_transq with a reference, unless it is on it, and wakes the sender thread.
 * Returns 0. */
int tarn_transq_submit(struct prule_node *rule);
/* Undoes the charge, drops the rule's reference and frees the record; page buffers only if
 * free_pages is non-zero. Returns 0. */
int tarn_trans_free(struct tarn_trans *trans, int free_pages);
int tarn_wrtrans_free(struct tarn_trans *trans, int free_pages);
/* Stops the rule of a record that could not be made, and tells the daemon. */
void tarn_stop_rule(struct prule_node *rule);

/*
 * The builders. Return 0; -ENOMEM if the hits could not be collected or a record could not be made.
 * A change of a dentry without a lower path is not captured and returns 0.
 */
int tarn_para_sync(ox_u32_t op, const char *path1, const char *path2, int mode);
int tarn_sync_1dentry(ox_u32_t op, struct dentry *dentry, int mode);
/* `in_place`: the first path is that dentry's own name (tarn_record_path). */
int tarn_sync_2dentry(ox_u32_t op, struct dentry *dentry1, struct dentry *dentry2,
                      class tarn_name_change *change = nullptr, bool in_place = false);
int tarn_sym_sync(struct dentry *dentry, const char *symname, int mode);
int tarn_attr_sync(struct dentry *dentry, const struct iattr *iattr);
/*
 * Captures a change of names with paths that are valid when it is numbered; `second` may be null.
 * `change` is that of a rename or a link and is ended; null for a removal.
 */
int tarn_names_sync(ox_u32_t op, tarn_record_path &first, tarn_record_path *second, int mode,
                    class tarn_name_change *change);
/* Captures the lower object's mode if it differs from `told`, the last recorded one: its file
 * system clears set-id bits on a write by another user, or a directory inherits the set-group-id
 * bit. */
void tarn_mode_sync(struct dentry *dentry, umode_t told);
/* Reads `buf` with copy_from_user; a fault stops the rule, as missing memory does. */
int tarn_write_sync(struct dentry *dentry, const char __user *buf, size_t count, loff_t offset);

/* Initializes the queue and starts the sender thread. Returns the error of its start. */
[[nodiscard]] int tarn_trans_init(void);
/* Stops the sender thread and clears the queue. Returns 0. */
int tarn_trans_exit(void);

#endif
