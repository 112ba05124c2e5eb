/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Empties a list of reference-counted nodes under a lock that is held for reading only, while other
 * readers walk it.
 *
 * The chain of nodes is detached from the head as a whole and keeps its links, so that a walk
 * inside it still reaches the head and ends. Nothing can be added while readers hold the lock, so
 * there is at most one such chain. The next writer unlinks its nodes and drops the list's
 * references: every writer calls drain first, and a flush itself tries at its end.
 */
#ifndef OX_FLUSH_H
#define OX_FLUSH_H

#include "ox_guard.h"

/* The first entry, or the head. Its links do not change while the lock is held. */
inline struct list_head *ox_first(const struct list_head *head) {
  return ox_load(head->next);
}

struct ox_flush {
  spinlock_t lock;         /* serializes flushes; taken inside the list's lock */
  struct list_head *chain; /* the first detached node, or null; the last one links to the head */

  /* The list's lock is held, at least for reading. Calls each(node) once per node. */
  template <typename Each>
  void detach(struct list_head *head, Each each) {
    spin_guard guard(lock);
    struct list_head *first = head->next;
    if (first == head) return;
    for (struct list_head *p = first; p != head; p = p->next) each(p);
    chain = first;
    head->prev = head;
    ox_store(head->next, head);
  }

  /*
   * The list's lock is held for writing. Moves the detached nodes to `gone`; the caller drops the
   * list's references on them after it has released the lock.
   */
  void drain(struct list_head *head, struct list_head *gone) {
    struct list_head *p = chain;
    chain = nullptr;
    while (p && p != head) {
      struct list_head *next = p->next;
      list_add_tail(p, gone);
      p = next;
    }
  }
};

static inline void ox_flush_init(struct ox_flush *flush) {
  spin_lock_init(&flush->lock);
  flush->chain = nullptr;
}

#endif
