/* SPDX-License-Identifier: GPL-2.0 */
/* Rules and replicated directories, put into their sets as the kernel itself does. The UUID of each
 * is a number, in every byte. */
#ifndef TESTS_MODULE_KIT_RULES_H
#define TESTS_MODULE_KIT_RULES_H

#include "kernel.h"
#include "base64.h"
#include "dir.h"
#include "ox_guard.h"
#include "rule.h"
#include "tarn.h"
#include "trans.h"
#include "tests/harness/case.h"

/* ---- rules ---- */

/* The text of a rule's workdir. */
class workdir_text {
 public:
  workdir_text() { text_[0] = '\0'; }
  workdir_text &include(const char *path) { return add("", path); }
  workdir_text &exclude(const char *path) { return add("!", path); }
  /* An entry as it stands. */
  workdir_text &raw(const char *entry) {
    if (len_) text_[len_++] = ',';
    const unsigned long len = strlen(entry);
    memcpy(text_ + len_, entry, len + 1);
    len_ += len;
    return *this;
  }
  const char *get() const { return text_; }

 private:
  workdir_text &add(const char *prefix, const char *path) {
    char entry[1024];
    strcpy(entry, prefix);
    ox_s32_t size = sizeof(entry) - 2;
    char *code = entry + strlen(prefix);
    if (!Base64Encode(path, static_cast<int>(strlen(path)), code, &size, 0)) return *this;
    return raw(entry);
  }
  char text_[OX_WORKDIR_LEN];
  unsigned long len_ = 0;
};

/* The record of rule `id`. One for the whole case. */
inline struct prule *rule_record(int id, const char *workdir = "") {
  static struct prule record;
  memset(&record, 0, sizeof(record));
  memset(record.uuid, id, sizeof(record.uuid));
  strcpy(record.workdir, workdir);
  return &record;
}

/* What do_add says. */
inline int install_rule(int id, const workdir_text &text) {
  kernel_ds_guard kernel_addresses;
  return do_add(rule_record(id, text.get()), sizeof(struct prule));
}
/* A rule for one directory of the lower name space. */
inline int install_rule(int id, const char *directory) {
  workdir_text text;
  return install_rule(id, text.include(directory));
}
inline int remove_rule(int id) {
  kernel_ds_guard kernel_addresses;
  return do_del(rule_record(id), sizeof(struct prule));
}
/* With a reference for the caller's scope; null if there is none. */
inline struct prule_node *lookup_rule(int id) {
  uuid_t uuid;
  memset(uuid, id, sizeof(uuid));
  return findnode_byuuid(uuid);
}

/* A change's hits, with their references. */
class found_hits {
 public:
  explicit found_hits(const char *path1, const char *path2 = nullptr)
      : count_(tarn_get_hit_rule(&hits_, path1, path2)) {
    EXPECT_TRUE(count_ >= 0);
  }
  ~found_hits() {
    if (count_ < 0) return;
    for (int i = 0; i < count_; ++i) prule_node_put(hits_->arr[i]);
    kmem_cache_free(hit_rule_cache, hits_);
  }
  found_hits(const found_hits &) = delete;
  found_hits &operator=(const found_hits &) = delete;

  int count() const { return count_; }
  /* The identifier of one hit. */
  int id(int at) const { return hits_->arr[at]->rule.uuid[0]; }
  bool is(const struct prule_node *rule, int at) const {
    return at < count_ && hits_->arr[at] == rule;
  }

 private:
  struct hit_rules *hits_ = nullptr;
  int count_;
};

/* ---- replicated directories ---- */

/* The record of directory `id`. One for the whole case. */
inline struct dir *dir_record(int id, const char *path) {
  static struct dir record;
  memset(&record, 0, sizeof(record));
  memset(record.uuid, id, sizeof(record.uuid));
  strcpy(record.repdir, path);
  return &record;
}

/* What dir_add says. */
inline int install_directory(int id, const char *path) {
  kernel_ds_guard kernel_addresses;
  return dir_add(dir_record(id, path), sizeof(struct dir));
}

#endif
