/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The references of the host kernel to one mount: a lookup count per node, and the open files.
 * clear() drops all of them when the session ends.
 *
 * Any thread may call. A call that drops a reference needs a current task. A node is in one table
 * at a time.
 */
#ifndef TARND_FUSE_LOOKUP_TABLE_H
#define TARND_FUSE_LOOKUP_TABLE_H

#include <condition_variable>
#include <cstddef>
#include <limits>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "ukern/door/uk_fs.h"

namespace tarnd {

/* Files that are not open can be evicted. Directories cannot: one may be a working directory. */
enum class Kind : bool { kFile, kDirectory };

class LookupTable {
 public:
  /* Adds one to the node's lookup count. */
  void add_lookup(uk_node *node, Kind kind);
  /* Takes `count` off it, as a forget request does. */
  void forget(uk_node *node, unsigned long count);
  /* Keeps a reference to the node until the file is released. The node may be the root, which is
   * never looked up. */
  void add_open_file(uk_file *file, uk_node *node);
  void release(uk_file *file);

  void clear();
  /* The number of nodes with references, directories included, and of open files. */
  size_t nodes() const;
  size_t open_files() const;

  /*
   * The host drops a node only when its own memory runs short, and each file among them has a
   * descriptor here. Waits until there are more than `limit` of these. Returns some that are not
   * open, each with a reference that is the caller's; nothing after close(). Throws std::bad_alloc.
   */
  std::optional<std::vector<uk_node *>> wait_for_eviction(size_t limit);
  /* Ends the wait, and all later ones. */
  void close();

 private:
  /* Stored in the node itself (uk_node_room). All zero while the host has no reference. */
  struct Entry {
    uk_node *previous, *next; /* in the list of its kind */
    unsigned long lookups;
    unsigned opens; /* open files, each with a reference to the node */
    Kind kind;
    bool referenced() const { return lookups > 0 || opens > 0; }
  };
  struct List {
    uk_node *first = nullptr, *last = nullptr;
    size_t count = 0;
  };
  static Entry &entry_of(uk_node *node);
  Entry &insert_locked(uk_node *node, Kind kind);
  static void append(List *list, uk_node *node);
  static void unlink(List *list, uk_node *node);
  List &list_of(Kind kind) { return kind == Kind::kDirectory ? directories_ : files_; }
  void remove_unreferenced_locked(uk_node *node);
  size_t excess_locked() const;
  std::vector<uk_node *> pick_victims_locked(size_t most);

  mutable std::mutex mutex_;                           // for all that follows
  std::condition_variable evict_;                      // excess, or closed_
  size_t limit_ = std::numeric_limits<size_t>::max();  // of wait_for_eviction()
  List directories_, files_;                           // the next victim is first
  bool closed_ = false;
  std::unordered_map<uk_file *, uk_node *> open_files_;
};

}  // namespace tarnd

#endif
