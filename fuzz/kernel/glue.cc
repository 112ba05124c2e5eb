// SPDX-License-Identifier: GPL-2.0
// Kernel side: see uk_fuzz.h.
#include "fuzz/uk_fuzz.h"

#include "base64.h"
#include "kernel.h"
#include "netlink.h"
#include "rule.h"
#include "statematch.h"
#include "trans.h"
#include "ukern/mm/alloc_track.h"

struct uk_fuzz_pattern {
  matchdr_t m;
};

struct uk_fuzz_pattern *uk_fuzz_pattern_new(const char *text) {
  struct uk_fuzz_pattern *pattern =
      static_cast<struct uk_fuzz_pattern *>(kzalloc(sizeof(*pattern), GFP_KERNEL));
  if (pattern && build_path_match(&pattern->m, text)) {
    kfree(pattern);
    pattern = nullptr;
  }
  return pattern;
}

void uk_fuzz_pattern_free(struct uk_fuzz_pattern *pattern) {
  if (!pattern) return;
  clearmatch(&pattern->m);
  kfree(pattern);
}

unsigned uk_fuzz_pattern_match(const struct uk_fuzz_pattern *pattern, const char *path) {
  return match(&pattern->m, path);
}

int uk_fuzz_base64_encode_len(int len, int crlf) {
  return CalBase64EncodeLen(len, crlf);
}

int uk_fuzz_base64_decode_len(int len) {
  return CalBase64DecodeLen(len);
}

int uk_fuzz_base64_encode(const void *in, int len, char *out, int *size, int crlf) {
  return Base64Encode(in, len, out, size, crlf) != nullptr;
}

int uk_fuzz_base64_decode(const char *in, int len, char *out, int *size) {
  return Base64Decode(in, len, out, size) != nullptr;
}

unsigned long uk_fuzz_blocks(void) {
#if UKERN_DEBUG
  return alloc_track_count(nullptr, nullptr) +
         (rulenode_cachep ? alloc_track_count(rulenode_cachep, nullptr) : 0);
#else
  return 0;
#endif
}

unsigned uk_fuzz_daemon(void) {
  return daemon_pid;
}

int uk_fuzz_hits(const char *path) {
  struct hit_rules *hits;
  const int count = tarn_get_hit_rule(&hits, path, nullptr);
  if (count < 0) return count;
  for (int i = 0; i < count; ++i) prule_node_put(hits->arr[i]);
  kmem_cache_free(hit_rule_cache, hits);
  return count;
}

int uk_fuzz_change(const char *path) {
  return tarn_para_sync(OX_OP_UNLINK, path, nullptr, 0);
}

int uk_fuzz_stop_notice(const unsigned char *uuid) {
  return tarn_send_stop_rule(uuid);
}
