/* SPDX-License-Identifier: GPL-2.0 */
/*
 * An LRU cache of open descriptors by path. A caller that changes names must call forget(). Errors
 * of close() are collected until take_close_errors().
 */
#ifndef TARN_MIRRORD_FD_CACHE_H
#define TARN_MIRRORD_FD_CACHE_H

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace tarn {

class FdCache {
 public:
  explicit FdCache(std::size_t capacity) : capacity_(capacity) {}

  /* The descriptor, or -1. It stays open at least until the next put() or forget. */
  int find(const std::string &path) {
    const auto found = entries_.find(path);
    if (found == entries_.end()) return -1;
    ages_.splice(ages_.end(), ages_, found->second.age);
    return found->second.fd.get();
  }

  int put(const std::string &path, UniqueFd fd) {
    forget(path);
    if (entries_.size() >= capacity_) forget(std::string(*ages_.front()));
    const auto entry = entries_.try_emplace(path).first;
    entry->second.fd = std::move(fd);
    entry->second.age = ages_.insert(ages_.end(), &entry->first);
    return entry->second.fd.get();
  }

  void forget(const std::string &path) {
    const auto found = entries_.find(path);
    if (found == entries_.end()) return;
    close(found);
  }

  /* The path and everything below it. */
  void forget_tree(const std::string &path) {
    for (auto entry = entries_.begin(); entry != entries_.end();) {
      const std::string &name = entry->first;
      const bool below =
          path.empty() || name == path || (name.starts_with(path) && name[path.size()] == '/');
      entry = below ? close(entry) : std::next(entry);
    }
  }

  void forget_all() { forget_tree(""); }

  /* A descriptor whose close() failed: data written to it may be lost. */
  struct CloseError {
    std::string path;
    int err; /* an error number */
  };
  /* Returns the errors since the last call. */
  std::vector<CloseError> take_close_errors() { return std::exchange(close_errors_, {}); }

 private:
  struct Entry {
    UniqueFd fd;
    std::list<const std::string *>::iterator age;
  };

  using Entries = std::unordered_map<std::string, Entry>;

  Entries::iterator close(Entries::iterator entry) {
    if (const int err = entry->second.fd.close(); err != 0)
      close_errors_.push_back({entry->first, err});
    ages_.erase(entry->second.age);
    return entries_.erase(entry);
  }

  std::size_t capacity_;
  Entries entries_;
  std::list<const std::string *> ages_; /* oldest first; the keys of entries_ */
  std::vector<CloseError> close_errors_;
};

}  // namespace tarn

#endif
