/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which listings of directories the host may keep, and until when.
 *
 * The host drops a listing when the directory is changed through the mount. What is done below
 * must be seen after the mount's cache time: so an open lets the host keep a listing that was begun
 * within this time, and when a listing of an open directory gets older, the host is told to drop
 * it: a program may read the directory again through the same descriptor.
 *
 * Runs on its own thread: the host may wait for a request while it drops a listing. Any thread may
 * call. Memory: one entry per directory that is open, or was listed within the time.
 */
#ifndef TARND_FUSE_LISTING_CACHE_H
#define TARND_FUSE_LISTING_CACHE_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "tarnd/process/task.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

class ListingCache {
 public:
  using Clock = std::chrono::steady_clock;
  /* Tells the host to drop its listing of the directory. */
  using Drop = std::function<void(uk_node *)>;

  /* `time` zero: nothing is kept. Throws std::system_error when no thread can be made. */
  ListingCache(Clock::duration time, Drop drop);
  ~ListingCache() { stop(); }
  ListingCache(const ListingCache &) = delete;
  ListingCache &operator=(const ListingCache &) = delete;

  bool enabled() const { return time_ > Clock::duration::zero(); }

  /* Call it before the open is answered; the open file holds a reference to the node until after
   * released(). Returns whether the host may keep the listing that it has. */
  bool opened(uk_node *directory) EXCLUDES(mutex_);
  /* Call it before a listing of an open directory is read from its beginning. */
  void begun(uk_node *directory) EXCLUDES(mutex_);
  void released(uk_node *directory) EXCLUDES(mutex_);

  /* Joins the thread, which may wait for a request: stop it before the workers. More than once. */
  void stop() EXCLUDES(mutex_);

 private:
  struct Directory {
    unsigned opens = 0;
    Clock::time_point begun = {}; /* of the listing that the host may have; {}: none */
    bool listed() const { return begun != Clock::time_point{}; }
  };

  void run() EXCLUDES(mutex_);
  std::vector<uk_node *> take_old_locked() REQUIRES(mutex_);
  /* A listing is dropped one interval early, so that none gets older than the time. */
  Clock::duration scan_interval() const { return time_ / 4; }

  const Clock::duration time_;
  const Drop drop_;
  const Task task_;

  tarn::Mutex mutex_;
  tarn::Condition changed_;  // listed_ is no longer 0, or stopping_ was set
  std::unordered_map<uk_node *, Directory> directories_ GUARDED_BY(mutex_);
  size_t listed_ GUARDED_BY(mutex_) = 0;  // directories that have a listing
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
  std::once_flag stopped_;
};

}  // namespace tarnd

#endif
