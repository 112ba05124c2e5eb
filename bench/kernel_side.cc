// SPDX-License-Identifier: GPL-2.0
// The benchmarks' side of the kernel image.
#include "bench/kernel_side.h"

#include "base64.h"
#include "kernel.h"
#include "ox_guard.h"
#include "rule.h"
#include "statematch.h"
#include "trans.h"

struct uk_bench_matcher {
  matchdr_t m;
};

static int build(matchdr_t *m, const char *const *dirs, unsigned count) {
  initmatch(m, 0, 1, CMP_STR);
  for (unsigned i = 0; i < count; ++i) {
    if (addstr(m, dirs[i], static_cast<int>(strlen(dirs[i])) + 1, 0, 1)) return -ENOMEM;
  }
  return compilematch(m) ? -ENOMEM : 0;
}

// The rule's number stands in its identifier in decimal: a zero byte would end the identifier.
static void put_uuid(uuid_t uuid, unsigned id) {
  char text[OX_UUID_LEN + 1];
  snprintf(text, sizeof(text), "bench rule %05u", id);
  memcpy(uuid, text, OX_UUID_LEN);
}

static unsigned rule_number(const uuid_t uuid) {
  unsigned id = 0;
  for (int i = OX_UUID_LEN - 5; i < OX_UUID_LEN; ++i) {
    id = id * 10 + static_cast<unsigned>(uuid[i] - '0');
  }
  return id;
}

extern "C" {

struct uk_bench_matcher *uk_bench_matcher_new(const char *const *dirs, unsigned count) {
  auto *matcher =
      static_cast<struct uk_bench_matcher *>(kzalloc(sizeof(struct uk_bench_matcher), GFP_KERNEL));
  if (!matcher) return nullptr;
  if (!build(&matcher->m, dirs, count)) return matcher;
  uk_bench_matcher_free(matcher);
  return nullptr;
}

void uk_bench_matcher_free(struct uk_bench_matcher *matcher) {
  clearmatch(&matcher->m);
  kfree(matcher);
}

int uk_bench_match(const struct uk_bench_matcher *matcher, const char *path) {
  return match(&matcher->m, path) != STATE_MISS;
}

int uk_bench_rule_add(unsigned id, const char *dir) {
  ox_owner<struct prule, kfree> record(
      static_cast<struct prule *>(kzalloc(sizeof(struct prule), GFP_KERNEL)));
  if (!record) return -ENOMEM;
  put_uuid(record->uuid, id);
  ox_s32_t size = OX_WORKDIR_LEN - 1;
  if (!Base64Encode(dir, static_cast<int>(strlen(dir)), record->workdir, &size, 0)) return -EINVAL;
  kernel_ds_guard kernel_addresses;
  return do_add(record.get(), sizeof(struct prule));
}

void uk_bench_rules_flush(void) {
  do_flush(0);
}

int uk_bench_hits(const char *path, unsigned *ids) {
  struct hit_rules *hits;
  const int count = tarn_get_hit_rule(&hits, path, nullptr);
  if (count < 0) return count;
  for (int i = count - 1; i >= 0; --i) {
    if (ids) ids[i] = rule_number(hits->arr[i]->rule.uuid);
    prule_node_put(hits->arr[i]);
  }
  kmem_cache_free(hit_rule_cache, hits);
  return count;
}

int uk_bench_write_sync(struct uk_file *file, const void *buf, unsigned long len,
                        unsigned long long offset) {
  struct dentry *dentry = reinterpret_cast<struct file *>(file)->f_dentry;
  return tarn_write_sync(dentry, static_cast<const char __user *>(buf), len,
                         static_cast<loff_t>(offset));
}

}  // extern "C"
