// SPDX-License-Identifier: GPL-2.0
#include "ukern/sync/lockcheck.h"

#include <linux/hardirq.h>
#include <linux/hash.h>
#include <linux/kernel.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "ukern/sync/report.h"
#include "ukern/sync/stack.h"

extern "C" {
// The bounds of the program in memory, from the linker.
extern char __executable_start[] __attribute__((visibility("hidden")));
extern char _end[] __attribute__((visibility("hidden")));
}

namespace {

constexpr unsigned int kHeld = 48;
constexpr unsigned int kClassBits = 10;
constexpr unsigned int kClasses = 1u << kClassBits;
constexpr unsigned int kEdges = 8192;
constexpr unsigned int kNoClass = 0;

struct Held {
  lockdep_map *map;
  unsigned int lock_class;
  ukern_lock_kind kind;
  call_stack where;
};

struct ThreadLocks {
  unsigned int depth;
  int preempt;
  Held held[kHeld];
};

__thread ThreadLocks thread_locks __attribute__((tls_model("initial-exec")));

__thread unsigned int init_depth __attribute__((tls_model("initial-exec")));

// A class is a key, a subclass and a depth. Slot 0 is no class. Keys are written once, under
// graph_word.
struct LockClass {
  const char *key;  // address of the byte in the key for the subclass and depth
  const char *name;
  unsigned int subclass, depth;
};

// `later` was taken under `earlier`, with the call stacks of the first time.
struct Edge {
  unsigned int earlier, later;
  unsigned int next;  // of the same earlier class; 0 ends
  call_stack earlier_at, later_at;
};

LockClass classes[kClasses];
unsigned long after[kClasses][kClasses / BITS_PER_LONG];  // bit: an edge is known
Edge edges[kEdges];
unsigned int first_edge[kClasses];
unsigned int edge_count;
volatile unsigned int graph_word;
int warned_full;

// Scratch of path_exists, under graph_word.
unsigned int reached_by[kClasses];
unsigned int queue[kClasses];

bool is_static(const void *address) {
  return static_cast<const char *>(address) >= __executable_start &&
         static_cast<const char *>(address) < _end;
}

unsigned int class_add(const char *key, const lockdep_map *map, unsigned int subclass) {
  const unsigned int start =
      static_cast<unsigned int>(hash_long(reinterpret_cast<unsigned long>(key), kClassBits));
  for (unsigned int i = 0; i < kClasses; i++) {
    const unsigned int slot = (start + i) % kClasses;
    if (slot == kNoClass) continue;
    LockClass *lock_class = &classes[slot];
    if (lock_class->key == key) return slot;
    if (lock_class->key) continue;
    lock_class->name = map->name;
    lock_class->subclass = subclass;
    lock_class->depth = map->key ? map->depth : 0;
    __atomic_store_n(&lock_class->key, key, __ATOMIC_RELEASE);
    return slot;
  }
  return kNoClass;
}

unsigned int class_of(lockdep_map *map, unsigned int subclass) {
  const char *key;
  if (map->key)
    key = map->key->subkeys + map->depth * MAX_LOCKDEP_SUBCLASSES + subclass;
  else if (is_static(map))
    key = reinterpret_cast<const char *>(map) + subclass;
  else
    return kNoClass;

  const unsigned int start =
      static_cast<unsigned int>(hash_long(reinterpret_cast<unsigned long>(key), kClassBits));
  for (unsigned int i = 0; i < kClasses; i++) {
    const unsigned int slot = (start + i) % kClasses;
    if (slot == kNoClass) continue;
    const char *there = __atomic_load_n(&classes[slot].key, __ATOMIC_ACQUIRE);
    if (there == key) return slot;
    if (!there) break;
  }
  ukern_word_lock(&graph_word);
  const unsigned int slot = class_add(key, map, subclass);
  ukern_word_unlock(&graph_word);
  return slot;
}

struct Label {
  char text[80];
};

// "name", "name/subclass"; " at depth n" in a stacked file system.
Label class_label(unsigned int slot) {
  const LockClass &it = classes[slot];
  char subclass[16] = "", depth[24] = "";
  if (it.subclass) snprintf(subclass, sizeof(subclass), "/%u", it.subclass);
  if (it.depth) snprintf(depth, sizeof(depth), " at depth %u", it.depth);
  Label label;
  snprintf(label.text, sizeof(label.text), "%s%s%s", it.name, subclass, depth);
  return label;
}

const char *name_of(const lockdep_map *map) {
  return map->name ? map->name : "(unnamed)";
}

const char *kind_text(ukern_lock_kind kind) {
  switch (kind) {
    case UKERN_SPIN:
      return "spin lock";
    case UKERN_RW_READ:
      return "rwlock, as reader";
    case UKERN_RW_WRITE:
      return "rwlock, as writer";
    case UKERN_MUTEX:
      return "mutex";
    case UKERN_SEM_READ:
      return "rwsem, as reader";
    case UKERN_SEM_WRITE:
      return "rwsem, as writer";
  }
  return "";
}

bool spins(ukern_lock_kind kind) {
  return kind <= UKERN_RW_WRITE;
}

void report_held(bug_report *report) {
  for (unsigned int i = 0; i < thread_locks.depth; i++) {
    char title[128];
    snprintf(title, sizeof(title), "held: %s %p (%s), taken at", name_of(thread_locks.held[i].map),
             thread_locks.held[i].map, kind_text(thread_locks.held[i].kind));
    report_stack(report, title, &thread_locks.held[i].where);
  }
}

void report_lock(const lockdep_map *map, ukern_lock_kind kind, const char *what) {
  bug_report *report = report_begin("%s: %s %p (%s)", what, name_of(map), map, kind_text(kind));
  report_here(report);
  report_held(report);
  report_end(report);
}

bool edge_known(unsigned int earlier, unsigned int later) {
  return test_bit(static_cast<int>(later), after[earlier]);
}

// Whether `to` was ever taken under `from`, directly or through others. If so, reached_by has the
// way back.
bool path_exists(unsigned int from, unsigned int to) {
  memset(reached_by, 0, sizeof(reached_by));
  unsigned int read = 0, written = 0;
  queue[written++] = from;
  while (read < written) {
    for (unsigned int e = first_edge[queue[read++]]; e; e = edges[e].next) {
      const unsigned int later = edges[e].later;
      if (later == from || reached_by[later]) continue;
      reached_by[later] = e;
      if (later == to) return true;
      queue[written++] = later;
    }
  }
  return false;
}

void report_inversion(const Held *held, unsigned int wanted) {
  const Label first = class_label(held->lock_class), second = class_label(wanted);
  bug_report *report =
      report_begin("lock order inversion: %s is being taken under %s, which was taken under it",
                   second.text, first.text);
  report_stack(report, "here the first was taken at", &held->where);
  report_line(report, "and now the second:");
  report_here(report);
  for (unsigned int at = held->lock_class; at != wanted; at = edges[reached_by[at]].earlier) {
    const Edge *edge = &edges[reached_by[at]];
    char title[200];
    const Label earlier = class_label(edge->earlier), later = class_label(edge->later);
    snprintf(title, sizeof(title), "elsewhere %s was taken at", earlier.text);
    report_stack(report, title, &edge->earlier_at);
    snprintf(title, sizeof(title), "and then %s at", later.text);
    report_stack(report, title, &edge->later_at);
  }
  report_end(report);
}

void record_order(const Held *held, unsigned int wanted) {
  ukern_word_lock(&graph_word);
  bool inverted = false;
  if (!edge_known(held->lock_class, wanted)) {
    if (edge_count + 1 < kEdges) {
      Edge *edge = &edges[++edge_count];
      edge->earlier = held->lock_class;
      edge->later = wanted;
      edge->earlier_at = held->where;
      call_stack_save(&edge->later_at, 2);
      edge->next = first_edge[held->lock_class];
      first_edge[held->lock_class] = edge_count;
    } else if (!warned_full) {
      warned_full = 1;
      printk(KERN_WARNING "lock checker: no room for more orders\n");
    }
    set_bit(static_cast<int>(wanted), after[held->lock_class]);
    inverted = path_exists(wanted, held->lock_class);
    if (inverted) report_inversion(held, wanted);
  }
  ukern_word_unlock(&graph_word);
}

// Why taking the lock under the held one is an error, or null.
const char *nesting_error(const Held *held, const lockdep_map *map, ukern_lock_kind kind,
                          unsigned int lock_class) {
  if (kind == UKERN_RW_READ && held->kind == UKERN_RW_READ) return nullptr;
  if (held->map == map) return "lock taken again by its holder";
  if (lock_class != kNoClass && held->lock_class == lock_class)
    return "second lock of one class taken without a subclass of its own";
  return nullptr;
}

Held *find_held(const lockdep_map *map) {
  for (unsigned int i = thread_locks.depth; i-- > 0;)
    if (thread_locks.held[i].map == map) return &thread_locks.held[i];
  return nullptr;
}

}  // namespace

extern "C" {

void ukern_lock_set_class(struct lockdep_map *map, const char *name, struct lock_class_key *key) {
  if (unlikely(thread_locks.depth && find_held(map)))
    report_lock(map, find_held(map)->kind, "initialised while it is held");
  map->name = name;
  map->key = key;
}

void lockdep_init_map(struct lockdep_map *map, const char *name, struct lock_class_key *key) {
  ukern_lock_set_class(map, name, key);
  map->depth = init_depth;
}

unsigned int ukern_lock_set_depth(unsigned int depth) {
  const unsigned int before = init_depth;
  init_depth = depth < UKERN_LOCK_DEPTHS ? depth : UKERN_LOCK_DEPTHS - 1;
  return before;
}

void ukern_lock_before(struct lockdep_map *map, enum ukern_lock_kind kind, unsigned int subclass) {
  BUG_ON(subclass >= MAX_LOCKDEP_SUBCLASSES);
  if (!spins(kind)) might_sleep();
  if (!thread_locks.depth) return;
  const unsigned int wanted = class_of(map, subclass);
  for (unsigned int i = 0; i < thread_locks.depth; i++) {
    const Held *held = &thread_locks.held[i];
    if (const char *what = nesting_error(held, map, kind, wanted)) report_lock(map, kind, what);
    if (wanted == kNoClass || held->lock_class == kNoClass || wanted == held->lock_class) continue;
    if (!edge_known(held->lock_class, wanted)) record_order(held, wanted);
  }
}

void ukern_lock_got(struct lockdep_map *map, enum ukern_lock_kind kind, unsigned int subclass) {
  BUG_ON(thread_locks.depth == kHeld);
  Held *held = &thread_locks.held[thread_locks.depth++];
  held->map = map;
  held->kind = kind;
  held->lock_class = class_of(map, subclass);
  call_stack_save(&held->where, 1);
  if (spins(kind)) thread_locks.preempt++;
}

void ukern_lock_release(struct lockdep_map *map, enum ukern_lock_kind kind) {
  Held *held = find_held(map);
  if (unlikely(!held)) {
    report_lock(map, kind, "lock given back that is not held");
    return;
  }
  if (unlikely(held->kind != kind))
    report_lock(map, kind, "lock given back in another way than taken");
  if (spins(held->kind)) thread_locks.preempt--;
  thread_locks.depth--;
  for (Held *end = &thread_locks.held[thread_locks.depth]; held < end; held++) *held = held[1];
}

void ukern_lock_downgrade(struct lockdep_map *map) {
  Held *held = find_held(map);
  if (held && held->kind == UKERN_SEM_WRITE)
    held->kind = UKERN_SEM_READ;
  else
    report_lock(map, UKERN_SEM_WRITE, "lock downgraded that is not held as writer");
}

int ukern_lock_held(const struct lockdep_map *map) {
  return find_held(map) != nullptr;
}

void ukern_lock_check_free(const void *memory, unsigned long size) {
  const unsigned long start = reinterpret_cast<unsigned long>(memory);
  for (unsigned int i = 0; i < thread_locks.depth; i++) {
    const unsigned long at = reinterpret_cast<unsigned long>(thread_locks.held[i].map);
    if (at >= start && at < start + size)
      report_lock(thread_locks.held[i].map, thread_locks.held[i].kind,
                  "memory freed with a held lock in it");
  }
}

void ukern_lock_check_none(const char *when) {
  if (likely(!thread_locks.depth && !thread_locks.preempt)) return;
  bug_report *report;
  if (thread_locks.depth)
    report = report_begin("%s with %u locks held, the last one %s", when, thread_locks.depth,
                          name_of(thread_locks.held[thread_locks.depth - 1].map));
  else
    report = report_begin("%s with a preempt count of %d", when, thread_locks.preempt);
  report_here(report);
  report_held(report);
  thread_locks.depth = 0;
  thread_locks.preempt = 0;
  report_end(report);
}

void ukern_lockcheck_reset(void) {
  ukern_word_lock(&graph_word);
  memset(classes, 0, sizeof(classes));
  memset(after, 0, sizeof(after));
  memset(first_edge, 0, sizeof(first_edge));
  edge_count = 0;
  warned_full = 0;
  ukern_word_unlock(&graph_word);
}

void ukern_preempt_add(int count) {
  thread_locks.preempt += count;
}

int ukern_preempt_count(void) {
  return thread_locks.preempt;
}

void ukern_might_sleep(void) {
  if (likely(!thread_locks.preempt)) return;
  bug_report *report = report_begin("sleeping function called in atomic context");
  report_here(report);
  report_held(report);
  report_end(report);
}
}
