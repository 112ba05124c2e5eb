/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Finds the rules that a path may hit without testing the others.
 *
 * Only a rule that lists a path or a directory above it can include the path. So each rule is
 * entered once per directory that it includes, under a hash of the directory's bytes, and a search
 * looks up every prefix of the path that ends before a '/' or at the path's end. The caller then
 * matches the path against the automaton of each rule found, which decides about exclusions and
 * order; equal hashes of different directories do no harm.
 *
 * The index belongs to the set of rules, whose lock is held for reading for a search and for
 * writing for a change. Only rule_keys_new sleeps and allocates.
 */
#ifndef TARN_RULE_INDEX_H
#define TARN_RULE_INDEX_H

#include "kernel.h"
#include "TypeDef.h"

struct prule_node;

/* One directory that a rule includes. No two keys of a rule agree in both hash and length. */
struct rule_key {
  struct rule_key *next; /* in its bucket, in list order of the rules */
  struct rule_key *prev;
  struct prule_node *node;
  ox_u64_t hash; /* of the directory without a trailing '/' */
  ox_u32_t len;  /* its length */
};

#define RULE_INDEX_BITS 12
#define RULE_INDEX_BUCKETS (1 << RULE_INDEX_BITS)
#define RULE_INDEX_LENS 64
/* With so few lengths in use, a search looks at the path's bytes there and at no others. */
#define RULE_INDEX_FEW_LENS 8

struct rule_bucket {
  struct rule_key *first;
  struct rule_key *last;
};

/* All zero: empty. */
struct rule_index {
  struct rule_bucket bucket[RULE_INDEX_BUCKETS];
  /* Bit n: there is a key whose length modulo 64 is n. Saves the search for most prefixes. */
  ox_u64_t lens;
  ox_u32_t lens_used;                /* number of its bits that are set */
  ox_u32_t lens_nr[RULE_INDEX_LENS]; /* number of keys of each */
};

/*
 * Makes the keys of a rule with this workdir, in one block that the caller frees with kfree; their
 * number is in *count. They are not entered. A directory that is listed several times has one key.
 * Null without memory.
 */
[[nodiscard]] struct rule_key *rule_keys_new(struct prule_node *node, const char *workdir,
                                             int *count);
/* Enters a rule's keys after those of all other rules, in linear time. */
void rule_index_add(struct rule_index *index, struct rule_key *keys, int count);
/* Removes keys from the index, in linear time. */
void rule_index_del(struct rule_index *index, struct rule_key *keys, int count);

/* ---- hashing ---- */

inline ox_u64_t rule_hash_step(ox_u64_t hash, ox_u64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
  return hash ^ hash >> 32;
}

/* The hash of a text of `len` bytes: `hash` is that of its whole words, `rest` its last 0 to 7
 * bytes. */
inline ox_u64_t rule_hash_end(ox_u64_t hash, ox_u64_t rest, unsigned long len) {
  return rule_hash_step(hash, rest | static_cast<ox_u64_t>(len) << 56);
}

/* The eight bytes of a text at `at`, or its last 0 to 7, as a little-endian word. */
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

/* Bit n: the path's first `at + n` bytes are a directory above it or the path itself. `at` is a
 * multiple of 64, at most the path's length. */
inline ox_u64_t rule_path_ends(const char *path, unsigned long len, unsigned long at) {
  ox_u64_t ends = 0;
  for (unsigned long n = 0; n < RULE_INDEX_LENS && at + n < len; n += sizeof(ends))
    ends |= rule_hash_slashes(rule_hash_word(path, len, at + n)) << n;
  if (len - at < RULE_INDEX_LENS) ends |= 1ull << (len - at);
  return ends;
}

/* Bit n: the path's first `at + n` bytes may be the directory of a key. */
inline ox_u64_t rule_index_ends(const struct rule_index *index, const char *path, unsigned long len,
                                unsigned long at) {
  if (index->lens_used > RULE_INDEX_FEW_LENS) return rule_path_ends(path, len, at) & index->lens;
  return len - at < RULE_INDEX_LENS - 1 ? index->lens & ((2ull << (len - at)) - 1) : index->lens;
}

/*
 * Calls each(rule) for every rule that may include the path, for some more than once. Rules of one
 * directory come in list order; after each() returns false, the rest of these is skipped.
 */
template <typename Each>
inline void rule_index_search(const struct rule_index *index, const char *path, unsigned long len,
                              Each each) {
  ox_u64_t hash = 0; /* of the path up to `hashed` */
  unsigned long hashed = 0;
  for (unsigned long at = 0; at <= len; at += RULE_INDEX_LENS) {
    ox_u64_t ends = rule_index_ends(index, path, len, at);
    for (; ends; ends &= ends - 1) {
      const unsigned long end = at + static_cast<unsigned>(__builtin_ctzll(ends));
      if (end < len && path[end] != '/') continue;
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
