// SPDX-License-Identifier: GPL-2.0
/* Records of changes of names. */

#include "capture.h"

static const char para_failure[] = "tarn_para_sync: tarn_para_alloc fail\n";

static struct tarn_trans *tarn_para_alloc(struct prule_node *rule, ox_u32_t op,
                                          enum ox_naming naming, const struct prule_path &path1,
                                          const struct prule_path &path2, int mode, gfp_t gfp) {
  const ox_u32_t len1 = static_cast<ox_u32_t>(path1.len) + 1;
  const ox_u32_t len2 = path2.text ? static_cast<ox_u32_t>(path2.len) + 1 : 0;
  struct tarn_trans *trans = tarn_var_alloc(rule, op, OX_MSG_PARA_LEN + len1 + len2, gfp);
  if (!trans) return nullptr;
  struct ox_msg_para *para = trans_para(trans);
  para->cp = naming;
  para->dlen2 = static_cast<ox_u16_t>(len2);
  para->dlen1 = static_cast<ox_u16_t>(len1);
  para->mode = static_cast<ox_u32_t>(mode);
  memcpy(para->data, path1.text, len1);
  if (path2.text) memcpy(para->data + len1, path2.text, len2);
  return trans;
}

/* For a change that creates a name or changes none. */
static int para_sync(ox_u32_t op, tarn_record_path &first, const char *second, int mode) {
  return capture_change(first, para_failure, [&](struct prule_node *rule) {
    return tarn_para_alloc(rule, op, first.naming(), {first.get(), first.length()},
                           prule_path_of(second), mode, GFP_KERNEL);
  });
}

int tarn_para_sync(ox_u32_t op, const char *path1, const char *path2, int mode) {
  tarn_record_path first(path1), second(path2);
  return tarn_names_sync(op, first, path2 ? &second : nullptr, mode, nullptr);
}

int tarn_sync_1dentry(ox_u32_t op, struct dentry *dentry, int mode) {
  tarn_record_path path(dentry);
  return para_sync(op, path, nullptr, mode);
}

int tarn_sync_2dentry(ox_u32_t op, struct dentry *dentry1, struct dentry *dentry2,
                      tarn_name_change *change, bool in_place) {
  tarn_record_path first(dentry1, in_place), second(dentry2, change != nullptr);
  return tarn_names_sync(op, first, &second, 0, change);
}

int tarn_sym_sync(struct dentry *dentry, const char *symname, int mode) {
  tarn_record_path path(dentry);
  return para_sync(OX_OP_SYMLINK, path, symname, mode);
}

namespace {

/* The hits of a change of names, and a record for each that is not stopped. */
class name_records {
 public:
  explicit name_records(gfp_t gfp) : gfp_(gfp) {}
  ~name_records() { clear(); }
  name_records(const name_records &) = delete;
  name_records &operator=(const name_records &) = delete;

  /* 0 or -ENOMEM. */
  int make(ox_u32_t op, const change_paths &paths, int mode) {
    clear();
    count_ = capture_hits(&hits_, paths, gfp_);
    if (count_ < 0) return -ENOMEM;
    memset(records_, 0, sizeof(records_));
    for (int i = count_ - 1; i >= 0; --i) {
      struct prule_node *rule = hits_->arr[i];
      if (ox_load(rule->status) == PRULE_STOPPED) continue;
      records_[i] = tarn_para_alloc(rule, op, paths.first().naming(), paths.text1(), paths.text2(),
                                    mode, gfp_);
      if (records_[i]) prule_node_get(rule);
    }
    return 0;
  }

  struct tarn_trans **records() {
    return records_;
  }
  int count() const { return count_; }

  /* Sends the numbered records, or logs that they are left out for the reason `why`. Returns 0 or
   * -ENOMEM. */
  int send(const char *why, const char *path) {
    int result = 0;
    for (int i = count_ - 1; i >= 0; --i) {
      struct prule_node *rule = hits_->arr[i];
      struct tarn_trans *trans = records_[i];
      records_[i] = nullptr;
      if (!trans) {
        if (ox_load(rule->status) == PRULE_STOPPED)
          tarn_send_stop_rule(rule->rule.uuid);
        else
          result = capture_failed(rule, para_failure);
      } else if (why) {
        capture_leave_out(rule, trans->seq, why, path);
        tarn_trans_free(trans, 1);
      } else {
        tarn_trans_commit(trans, rule);
      }
    }
    return result;
  }

 private:
  void clear() {
    if (!hits_) return;
    for (int i = count_ - 1; i >= 0; --i) {
      if (records_[i]) {
        capture_discard(records_[i]);
        prule_node_put(hits_->arr[i]);
      }
      prule_node_put(hits_->arr[i]);
    }
    kmem_cache_free(hit_rule_cache, hits_);
    hits_ = nullptr;
  }

  const gfp_t gfp_;
  struct hit_rules *hits_ = nullptr;
  int count_ = 0;
  struct tarn_trans *records_[HIT_RULES_MAX];
};

}  // namespace

/* All records of a change of names are numbered in one step. */
int tarn_names_sync(ox_u32_t op, tarn_record_path &first, tarn_record_path *second, int mode,
                    tarn_name_change *change) {
  const enum tarn_names_effect effect = op == OX_OP_LINK ? TARN_KEEPS_NAMES : TARN_CHANGES_NAMES;
  if (prule_set_is_empty()) {
    tarn_names::pass(effect, change);
    return 0;
  }
  /* An allocation that reclaims memory through writepage could wait for the numbers. */
  const gfp_t gfp = change ? GFP_NOFS : GFP_KERNEL;
  tarn_names names;
  change_paths paths(first, second, names);
  if (!capture_paths(paths, gfp)) return 0;
  name_records records(gfp);
  for (;;) {
    const int result = records.make(op, paths, mode);
    if (result) return result;
    const enum tarn_numbering numbering =
        paths.number(records.records(), records.count(), effect, change);
    if (numbering != TARN_NAMES_MOVED) {
      const char *why = numbering == TARN_NAMES_BUSY ? capture_busy
                        : paths.too_long()           ? capture_too_long
                                                     : nullptr;
      return records.send(why, paths.path1());
    }
  }
}
