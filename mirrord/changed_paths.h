/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The paths that records have named since the replica was last compared with the source there.
 *
 * Records do not tell everything: a write record does not carry the new modification time, and a
 * change of attributes may have hit an object that had left its name. So each path is compared once
 * more when all records up to some time have been applied. One thread. Memory: kMost paths; when it
 * is full, the comparison is done early.
 */
#ifndef TARN_MIRRORD_CHANGED_PATHS_H
#define TARN_MIRRORD_CHANGED_PATHS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/path_map.h"

namespace tarn {

class ChangedPaths {
 public:
  static constexpr std::size_t kMost = 262144;

  void add(const std::string &path) { paths_.try_emplace(path); }
  /* The object itself was changed, and all its other names have that too. */
  void written(const std::string &path) { paths_[path].written = true; }
  bool is_written(const std::string &path) const {
    const auto found = paths_.find(path);
    return found != paths_.end() && found->second.written;
  }
  /* Both are names of one object now. */
  void linked(const std::string &existing, const std::string &path) {
    Change &old = paths_[existing];
    old.other = path;
    paths_[path] = {.written = old.written, .other = existing};
  }
  /* The last one that was linked with the path; "": none. */
  std::string other_name(const std::string &path) const {
    const auto found = paths_.find(path);
    return found == paths_.end() ? std::string() : found->second.other;
  }
  /* A renamed object is compared under its new name; the old name is compared as well. */
  void moved(const std::string &from, const std::string &to) {
    for (auto &[path, change] : take_tree(paths_, from)) {
      Change &moved = paths_[to + path.substr(from.size())];
      moved.written = moved.written || change.written;
    }
    add(from);
    add(to);
  }
  bool empty() const { return paths_.empty(); }
  std::size_t size() const { return paths_.size(); }
  std::vector<std::string> all() const {
    std::vector<std::string> all;
    for (const auto &[path, change] : paths_) all.push_back(path);
    return all;
  }
  bool full() const { return paths_.size() >= kMost; }

  /* Returns all paths, parents before children, and empties the set. */
  std::vector<std::string> take() {
    std::vector<std::string> taken;
    taken.reserve(paths_.size());
    for (auto &[path, change] : std::exchange(paths_, {})) taken.push_back(path);
    return taken;
  }

 private:
  struct Change {
    bool written = false;
    std::string other = {};
  };
  std::map<std::string, Change> paths_; /* a map, for take_tree() */
};

}  // namespace tarn

#endif
