// SPDX-License-Identifier: GPL-2.0
#include <linux/spinlock.h>

#include "ukern/sync/reflog.h"

#include <linux/string.h>

#include "ukern/host/host.h"
#include "ukern/sync/stack.h"

namespace {

struct Change {
  int change, count;
  call_stack where;
};

}  // namespace

struct reflog {
  volatile unsigned int word;  // protects the rest
  unsigned long noted;         // entry n is changes[n % UKERN_REFLOG_ENTRIES]
  Change changes[UKERN_REFLOG_ENTRIES];
};

namespace {

// Two threads may add the first entry at once: the second one uses the first one's log.
reflog *log_of(reflog **slot) {
  reflog *log = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
  if (log) return log;
  auto *made = static_cast<reflog *>(host_alloc(sizeof(reflog), 16));
  if (!made) return nullptr;
  made->word = 0;
  made->noted = 0;
  if (__atomic_compare_exchange_n(slot, &log, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
    return made;
  host_free(made);
  return log;
}

}  // namespace

extern "C" {

void reflog_note(struct reflog **slot, int change, int count) {
  reflog *log = log_of(slot);
  if (!log) return;
  Change entry;
  entry.change = change;
  entry.count = count;
  call_stack_save(&entry.where, 1);
  ukern_word_lock(&log->word);
  log->changes[log->noted++ % UKERN_REFLOG_ENTRIES] = entry;
  ukern_word_unlock(&log->word);
}

void reflog_free(struct reflog *log) {
  host_free(log);
}

void report_reflog(struct bug_report *report, const struct reflog *const_log) {
  if (!const_log) return;
  auto *log = const_cast<reflog *>(const_log);
  ukern_word_lock(&log->word);
  const unsigned long end = log->noted;
  const unsigned long start = end > UKERN_REFLOG_ENTRIES ? end - UKERN_REFLOG_ENTRIES : 0;
  if (start) report_line(report, "%lu earlier changes of the count are not shown", start);
  for (unsigned long i = start; i < end; i++) {
    const Change &entry = log->changes[i % UKERN_REFLOG_ENTRIES];
    char title[64];
    snprintf(title, sizeof(title), "reference %s, %d then", entry.change > 0 ? "taken" : "dropped",
             entry.count);
    report_stack(report, title, &entry.where);
  }
  ukern_word_unlock(&log->word);
}
}
