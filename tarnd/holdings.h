/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the host kernel holds of a mount: references to nodes, one per lookup that it has not
 * forgotten, and open files. What it still holds when the session ends is given back by clear().
 *
 * All calls may come from any thread; where one gives something back, a task must be current.
 */
#ifndef TARND_HOLDINGS_H
#define TARND_HOLDINGS_H

#include <mutex>
#include <unordered_map>

#include "ukern/uk_fs.h"

namespace tarnd {

class Holdings {
 public:
  /* One more lookup of the node; whether it is open. */
  bool add_node(uk_node *node);
  void drop_node(uk_node *node, unsigned long count);
  /* The node stays open until the file is dropped. It may be the root, which is never looked up. */
  void add_file(uk_file *file, uk_node *node);
  void drop_file(uk_file *file);
  void clear();
  /* How many nodes are held. */
  size_t nodes() const;

 private:
  struct Held {
    unsigned long lookups = 0;
    unsigned long opens = 0;
  };
  void close_locked(uk_node *node);

  mutable std::mutex mutex_;
  std::unordered_map<uk_node *, Held> nodes_;       // under mutex_
  std::unordered_map<uk_file *, uk_node *> files_;  // under mutex_
};

}  // namespace tarnd

#endif
