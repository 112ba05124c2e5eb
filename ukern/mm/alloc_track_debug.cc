// SPDX-License-Identifier: GPL-2.0
#include "ukern/mm/alloc_track.h"

#include <linux/hash.h>
#include <linux/spinlock.h>

#include "ukern/host/host.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/report.h"
#include "ukern/sync/stack.h"

namespace {

constexpr unsigned kBucketBits = 14;
constexpr unsigned kWords = 64;  // each protects every 64th bucket
constexpr unsigned kShown = 8;

struct Record {
  Record *next;
  const void *block;
  const void *owner;
  size_t size;
  call_stack where;
};

Record *buckets[1u << kBucketBits];
volatile unsigned int words[kWords];

unsigned bucket_of(const void *block) {
  return static_cast<unsigned>(hash_long(reinterpret_cast<unsigned long>(block) >> 4, kBucketBits));
}

void report_foreign(const void *block, const char *owner_name, const Record *record) {
  bug_report *report =
      report_begin("%p given back to %s, %s", block, owner_name,
                   record ? "which did not give it out" : "but nobody gave it out");
  report_here(report);
  if (record) report_stack(report, "it was allocated at", &record->where);
  report_end(report);
}

}  // namespace

extern "C" {

bool alloc_track_add(const void *block, size_t size, const void *owner) {
  auto *record = static_cast<Record *>(host_alloc(sizeof(Record), 16));
  if (!record) return false;
  record->block = block;
  record->owner = owner;
  record->size = size;
  call_stack_save(&record->where, 1);
  const unsigned bucket = bucket_of(block);
  WordGuard guard(words[bucket % kWords]);
  record->next = buckets[bucket];
  buckets[bucket] = record;
  return true;
}

bool alloc_track_remove(const void *block, const void *owner, const char *owner_name,
                        size_t *size) {
  const unsigned bucket = bucket_of(block);
  Record *record;
  Record copy;
  bool mine;
  {
    WordGuard guard(words[bucket % kWords]);
    Record **link = &buckets[bucket];
    while (*link && (*link)->block != block) link = &(*link)->next;
    record = *link;
    mine = record && record->owner == owner;
    if (mine)
      *link = record->next;
    else if (record)
      copy = *record;
  }
  if (!mine) {
    report_foreign(block, owner_name, record ? &copy : nullptr);
    return false;
  }
  *size = record->size;
  host_free(record);
  return true;
}

void alloc_track_free_all(void) {
  for (unsigned bucket = 0; bucket < 1u << kBucketBits; bucket++) {
    WordGuard guard(words[bucket % kWords]);
    while (Record *record = buckets[bucket]) {
      buckets[bucket] = record->next;
      host_free(const_cast<void *>(record->block));
      host_free(record);
    }
  }
}

unsigned long alloc_track_count(const void *owner, struct bug_report *report) {
  unsigned long count = 0;
  for (unsigned bucket = 0; bucket < 1u << kBucketBits; bucket++) {
    WordGuard guard(words[bucket % kWords]);
    for (const Record *record = buckets[bucket]; record; record = record->next) {
      if (record->owner != owner || count++ >= kShown || !report) continue;
      char title[96];
      snprintf(title, sizeof(title), "%p, %zu bytes, allocated at", record->block, record->size);
      report_stack(report, title, &record->where);
    }
  }
  return count;
}
}
