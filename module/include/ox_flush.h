/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Emptying a list of reference-counted nodes under a lock that is held for reading only, while
 * others walk it.
 *
 * The chain of nodes is taken off the head as a whole and keeps its links, so that a walk that is
 * inside it goes on to the head and ends. As long as anybody reads, nothing can be added (that
 * takes the lock for writing), so there is at most one such chain. Whoever next holds the lock for
 * writing unlinks its nodes one by one and drops the list's references: every writer calls drain
 * first, a flush itself tries at its end.
 */
#ifndef OX_FLUSH_H
#define OX_FLUSH_H

#include "ox_guard.h"

/* The first entry, or the head. From there on the links do not change while the lock is held. */
inline struct list_head *ox_first(const struct list_head *head) {
  return ox_load(head->next);
}

struct ox_flush {
  spinlock_t lock; /* among those that flush; inside the list's lock */
  struct list_head
      *chain; /* the first node taken off, null: none; the last one links to the head */

  /* The list's lock is held, for reading at least. `each(node)` sees every node once. */
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
   * The list's lock is held for writing. Moves the nodes taken off to `gone`; with the lock
   * released, the caller gives the list's references on them back.
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
