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

/* What every record begins with. */
static void init_trans(struct tarn_trans *trans, struct prule_node *rule, ox_u32_t op) {
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

/* Lets the lengths describe `len` wire bytes, so that what is charged now is what is taken back
 * later. */
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
  init_trans(trans, rule, op);
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

int tarn_get_hit_rule(struct hit_rules **hits, const char *path1, const char *path2, gfp_t gfp) {
  struct hit_rules *found = static_cast<struct hit_rules *>(kmem_cache_zalloc(hit_rule_cache, gfp));
  if (!found) return -ENOMEM;
  *hits = found;
  return prule_get_hits(found, path1, path2);
}

void tarn_stop_rule(struct prule_node *rule) {
  prule_stop(rule);
  tarn_send_stop_rule(rule->rule.uuid);
}

/* ---- paths and numbers ---- */

namespace {

/* The paths of one change, and the order of names that they were taken in. */
class change_paths {
 public:
  change_paths(tarn_record_path &first, tarn_record_path *second, tarn_names &names)
      : first_(first), second_(second), names_(names) {}

  const tarn_record_path &first() const { return first_; }
  const char *path1() const { return first_.get(); }
  const char *path2() const { return second_ ? second_->get() : nullptr; }
  bool too_long() const { return first_.too_long() || (second_ && second_->too_long()); }

  /* Whether there is each path. */
  bool take(gfp_t gfp = GFP_KERNEL) {
    names_.note();
    const bool first = first_.take(gfp);
    return (!second_ || second_->take(gfp)) && first;
  }
  bool without_memory() const {
    return first_.without_memory() || (second_ && second_->without_memory());
  }
  bool changed() const { return first_.changed() || (second_ && second_->changed()); }

  bool hits(const struct prule_node *rule) const { return prule_is_hit(rule, path1(), path2()); }

  enum tarn_numbering number(struct tarn_trans **records, int count, enum tarn_names_effect effect,
                             tarn_name_change *change) {
    for (;;) {
      const enum tarn_numbering result = names_.number(records, count, effect, change);
      if (result != TARN_NAMES_MOVED) return result;
      /* Mostly other names have changed than those on the way to these. */
      take(GFP_NOFS);
      if (changed()) return result;
    }
  }

 private:
  tarn_record_path &first_;
  tarn_record_path *second_;
  tarn_names &names_;
};

}  // namespace

/* A change that cannot be told has a number all the same: who follows the rule sees that one is
 * missing. */
static void leave_out(const struct prule_node *rule, int number, const char *why,
                      const char *path) {
  char uuid[OX_UUID_TEXT];
  uuid_unparse_upper(rule->rule.uuid, uuid);
  printk("<3>tarn_trans: rule %s: record %d is left out, %s: %.880s\n", uuid, number, why, path);
}

static void leave_out_next(struct prule_node *rule, const char *why, const char *path) {
  leave_out(rule, atomic_inc_return(&rule->transnr), why, path);
}

/* The paths for the first time. False if nothing can be captured. */
static bool take_paths(change_paths &paths, gfp_t gfp = GFP_KERNEL) {
  if (paths.take(gfp)) return true;
  if (paths.without_memory()) prule_skip_numbers(nullptr, nullptr);
  return false;
}

/* The rules that they hit; their number or -ENOMEM. */
static int find_hits(struct hit_rules **hits, const change_paths &paths, gfp_t gfp = GFP_KERNEL) {
  const int count = tarn_get_hit_rule(hits, paths.path1(), paths.path2(), gfp);
  if (count < 0) prule_skip_numbers(paths.path1(), paths.path2());
  return count;
}

static const char too_long_text[] = "its path is too long";
static const char busy_text[] = "a change of names has taken too long";

/* A record that is made again was not captured yet. */
static void discard(struct tarn_trans *trans) {
  struct prule_node *rule = trans->r;
  ox_store(rule->bytes_send, ox_load(rule->bytes_send) - (trans_msglen(trans) - OX_MSG_LEN));
  prule_node_get(rule); /* the record's reference was its maker's */
  tarn_trans_free(trans, 1);
}

static int cannot_make(struct prule_node *rule, const char *failure) {
  tarn_stop_rule(rule);
  printk("%s", failure);
  return -ENOMEM;
}

/* One hit: takes over the caller's reference. */
template <typename Make>
static int serve_hit(struct prule_node *hit, change_paths &paths, const char *failure, Make make) {
  prule_ref rule(hit);
  for (;;) {
    if (paths.too_long()) {
      leave_out_next(rule.get(), too_long_text, paths.path1());
      return 0;
    }
    struct tarn_trans *trans = make(rule.get());
    if (!trans) return cannot_make(rule.get(), failure);
    const enum tarn_numbering numbering = paths.number(&trans, 1, TARN_KEEPS_NAMES, nullptr);
    if (numbering == TARN_NUMBERED) {
      tarn_trans_commit(trans, rule.release());
      return 0;
    }
    const int number = trans->seq;
    discard(trans);
    if (numbering == TARN_NAMES_BUSY) {
      leave_out(rule.get(), number, busy_text, paths.path1());
      return 0;
    }
    /* What was renamed meanwhile is this rule's no longer; the rename tells it so. */
    if (!paths.hits(rule.get())) return 0;
  }
}

/*
 * Makes and sends a record for each hit, from the last to the first, and gives the array back.
 * `make(rule)` returns the record, or null: then the rule is stopped and the result is -ENOMEM, but
 * the others are served.
 */
template <typename Make>
static int serve_hits(struct hit_rules *hits, int count, change_paths &paths, const char *failure,
                      Make make) {
  kmem_owner<struct hit_rules> array(hit_rule_cache, hits);
  int result = 0;
  for (int i = count - 1; i >= 0; --i) {
    struct prule_node *rule = hits->arr[i];
    if (ox_load(rule->status) == PRULE_STOPPED) {
      tarn_send_stop_rule(rule->rule.uuid);
      prule_node_put(rule);
    } else if (serve_hit(rule, paths, failure, make)) {
      result = -ENOMEM;
    }
  }
  return result;
}

/* ---- changes of names and attributes ---- */

static const char para_failure[] = "tarn_para_sync: tarn_para_alloc fail\n";

static struct tarn_trans *tarn_para_alloc(struct prule_node *rule, ox_u32_t op,
                                          enum ox_naming naming, const char *path1,
                                          const char *path2, int mode, gfp_t gfp) {
  const ox_u32_t len1 = static_cast<ox_u32_t>(strlen(path1)) + 1;
  const ox_u32_t len2 = path2 ? static_cast<ox_u32_t>(strlen(path2)) + 1 : 0;
  struct tarn_trans *trans = tarn_var_alloc(rule, op, OX_MSG_PARA_LEN + len1 + len2, gfp);
  if (!trans) return nullptr;
  struct ox_msg_para *para = trans_para(trans);
  para->cp = naming;
  para->dlen2 = static_cast<ox_u16_t>(len2);
  para->dlen1 = static_cast<ox_u16_t>(len1);
  para->mode = static_cast<ox_u32_t>(mode);
  memcpy(para->data, path1, len1);
  if (path2) memcpy(para->data + len1, path2, len2);
  return trans;
}

/* A change that makes names, or none. */
static int para_sync(ox_u32_t op, tarn_record_path &first, const char *second, int mode) {
  tarn_names names;
  change_paths paths(first, nullptr, names);
  if (!take_paths(paths)) return 0;
  struct hit_rules *hits;
  const int count = find_hits(&hits, paths);
  if (count < 0) return count;
  return serve_hits(hits, count, paths, para_failure, [&](struct prule_node *rule) {
    return tarn_para_alloc(rule, op, first.naming(), paths.path1(), second, mode, GFP_KERNEL);
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
                      tarn_name_change *change) {
  tarn_record_path first(dentry1), second(dentry2);
  return tarn_names_sync(op, first, &second, 0, change);
}

int tarn_sym_sync(struct dentry *dentry, const char *symname, int mode) {
  tarn_record_path path(dentry);
  return para_sync(OX_OP_SYMLINK, path, symname, mode);
}

namespace {

/* The hits of a change of names, and a record for each that can have one. */
class name_records {
 public:
  explicit name_records(gfp_t gfp) : gfp_(gfp) {}
  ~name_records() { clear(); }
  name_records(const name_records &) = delete;
  name_records &operator=(const name_records &) = delete;

  /* 0 or -ENOMEM. */
  int make(ox_u32_t op, const change_paths &paths, int mode) {
    clear();
    count_ = find_hits(&hits_, paths, gfp_);
    if (count_ < 0) return -ENOMEM;
    memset(records_, 0, sizeof(records_));
    for (int i = count_ - 1; i >= 0; --i) {
      struct prule_node *rule = hits_->arr[i];
      if (ox_load(rule->status) == PRULE_STOPPED) continue;
      records_[i] = tarn_para_alloc(rule, op, paths.first().naming(), paths.path1(), paths.path2(),
                                    mode, gfp_);
      if (records_[i]) prule_node_get(rule);
    }
    return 0;
  }

  struct tarn_trans **records() {
    return records_;
  }
  int count() const { return count_; }

  /* Sends what has its numbers, or says what is left out for `why`; 0 or -ENOMEM. */
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
          result = cannot_make(rule, para_failure);
      } else if (why) {
        leave_out(rule, trans->seq, why, path);
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
        discard(records_[i]);
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

/* All records of a change of names get their numbers in one step. */
int tarn_names_sync(ox_u32_t op, tarn_record_path &first, tarn_record_path *second, int mode,
                    tarn_name_change *change) {
  /* Memory that comes back to writepage may wait for the numbers. */
  const gfp_t gfp = change ? GFP_NOFS : GFP_KERNEL;
  tarn_names names;
  change_paths paths(first, second, names);
  if (!take_paths(paths, gfp)) return 0;
  name_records records(gfp);
  for (;;) {
    const int result = records.make(op, paths, mode);
    if (result) return result;
    const enum tarn_names_effect effect = op == OX_OP_LINK ? TARN_KEEPS_NAMES : TARN_CHANGES_NAMES;
    const enum tarn_numbering numbering =
        paths.number(records.records(), records.count(), effect, change);
    if (numbering != TARN_NAMES_MOVED) {
      const char *why = numbering == TARN_NAMES_BUSY ? busy_text
                        : paths.too_long()           ? too_long_text
                                                     : nullptr;
      return records.send(why, paths.path1());
    }
  }
}

/* ia_valid goes on the wire as it is. */
static_assert(OX_ATTR_MODE == ATTR_MODE && OX_ATTR_UID == ATTR_UID && OX_ATTR_GID == ATTR_GID &&
              OX_ATTR_SIZE == ATTR_SIZE && OX_ATTR_ATIME == ATTR_ATIME &&
              OX_ATTR_MTIME == ATTR_MTIME && OX_ATTR_CTIME == ATTR_CTIME);
static_assert(OX_ATTR_ATIME_SET == ATTR_ATIME_SET && OX_ATTR_MTIME_SET == ATTR_MTIME_SET &&
              OX_ATTR_FORCE == ATTR_FORCE && OX_ATTR_ATTR_FLAG == ATTR_ATTR_FLAG &&
              OX_ATTR_KILL_SUID == ATTR_KILL_SUID && OX_ATTR_KILL_SGID == ATTR_KILL_SGID &&
              OX_ATTR_FILE == ATTR_FILE);

static ox_u64_t microseconds(const struct timespec &time) {
  return static_cast<ox_u64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

static struct tarn_trans *attr_alloc(struct prule_node *rule, const tarn_record_path &at,
                                     const struct iattr *iattr) {
  const char *path = at.get();
  const ox_u32_t len = static_cast<ox_u32_t>(strlen(path)) + 1;
  struct tarn_trans *trans =
      tarn_var_alloc(rule, OX_OP_SETATTR, len + static_cast<ox_u32_t>(sizeof(struct ox_msg_attr)));
  if (!trans) return nullptr;
  struct ox_msg_attr *attr = trans_attr(trans);
  attr->cp = at.naming();
  attr->com.ia_valid = static_cast<ox_s32_t>(iattr->ia_valid);
  attr->com.ia_mode = iattr->ia_mode;
  attr->com.ia_size = static_cast<ox_u64_t>(iattr->ia_size);
  attr->com.ia_atime = microseconds(iattr->ia_atime);
  attr->com.ia_mtime = microseconds(iattr->ia_mtime);
  attr->com.ia_ctime = microseconds(iattr->ia_ctime);
  attr->com.len = OX_ATTR_LEN;
  attr->sec.ia_modeshadow = iattr->ia_mode;
  attr->sec.ia_uid = iattr->ia_uid;
  attr->sec.ia_gid = iattr->ia_gid;
  attr->dlen1 = sizeof(struct lin_sec);
  attr->dlen2 = len;
  memcpy(attr->name, path, len);
  return trans;
}

int tarn_attr_sync(struct dentry *dentry, const struct iattr *iattr) {
  tarn_record_path path(dentry);
  tarn_names names;
  change_paths paths(path, nullptr, names);
  if (!take_paths(paths)) return 0;
  struct hit_rules *hits;
  const int count = find_hits(&hits, paths);
  if (count < 0) return count;
  return serve_hits(hits, count, paths, "__tarn_attr_sync: tarn_var_alloc fail\n",
                    [&](struct prule_node *rule) { return attr_alloc(rule, path, iattr); });
}

void tarn_mode_sync(struct dentry *dentry, umode_t told) {
  struct inode *lower = tarn_lower_inode(dentry->d_inode);
  if (!((lower->i_mode ^ told) & S_IALLUGO)) return;
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_MODE;
  ia.ia_mode = lower->i_mode;
  ia.ia_uid = lower->i_uid;
  ia.ia_gid = lower->i_gid;
  ia.ia_size = i_size_read(lower);
  ia.ia_atime = lower->i_atime;
  ia.ia_mtime = lower->i_mtime;
  ia.ia_ctime = lower->i_ctime;
  tarn_attr_sync(dentry, &ia);
}

/* ---- writes ---- */

namespace {

/* One write on its way into a record. */
struct write_source {
  const char *path;
  enum ox_naming naming;
  ox_u32_t path_len;   /* with its NUL */
  ox_u32_t path_field; /* rounded up to a multiple of 8 */
  const char __user *buf;
  size_t count;
  loff_t offset;

  write_source(const tarn_record_path &at, const char __user *from, size_t bytes, loff_t start)
      : path(at.get()),
        naming(at.naming()),
        path_len(static_cast<ox_u32_t>(strlen(path)) + 1),
        path_field((path_len + 7) & ~7u),
        buf(from),
        count(bytes),
        offset(start) {}

  /* Data bytes that fit behind the path. */
  ox_u32_t first_room() const { return OX_PAGE_DATA - path_field; }
  bool is_whole() const { return static_cast<ox_u32_t>(count) <= first_room(); }
  size_t page_count() const {
    return is_whole() ? 1 : 1 + (count - first_room() + OX_PAGE_DATA - 1) / OX_PAGE_DATA;
  }
  /* The path field behind a record's head; what follows the NUL in it is zero. */
  void put_path(char *field) const {
    memcpy(field, path, path_len);
    memset(field + path_len, 0, path_field - path_len);
  }
};

/* Fills one page message with the bytes from `done` on; the bytes it took, or -EFAULT. */
int fill_page(const struct tarn_trans *trans, struct sk_buff *skb, const write_source &source,
              int index, size_t done) {
  const struct ox_msg_wr *whole = trans_wr(trans);
  struct ox_msg_wr *page = reinterpret_cast<struct ox_msg_wr *>(skb->data + OX_NLMSG_HDRLEN);
  memset(skb->data, 0, OX_NLMSG_HDRLEN + OX_MSG_WR_LEN);
  memcpy(page->uuid, whole->uuid, sizeof(page->uuid));
  page->ts = whole->ts;
  page->op = whole->op;
  page->os = whole->os;
  page->cp = whole->cp;
  page->seq = whole->seq;
  page->type = whole->type;
  page->dlen1 = index == 0 ? whole->dlen1 : 0;
  if (index == 0) source.put_path(page->data);

  const ox_u32_t room = OX_PAGE_DATA - page->dlen1;
  const ox_u32_t bytes =
      source.count - done < room ? static_cast<ox_u32_t>(source.count - done) : room;
  page->dlen2 = bytes;
  page->off = static_cast<ox_u64_t>(source.offset) + done;
  page->pagenr = static_cast<ox_u32_t>(index);
  page->pages = whole->pages;
  char *data = page->data + page->dlen1;
  if (copy_from_user(data, source.buf + done, bytes)) return -EFAULT;
  memset(data + bytes, 0, room - bytes); /* the last page is sent in its full size */
  return static_cast<int>(bytes);
}

void free_pages_down(struct sk_buff **pages, int last) {
  for (int i = last; i >= 0; --i) kfree_skb(pages[i]);
}

/* Makes all page messages of a paged write. 0; -ENOMEM or -EFAULT with none left. */
int trans_allocpages(struct tarn_trans *trans, const write_source &source) {
  struct sk_buff **pages = trans_pages(trans);
  memset(pages, 0, trans->pages * sizeof(*pages));
  size_t done = 0;
  for (int i = 0; i < trans->pages; ++i) {
    struct sk_buff *skb = alloc_skb(OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD, GFP_KERNEL);
    if (!skb) {
      free_pages_down(pages, i - 1);
      return -ENOMEM;
    }
    skb_put(skb, OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD);
    pages[i] = skb;
    const int bytes = fill_page(trans, skb, source, i, done);
    if (bytes < 0) {
      free_pages_down(pages, i);
      return bytes;
    }
    done += bytes;
  }
  return 0;
}

/* Copies the data into the record or its pages. 0, or a negative error; says in the log what
 * failed. */
int put_data(struct tarn_trans *trans, const write_source &source) {
  struct ox_msg_wr *wr = trans_wr(trans);
  if (wr->type == OX_WRITE_WHOLE) {
    if (!copy_from_user(wr->data + wr->dlen1, source.buf, source.count)) return 0;
    printk("tarn_wrtrans_alloc: Copy from user failed\n");
    return -EFAULT;
  }
  const int result = trans_allocpages(trans, source);
  if (result) printk("tarn_wrtrans_alloc: trans_allocpages failed, rc=%d\n", result);
  return result;
}

/* The record of a write for one rule; null when it cannot be made. */
struct tarn_trans *tarn_wrtrans_alloc(struct prule_node *rule, const write_source &source) {
  const size_t pages = source.page_count();
  if (pages > 0x7FFFFFFF) return nullptr;
  const ox_u64_t size = source.is_whole()
                            ? TARN_TRANS_FIELDS + OX_MSG_WR_LEN + source.path_field + source.count
                            : trans_pages_at(source.path_field) + pages * sizeof(struct sk_buff *);
  ox_owner<struct tarn_trans, ox_free> trans(
      static_cast<struct tarn_trans *>(ox_malloc(size, GFP_KERNEL)));
  if (!trans) return nullptr;

  struct ox_msg_wr *wr = trans_wr(trans.get());
  memset(wr, 0, OX_MSG_WR_LEN);
  wr->cp = source.naming;
  trans->pages = static_cast<int>(pages);
  wr->type = source.is_whole() ? OX_WRITE_WHOLE : OX_WRITE_PAGED;
  wr->dlen1 = static_cast<ox_u16_t>(source.path_field);
  wr->dlen2 = static_cast<ox_u32_t>(source.count);
  wr->pages = static_cast<ox_u32_t>(pages);
  wr->off = static_cast<ox_u64_t>(source.offset);
  source.put_path(wr->data);
  init_trans(trans.get(), rule, OX_OP_WRITE);
  trans->wr_size = static_cast<int>(source.count);
  mem_buff_add(trans.get());
  /* The charge of a record whose data cannot be had stays. */
  return put_data(trans.get(), source) ? nullptr : trans.release();
}

}  // namespace

int tarn_write_sync(struct dentry *dentry, const char __user *buf, size_t count, loff_t offset) {
  tarn_record_path path(dentry);
  /* A path that fills the first page on its own cannot be sent. */
  path.set_room(OX_PAGE_DATA & ~7);
  tarn_names names;
  change_paths paths(path, nullptr, names);
  if (!take_paths(paths)) return 0;
  struct hit_rules *hits;
  const int hit_count = find_hits(&hits, paths);
  if (hit_count < 0) return hit_count;
  return serve_hits(hits, hit_count, paths, "tarn_write_sync: tarn_wrtrans_alloc fail\n",
                    [&](struct prule_node *rule) {
                      return tarn_wrtrans_alloc(rule, {path, buf, count, offset});
                    });
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
