/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Bounds the number of a mount's files in the host's dentry cache, because each costs memory here
 * and, where the host cannot reopen it, a descriptor. The host itself drops dentries only when its
 * memory runs short. Beyond the limit, the host is told to drop dentries of files that are not
 * open; it looks them up again at the next use. Directories stay: one may be a working directory,
 * and most have no descriptor while they are idle (ukern/fs/hostfs_held.cc).
 *
 * Runs on its own thread: to drop a dentry the host locks the directory, and a request that holds
 * this lock may wait for a worker.
 */
#ifndef TARND_FUSE_EVICTOR_H
#define TARND_FUSE_EVICTOR_H

#include <mutex>
#include <thread>
#include <vector>

#include "tarnd/fuse/fuse_api.h"
#include "tarnd/process/task.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

class Mount;

class Evictor {
 public:
  /* Throws std::system_error when no thread can be made, and std::bad_alloc. */
  explicit Evictor(Mount *mount);
  ~Evictor() { stop(); }
  Evictor(const Evictor &) = delete;
  Evictor &operator=(const Evictor &) = delete;

  /* Joins the thread, which may wait for a request: stop it before the workers. Any thread may
   * call, more than once. */
  void stop();

 private:
  void run();
  bool evict_some(size_t limit);
  void invalidate(const std::vector<uk_node *> &nodes);

  Mount *const mount_;
  const Task task_;
  std::thread thread_;
  std::once_flag stopped_;
};

}  // namespace tarnd

#endif
