// SPDX-License-Identifier: GPL-2.0
#include "trans.h"

#include "netlink.h"
#include "ox_guard.h"
#include "ox_types.h"
#include "tarn.h"
#include "thread.h"

struct mem_option g_option;
ox_que_t g_transq;
struct completion g_tworker_waits;

/* ---- records ---- */

ox_u32_t trans_msglen(const struct tarn_trans *trans) {
  struct tarn_trans *t = const_cast<struct tarn_trans *>(trans);
  if (trans->msg.op <= OX_OP_RENAME) {
    return OX_MSG_PARA_LEN + trans_para(t)->dlen1 + trans_para(t)->dlen2;
  }
  if (trans->msg.op == OX_OP_SETATTR) return OX_MSG_ATTR_LEN + trans->msg.l1 + trans->msg.l2;
  if (trans->msg.op == OX_OP_WRITE) {
    return OX_MSG_WR_LEN + trans_wr(t)->dlen1 + trans_wr(t)->dlen2;
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

struct tarn_trans *tarn_var_alloc(struct prule_node *rule, ox_u32_t op, ox_u32_t len) {
  /* Cleared: fields without a meaning are zero on the wire. */
  struct tarn_trans *trans = static_cast<struct tarn_trans *>(
      ox_malloc(static_cast<ox_u64_t>(TARN_TRANS_FIELDS) + len, GFP_KERNEL | __GFP_ZERO));
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
  trans->seq = atomic_inc_return(&rule->transnr);
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

/* The first of the rules that are offered, in list order. */
class first_hits {
 public:
  explicit first_hits(struct hit_rules *hits) : arr_(hits->arr), count_(0) {}

  /* Takes the rule if `path` hits it. Whether one behind it in the list could still be among the
   * first. */
  bool offer(struct prule_node *rule, const char *path) {
    if (count_ == HIT_RULES_MAX && rule->place > arr_[count_ - 1]->place) return false;
    int at = count_;
    while (at > 0 && arr_[at - 1]->place > rule->place) --at;
    if (at > 0 && arr_[at - 1] == rule) return true;
    if (ox_load(rule->status) != PRULE_STOPPED && match(&rule->path, path) == STATE_MISS) {
      return true;
    }
    if (count_ == HIT_RULES_MAX) --count_;
    for (int i = count_++; i > at; --i) arr_[i] = arr_[i - 1];
    arr_[at] = rule;
    return true;
  }

  /* A reference on each; their number. */
  int get_all() {
    for (int i = 0; i < count_; ++i) prule_node_get(arr_[i]);
    return count_;
  }

 private:
  struct prule_node **arr_;
  int count_;
};

int tarn_get_hit_rule(struct hit_rules **hits, const char *path1, const char *path2) {
  struct prule_set *set = get_prule_set();
  struct hit_rules *found =
      static_cast<struct hit_rules *>(kmem_cache_zalloc(hit_rule_cache, GFP_KERNEL));
  if (!found) return -ENOMEM;
  *hits = found;
  first_hits first(found);
  read_guard guard(set->rwlock);
  /* What a flush has taken off may still be in the index. */
  if (ox_first(&set->head) == &set->head) return 0;
  struct prule_node *stopped = ox_load(set->stopped);
  while (stopped && first.offer(stopped, path1)) stopped = ox_load(stopped->next_stopped);
  const char *const paths[] = {path1, path2};
  for (const char *path : paths) {
    if (!path) continue;
    rule_index_search(&set->index, path,
                      [&](struct prule_node *rule) { return first.offer(rule, path); });
  }
  return first.get_all();
}

void tarn_stop_rule(struct prule_node *rule) {
  prule_stop(rule);
  tarn_send_stop_rule(rule->rule.uuid);
}

/*
 * Makes and sends a record for each hit, from the last to the first, and gives the array back.
 * `make(rule)` returns the record, or null: then the rule is stopped and the result is -ENOMEM, but
 * the others are served.
 */
template <typename Make>
static int serve_hits(struct hit_rules *hits, int count, const char *failure, Make make) {
  kmem_owner<struct hit_rules> array(hit_rule_cache, hits);
  int result = 0;
  for (int i = count - 1; i >= 0; --i) {
    prule_ref rule(hits->arr[i]);
    if (ox_load(rule->status) == PRULE_STOPPED) {
      tarn_send_stop_rule(rule->rule.uuid);
      continue;
    }
    struct tarn_trans *trans = make(rule.get());
    if (!trans) {
      tarn_stop_rule(rule.get());
      printk("%s", failure);
      result = -ENOMEM;
      continue;
    }
    tarn_trans_commit(trans, rule.release());
  }
  return result;
}

/* ---- lower paths ---- */

char *tarn_path_get(char **buf, struct dentry *dentry) {
  /* A dentry of another file system may have private data too, but not ours. */
  if (!dentry->d_fsdata || dentry->d_op != &tarn_dops) return nullptr;
  if (!tarn_lower_dentry(dentry) || !tarn_lower_mnt(dentry)) return nullptr; /* not yet bound */
  char *page = static_cast<char *>(kmem_cache_alloc(names_cachep, GFP_KERNEL));
  if (!page) return nullptr;
  char *path = d_path(tarn_lower_dentry(dentry), tarn_lower_mnt(dentry), page, OX_PATH_MAX);
  if (IS_ERR(path)) {
    tarn_path_put(page);
    return nullptr;
  }
  *buf = page;
  return path;
}

int tarn_path_put(char *buf) {
  kmem_cache_free(names_cachep, buf);
  return 0;
}

/* ---- changes of names and attributes ---- */

static struct tarn_trans *tarn_para_alloc(struct prule_node *rule, ox_u32_t op, const char *path1,
                                          const char *path2, int mode) {
  const ox_u32_t len1 = static_cast<ox_u32_t>(strlen(path1)) + 1;
  const ox_u32_t len2 = path2 ? static_cast<ox_u32_t>(strlen(path2)) + 1 : 0;
  struct tarn_trans *trans = tarn_var_alloc(rule, op, OX_MSG_PARA_LEN + len1 + len2);
  if (!trans) return nullptr;
  struct ox_msg_para *para = trans_para(trans);
  para->dlen2 = static_cast<ox_u16_t>(len2);
  para->dlen1 = static_cast<ox_u16_t>(len1);
  para->mode = static_cast<ox_u32_t>(mode);
  memcpy(para->data, path1, len1);
  if (path2) memcpy(para->data + len1, path2, len2);
  return trans;
}

int tarn_para_sync(ox_u32_t op, const char *path1, const char *path2, int mode) {
  struct hit_rules *hits;
  const int count = tarn_get_hit_rule(&hits, path1, path2);
  if (count < 0) return count;
  return serve_hits(
      hits, count, "tarn_para_sync: tarn_para_alloc fail\n",
      [=](struct prule_node *rule) { return tarn_para_alloc(rule, op, path1, path2, mode); });
}

int tarn_sync_1dentry(ox_u32_t op, struct dentry *dentry, int mode) {
  tarn_lower_path path(dentry);
  return path ? tarn_para_sync(op, path.get(), nullptr, mode) : 0;
}

int tarn_sync_2dentry(ox_u32_t op, struct dentry *dentry1, struct dentry *dentry2) {
  tarn_lower_path path1(dentry1);
  if (!path1) return 0;
  tarn_lower_path path2(dentry2);
  return path2 ? tarn_para_sync(op, path1.get(), path2.get(), 0) : 0;
}

int tarn_sym_sync(struct dentry *dentry, const char *symname, int mode) {
  tarn_lower_path path(dentry);
  return path ? tarn_para_sync(OX_OP_SYMLINK, path.get(), symname, mode) : 0;
}

static ox_u64_t microseconds(const struct timespec &time) {
  return static_cast<ox_u64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

static struct tarn_trans *attr_alloc(struct prule_node *rule, const char *path,
                                     const struct iattr *iattr) {
  const ox_u32_t len = static_cast<ox_u32_t>(strlen(path)) + 1;
  struct tarn_trans *trans =
      tarn_var_alloc(rule, OX_OP_SETATTR, len + static_cast<ox_u32_t>(sizeof(struct ox_msg_attr)));
  if (!trans) return nullptr;
  struct ox_msg_attr *attr = trans_attr(trans);
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
  tarn_lower_path path(dentry);
  if (!path) return 0;
  struct hit_rules *hits;
  const int count = tarn_get_hit_rule(&hits, path.get(), nullptr);
  if (count < 0) return count;
  return serve_hits(hits, count, "__tarn_attr_sync: tarn_var_alloc fail\n",
                    [&](struct prule_node *rule) { return attr_alloc(rule, path.get(), iattr); });
}

/* ---- writes ---- */

namespace {

/* One write on its way into a record. */
struct write_source {
  const char *path;
  ox_u32_t path_len;   /* with its NUL */
  ox_u32_t path_field; /* rounded up to a multiple of 8 */
  const char __user *buf;
  size_t count;
  loff_t offset;

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
  const struct ox_msg_wr *whole = trans_wr(const_cast<struct tarn_trans *>(trans));
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
  /* A path that fills the first page on its own cannot be sent. */
  if (source.path_field > OX_PAGE_DATA) return nullptr;
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
  tarn_lower_path path(dentry);
  if (!path) return 0;
  struct hit_rules *hits;
  const int hit_count = tarn_get_hit_rule(&hits, path.get(), nullptr);
  if (hit_count < 0) return hit_count;
  const ox_u32_t path_len = static_cast<ox_u32_t>(strlen(path.get())) + 1;
  const write_source source = {path.get(), path_len, (path_len + 7) & ~7u, buf, count, offset};
  return serve_hits(
      hits, hit_count, "tarn_write_sync: tarn_wrtrans_alloc fail\n",
      [&source](struct prule_node *rule) { return tarn_wrtrans_alloc(rule, source); });
}

/* ---- start and stop ---- */

int tarn_trans_init(void) {
  atomic_set(&g_option.mem_used, 0);
  g_option.mem_max = PRULE_MEM_MAX;
  ox_que_init(&g_transq);
  init_completion(&g_tworker_waits);
  return tarn_start_threads();
}

int tarn_trans_exit(void) {
  tarn_stop_threads();
  init_completion(&g_tworker_waits);
  printk("tarn_trans_exit: flush g_transq\n");
  ox_que_init(&g_transq);
  return 0;
}
