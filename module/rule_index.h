/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which rules a path may hit, told without a look at the others.
 *
 * A path can only be included by a rule that lists it or a directory above it. So each rule is
 * entered once per directory that it includes, under a hash of the directory's bytes, and a search
 * asks for every beginning of the path that ends before a '/' or at the path's end. Whether a rule
 * found that way includes the path is the caller's to ask of its automaton: exclusions and the
 * order of the list are left to that, and equal hashes of different directories do no harm.
 *
 * The index belongs to the set of rules: its lock is held for reading for a search and for writing
 * for a change. Nothing here sleeps but rule_keys_new, and only that allocates.
 */
#ifndef TARN_RULE_INDEX_H
#define TARN_RULE_INDEX_H

#include "kernel.h"
#include "TypeDef.h"

struct prule_node;

/* One directory that a rule includes. No two keys of a rule have both hash and length. */
struct rule_key {
  struct rule_key *next; /* in its bucket: in the order of the list of rules */
  struct rule_key *prev;
  struct prule_node *node;
  ox_u64_t hash; /* of the directory without a '/' at its end */
  ox_u32_t len;  /* its bytes */
};

#define RULE_INDEX_BITS 12
#define RULE_INDEX_BUCKETS (1 << RULE_INDEX_BITS)
#define RULE_INDEX_LENS 64

struct rule_bucket {
  struct rule_key *first;
  struct rule_key *last;
};

/* All zero: empty. */
struct rule_index {
  struct rule_bucket bucket[RULE_INDEX_BUCKETS];
  /* Bit n: there is a key whose length leaves n, which spares the look for most beginnings. */
  ox_u64_t lens;
  ox_u32_t lens_nr[RULE_INDEX_LENS]; /* how many keys there are of each */
};

/*
 * The keys of a rule with that workdir, entered nowhere, in one block that the caller gives back
 * with kfree; their number in *count. A directory that is listed several times has one key. Null
 * without memory.
 */
[[nodiscard]] struct rule_key *rule_keys_new(struct prule_node *node, const char *workdir,
                                             int *count);
/* Enters a rule's keys behind those of all other rules, in a time that is that of their number. */
void rule_index_add(struct rule_index *index, struct rule_key *keys, int count);
/* Takes keys out that are in the index, likewise. */
void rule_index_del(struct rule_index *index, struct rule_key *keys, int count);

/* ---- hashing ---- */

inline ox_u64_t rule_hash_step(ox_u64_t hash, ox_u64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
  return hash ^ hash >> 32;
}

/* Of a text of `len` bytes: `hash` is that of its whole words, `rest` the up to 7 bytes behind. */
inline ox_u64_t rule_hash_end(ox_u64_t hash, ox_u64_t rest, unsigned long len) {
  return rule_hash_step(hash, rest | static_cast<ox_u64_t>(len) << 56);
}

/* The eight bytes of a text at `at`, the first one lowest, or the up to 7 that are left of it. */
inline ox_u64_t rule_hash_word(const char *text, unsigned long len, unsigned long at) {
  ox_u64_t word = 0;
  const unsigned long left = len - at;
  if (left >= sizeof(word)) {
    __builtin_memcpy(&word, text + at, sizeof(word));
  } else if (left && len >= sizeof(word)) {
    __builtin_memcpy(&word, text + len - sizeof(word), sizeof(word));
    word >>= (sizeof(word) - left) * 8;
  } else {
    for (unsigned long i = left; i > 0; --i)
      word = word << 8 | static_cast<ox_u8_t>(text[at + i - 1]);
  }
  return word;
}

/* Bit n: byte n is a '/'. */
inline ox_u64_t rule_hash_slashes(ox_u64_t word) {
  const ox_u64_t low_bits = 0x7F7F7F7F7F7F7F7Full;
  const ox_u64_t differs = word ^ 0x2F2F2F2F2F2F2F2Full; /* a zero byte for each '/' */
  const ox_u64_t marks = ~(((differs & low_bits) + low_bits) | differs | low_bits);
  return (marks >> 7) * 0x0102040810204080ull >> 56;
}

/* ---- the search ---- */

/* Bit n: a directory of `at + n` bytes may be one that the path is in, or is. `at` is a multiple of
 * 64, at most the path's length. */
inline ox_u64_t rule_path_ends(const char *path, unsigned long len, unsigned long at) {
  ox_u64_t ends = 0;
  for (unsigned long n = 0; n < RULE_INDEX_LENS && at + n < len; n += sizeof(ends))
    ends |= rule_hash_slashes(rule_hash_word(path, len, at + n)) << n;
  if (len - at < RULE_INDEX_LENS) ends |= 1ull << (len - at);
  return ends;
}

/*
 * each(rule) for every rule that may include the path, some more than once. Rules of one directory
 * come in list order; where each() returns false, the rest of these is left out.
 */
template <typename Each>
inline void rule_index_search(const struct rule_index *index, const char *path, Each each) {
  const unsigned long len = strlen(path);
  ox_u64_t hash = 0; /* of the path up to `hashed` */
  unsigned long hashed = 0;
  for (unsigned long at = 0; at <= len; at += RULE_INDEX_LENS) {
    ox_u64_t ends = rule_path_ends(path, len, at) & index->lens;
    for (; ends; ends &= ends - 1) {
      const unsigned long end = at + static_cast<unsigned>(__builtin_ctzll(ends));
      for (; end - hashed >= sizeof(hash); hashed += sizeof(hash))
        hash = rule_hash_step(hash, rule_hash_word(path, end, hashed));
      const ox_u64_t wanted = rule_hash_end(hash, rule_hash_word(path, end, hashed), end);
      const struct rule_key *key = index->bucket[wanted >> (64 - RULE_INDEX_BITS)].first;
      for (; key; key = key->next) {
        if (key->hash == wanted && !each(key->node)) break;
      }
    }
  }
}

#endif
