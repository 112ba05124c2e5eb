/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A set of reference-counted nodes with a UUID each, in the order in which they were added.
 *
 * The set holds one reference on each node. A Node has `list` (struct list_head), uuid(), and get()
 * and put() for its references. Look-ups hold the lock for reading, changes hold it for writing; a
 * flush holds it for reading only (see ox_flush.h).
 */
#ifndef OX_SET_H
#define OX_SET_H

#include "ox_flush.h"
#include "ox_guard.h"
#include "ox_uuid.h"

template <typename Node>
struct ox_set {
  struct list_head head;
  rwlock_t rwlock;
  struct ox_flush flushed; /* nodes that a flush has detached */

  void init() {
    INIT_LIST_HEAD(&head);
    rwlock_init(&rwlock);
    ox_flush_init(&flushed);
  }

  /* The lock is held. */
  Node *find_locked(const uuid_t uuid) const {
    for (struct list_head *p = ox_first(&head); p != &head; p = p->next) {
      Node *node = list_entry(p, Node, list);
      if (uuid_same(node->uuid(), uuid)) return node;
    }
    return nullptr;
  }
  /* Returns the node with a reference for the caller, or null. */
  Node *find(const uuid_t uuid) {
    read_guard guard(rwlock);
    Node *node = find_locked(uuid);
    if (node) node->get();
    return node;
  }
};

/* Nodes that were removed from a set under its lock. Drops the set's references when destroyed,
 * which must be after the lock is released: declare it before the lock guard. */
template <typename Node>
class ox_removed {
 public:
  ox_removed() { INIT_LIST_HEAD(&nodes_); }
  ~ox_removed() {
    Node *node, *next;
    list_for_each_entry_safe(node, next, &nodes_, list) {
      list_del_init(&node->list);
      node->put();
    }
  }
  ox_removed(const ox_removed &) = delete;
  ox_removed &operator=(const ox_removed &) = delete;

  /* Takes the nodes that flushes have detached. Call it first, with the lock held for writing. */
  void take_flushed_locked(struct ox_set<Node> &set) { set.flushed.drain(&set.head, &nodes_); }
  void take_locked(Node *node) { list_move_tail(&node->list, &nodes_); }
  struct list_head *nodes() {
    return &nodes_;
  }

 private:
  struct list_head nodes_;
};

#endif
