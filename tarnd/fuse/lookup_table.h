/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The host kernel's references to nodes of one mount: a lookup count per node, and the open files.
 * clear() drops all of them when the session ends.
 *
 * Any thread may call. A call that drops a reference needs a current task. A node is in one table
 * at a time.
 */
#ifndef TARND_FUSE_LOOKUP_TABLE_H
#define TARND_FUSE_LOOKUP_TABLE_H

#include <cstddef>
#include <limits>
#include <optional>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

/* Files that are not open can be evicted. Directories cannot: one may be a working directory. */
enum class Kind : bool { kFile, kDirectory };

class LookupTable {
 public:
  /* Adds one to the node's lookup count. */
  void add_lookup(uk_node *node, Kind kind) EXCLUDES(mutex_);
  /* Subtracts `count` from it, for a forget request. */
  void forget(uk_node *node, unsigned long count) EXCLUDES(mutex_);
  /* Holds a reference to the node until the file is released. The node may be the root, which is
   * never looked up. */
  void add_open_file(uk_file *file, uk_node *node) EXCLUDES(mutex_);
  void release(uk_file *file) EXCLUDES(mutex_);

  void clear() EXCLUDES(mutex_);
  /* The number of nodes with references, directories included, and of open files. */
  size_t nodes() const EXCLUDES(mutex_);
  size_t open_files() const EXCLUDES(mutex_);

  /*
   * The host drops a node only when its own memory runs short, and each file has a descriptor here.
   * Waits until there are more than `limit` of these. Returns nodes that are not open, with a
   * reference each for the caller; nothing after close(). Throws std::bad_alloc.
   */
  std::optional<std::vector<uk_node *>> wait_for_eviction(size_t limit) EXCLUDES(mutex_);
  /* Are there so many that the evictor should not be given more to do than must be? */
  bool crowded() const EXCLUDES(mutex_);
  /* Ends this and all later waits. */
  void close() EXCLUDES(mutex_);

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
  Entry &entry_locked(uk_node *node) REQUIRES(mutex_);
  Entry &insert_locked(uk_node *node, Kind kind) REQUIRES(mutex_);
  void append_locked(List *list, uk_node *node) REQUIRES(mutex_);
  void unlink_locked(List *list, uk_node *node) REQUIRES(mutex_);
  List &list_locked(Kind kind) REQUIRES(mutex_) {
    return kind == Kind::kDirectory ? directories_ : files_;
  }
  void remove_unreferenced_locked(uk_node *node) REQUIRES(mutex_);
  size_t excess_locked() const REQUIRES(mutex_);
  std::vector<uk_node *> pick_victims_locked(size_t most) REQUIRES(mutex_);

  mutable tarn::Mutex mutex_;
  tarn::Condition evict_;  // wait_for_eviction()'s
  size_t limit_ GUARDED_BY(mutex_) = std::numeric_limits<size_t>::max();
  List directories_ GUARDED_BY(mutex_), files_ GUARDED_BY(mutex_);  // the next victim is first
  bool closed_ GUARDED_BY(mutex_) = false;
  std::unordered_map<uk_file *, uk_node *> open_files_ GUARDED_BY(mutex_);
};

}  // namespace tarnd

#endif
