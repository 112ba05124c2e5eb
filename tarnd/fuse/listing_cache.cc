// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/listing_cache.h"

#include <new>

namespace tarnd {

using tarn::MutexLock;

ListingCache::ListingCache(Clock::duration time, Drop drop)
    : time_(time), drop_(std::move(drop)), task_(service_identity()) {
  if (enabled()) thread_ = std::thread([this] { run(); });
}

bool ListingCache::opened(uk_node *directory) {
  if (!enabled()) return false;
  const MutexLock lock(mutex_);
  Directory &entry = directories_[directory];
  entry.opens++;
  return entry.listed() && Clock::now() - entry.begun < time_;
}

void ListingCache::begun(uk_node *directory) {
  if (!enabled()) return;
  const MutexLock lock(mutex_);
  Directory &entry = directories_[directory];
  if (!entry.listed() && ++listed_ == 1) changed_.notify_one();
  entry.begun = Clock::now();
}

void ListingCache::released(uk_node *directory) {
  if (!enabled()) return;
  const MutexLock lock(mutex_);
  const auto found = directories_.find(directory);
  if (found == directories_.end()) return;
  found->second.opens--;
  if (found->second.opens == 0 && !found->second.listed()) directories_.erase(found);
}

void ListingCache::stop() {
  std::call_once(stopped_, [this] {
    {
      const MutexLock lock(mutex_);
      stopping_ = true;
      changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
  });
}

// Returns those whose listings are old, with a reference each. Forgets what nobody has open.
std::vector<uk_node *> ListingCache::take_old_locked() {
  std::vector<uk_node *> old;
  old.reserve(listed_);  // the last step that can fail
  const auto oldest = Clock::now() - time_ + scan_interval();
  for (auto it = directories_.begin(); it != directories_.end();) {
    Directory &directory = it->second;
    if (directory.listed() && directory.begun <= oldest) {
      directory.begun = {};
      listed_--;
      if (directory.opens > 0) {
        old.push_back(it->first);
        uk_node_get(it->first);
      }
    }
    it = directory.opens == 0 && !directory.listed() ? directories_.erase(it) : std::next(it);
  }
  return old;
}

void ListingCache::run() {
  MutexLock lock(mutex_);
  while (!stopping_) {
    while (!stopping_ && listed_ == 0) changed_.wait(lock);
    const auto next = Clock::now() + scan_interval();
    while (!stopping_ && changed_.wait_until(lock, next)) {
    }
    if (stopping_) return;
    std::vector<uk_node *> old;
    try {
      old = take_old_locked();
    } catch (const std::bad_alloc &) {
      continue;  // retried after the next interval
    }
    lock.unlock();
    const ActAs act(task_);
    for (uk_node *directory : old) {
      drop_(directory);
      uk_node_put(directory, 1);
    }
    lock.lock();
  }
}

}  // namespace tarnd
