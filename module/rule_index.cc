// SPDX-License-Identifier: GPL-2.0
#include "rule_index.h"

#include "base64.h"
#include "ox_guard.h"
#include "ox_msg.h"
#include "statematch.h"

/* Shorter entries decode to the empty path, which stands for "/". */
static const int kShortestEntry = 4;

/* The keys of the longest workdir are one block, which the kernel limits to 128 KiB. */
static_assert(sizeof(struct rule_key) * (OX_WORKDIR_LEN / (kShortestEntry + 1) + 1) <= 128 << 10,
              "every workdir has room for its keys");

static ox_u64_t hash_of(const char *text, unsigned long len) {
  ox_u64_t hash = 0;
  unsigned long at = 0;
  for (; len - at >= sizeof(hash); at += sizeof(hash))
    hash = rule_hash_step(hash, rule_hash_word(text, len, at));
  return rule_hash_end(hash, rule_hash_word(text, len, at), len);
}

/* An upper bound of the workdir's keys; one covers all entries that are too short to decode. */
static int most_keys(const char *workdir) {
  int most = 1;
  for (const char *head = path_head(workdir); head;) {
    const char *tail = path_tail(head);
    most += *head != '!' && tail - head >= kShortestEntry;
    head = path_head(tail);
  }
  return most;
}

namespace {

/* Collects a rule's keys without duplicates. */
class new_keys {
 public:
  explicit new_keys(int most)
      : heads_(static_cast<struct rule_key **>(
            kzalloc(kHeads * sizeof(struct rule_key *), GFP_KERNEL))),
        keys_(static_cast<struct rule_key *>(kmalloc(most * sizeof(struct rule_key), GFP_KERNEL))) {
  }

  explicit operator bool() const { return heads_ && keys_; }
  void add(const struct rule_key &key) {
    struct rule_key **head = &heads_.get()[key.hash >> (64 - kHeadBits)];
    for (const struct rule_key *other = *head; other; other = other->next) {
      if (other->hash == key.hash && other->len == key.len) return;
    }
    struct rule_key *added = keys_.get() + count_++;
    *added = key;
    added->next = *head;
    *head = added;
  }
  /* The caller owns them. */
  [[nodiscard]] struct rule_key *release(int *count) {
    *count = count_;
    return keys_.release();
  }

 private:
  static const int kHeadBits = 9;
  static const int kHeads = 1 << kHeadBits; /* a page */

  ox_owner<struct rule_key *, kfree> heads_;
  ox_owner<struct rule_key, kfree> keys_;
  int count_ = 0;
};

}  // namespace

struct rule_key *rule_keys_new(struct prule_node *node, const char *workdir, int *count) {
  const ox_s32_t longest = entry_path_size(static_cast<int>(strlen(workdir)));
  ox_owner<char, kfree> path(static_cast<char *>(kmalloc(longest, GFP_KERNEL)));
  if (!path) return nullptr;
  new_keys keys(most_keys(workdir));
  if (!keys) return nullptr;

  for (const char *head = path_head(workdir); head;) {
    const char *tail = path_tail(head);
    if (*head != '!') {
      unsigned long len = entry_path(head, static_cast<int>(tail - head), path.get());
      if (len && path.get()[len - 1] == '/') --len;
      keys.add({nullptr, nullptr, node, hash_of(path.get(), len), static_cast<ox_u32_t>(len)});
    }
    head = path_head(tail);
  }
  return keys.release(count);
}

static struct rule_bucket *bucket_of(struct rule_index *index, const struct rule_key *key) {
  return &index->bucket[key->hash >> (64 - RULE_INDEX_BITS)];
}

void rule_index_add(struct rule_index *index, struct rule_key *keys, int count) {
  for (struct rule_key *key = keys; key < keys + count; ++key) {
    struct rule_bucket *bucket = bucket_of(index, key);
    key->next = nullptr;
    key->prev = bucket->last;
    (key->prev ? key->prev->next : bucket->first) = key;
    bucket->last = key;
    const ox_u32_t n = key->len % RULE_INDEX_LENS;
    if (index->lens_nr[n]++ == 0) ++index->lens_used;
    index->lens |= 1ull << n;
  }
}

void rule_index_del(struct rule_index *index, struct rule_key *keys, int count) {
  for (struct rule_key *key = keys; key < keys + count; ++key) {
    struct rule_bucket *bucket = bucket_of(index, key);
    (key->prev ? key->prev->next : bucket->first) = key->next;
    (key->next ? key->next->prev : bucket->last) = key->prev;
    const ox_u32_t n = key->len % RULE_INDEX_LENS;
    if (--index->lens_nr[n]) continue;
    --index->lens_used;
    index->lens &= ~(1ull << n);
  }
}
