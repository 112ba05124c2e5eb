/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the host kernel holds of a mount: references to nodes, one per lookup that it has not
 * forgotten, and open files. What it still holds when the session ends is given back by clear().
 *
 * All calls may come from any thread; where one gives something back, a task must be current. A
 * node is held by one Holdings at a time.
 */
#ifndef TARND_FUSE_HOLDINGS_H
#define TARND_FUSE_HOLDINGS_H

#include <condition_variable>
#include <cstddef>
#include <limits>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "ukern/door/uk_fs.h"

namespace tarnd {

/* Files can be forgotten, unless they are open; directories stay, because somebody may be in them.
 */
enum class Kind : bool { kFile, kDirectory };

class Holdings {
 public:
  /* One more lookup of the node. */
  void add_node(uk_node *node, Kind kind);
  void drop_node(uk_node *node, unsigned long count);
  /* The node stays open until the file is dropped. It may be the root, which is never looked up. */
  void add_file(uk_file *file, uk_node *node);
  void drop_file(uk_file *file);

  void clear();
  /* How many nodes are held, directories among them, and how many files are open. */
  size_t nodes() const;
  size_t open_files() const;

  /*
   * The host keeps each node that it has looked up until its own memory runs short, and each file
   * among them costs a descriptor. Waits until more than `limit` of these are held and gives some
   * that are not open, each with a reference that is the caller's; nothing after close(). Throws
   * std::bad_alloc.
   */
  std::optional<std::vector<uk_node *>> wait_for_too_many(size_t limit);
  /* Ends the wait, now and from here on. */
  void close();

 private:
  /* In the node's own room, where a look-up is anyway; zero as long as the node is not held. */
  struct Held {
    uk_node *before, *after; /* in the list of those that are held; 0: the first, the last */
    unsigned long lookups;
    unsigned opens; /* files, each with a reference to the node */
    Kind kind;      /* as it was looked up */
    bool is_held() const { return lookups > 0 || opens > 0; }
  };
  struct List {
    uk_node *first = nullptr, *last = nullptr;
    size_t count = 0;
  };
  static Held &held_of(uk_node *node);
  Held &hold_locked(uk_node *node, Kind kind);
  static void append(List *list, uk_node *node);
  static void remove(List *list, uk_node *node);
  List &list_of(Kind kind) { return kind == Kind::kDirectory ? directories_ : others_; }
  void leave_if_unheld_locked(uk_node *node);
  size_t too_many_locked() const;
  std::vector<uk_node *> pick_locked(size_t most);

  mutable std::mutex mutex_;
  std::condition_variable grown_;                      // a node was added beyond limit_, or closed_
  size_t limit_ = std::numeric_limits<size_t>::max();  // under mutex_, and so are these
  List directories_, others_;                          // whose turn it is to be picked is first
  bool closed_ = false;
  std::unordered_map<uk_file *, uk_node *> files_;  // under mutex_
};

}  // namespace tarnd

#endif
