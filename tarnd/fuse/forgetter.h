/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Keeps what the host remembers of a mount below what the descriptors allow.
 *
 * The host asks for a name once and may know it for days. Its own memory makes it forget some day,
 * which is no help here: every file that it knows costs a descriptor. So when it knows too many it
 * is told to forget some of them: files that are not open, whose names it simply asks for again.
 * Directories stay, because somebody may be in them; most cost no descriptor while nobody uses
 * them (ukern/fs/hostfs_held.cc).
 *
 * One thread of its own: the host takes a directory's lock to forget a name in it, and may wait
 * there for requests that others have to serve.
 */
#ifndef TARND_FUSE_FORGETTER_H
#define TARND_FUSE_FORGETTER_H

#include <mutex>
#include <thread>
#include <vector>

#include "tarnd/fuse/fuse_api.h"
#include "tarnd/process/task.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

class Mount;

class Forgetter {
 public:
  /* Throws std::system_error when there is no thread to be had, and std::bad_alloc. */
  explicit Forgetter(Mount *mount);
  ~Forgetter() { stop(); }
  Forgetter(const Forgetter &) = delete;
  Forgetter &operator=(const Forgetter &) = delete;

  /* Returns when the thread has ended. It may wait for others to serve requests, so this comes
   * before those stop. From any thread, more than once. */
  void stop();

 private:
  void run();
  bool one_round(size_t most);
  void forget(const std::vector<uk_node *> &nodes);

  Mount *const mount_;
  const Task task_;
  std::thread thread_;
  std::once_flag stopped_;
};

}  // namespace tarnd

#endif
