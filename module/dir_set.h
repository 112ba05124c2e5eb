/* SPDX-License-Identifier: GPL-2.0 */
/* The structures of the set of replicated directories, for dir.cc and its tests. */
#ifndef TARN_DIR_SET_H
#define TARN_DIR_SET_H

#include "dir.h"
#include "ox_set.h"

struct dir_node {
  struct list_head list;     /* under dirset.rwlock */
  struct list_head aux_list; /* not used */
  atomic_t refcnt;
  spinlock_t node_lock; /* not used */
  struct dir dir;       /* repdir ends in a NUL */

  const ox_u8_t *uuid() const { return dir.uuid; }
  void get() { dir_node_get(this); }
  void put() { dir_node_put(this); }
};

struct dir_set : ox_set<struct dir_node> {
  int dirnum;
};

#endif
