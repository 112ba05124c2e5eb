/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A thread beside the caller's, so that both sides of a comparison are read at the same time. One
 * owner; both() returns when both have run.
 */
#ifndef TARN_MIRRORD_VERIFY_SIDE_THREAD_H
#define TARN_MIRRORD_VERIFY_SIDE_THREAD_H

#include <functional>
#include <memory>
#include <thread>

#include "base/mutex.h"
#include "base/result.h"

namespace tarn {

class SideThread {
 public:
  static Result<std::unique_ptr<SideThread>> start();
  ~SideThread();
  SideThread(const SideThread &) = delete;
  SideThread &operator=(const SideThread &) = delete;

  /* Runs `here` in the caller's thread and `beside` in the other. */
  void both(const std::function<void()> &here, const std::function<void()> &beside);

 private:
  SideThread() : thread_([this] { run(); }) {}
  void run();

  Mutex mutex_;
  Condition changed_;
  const std::function<void()> *work_ GUARDED_BY(mutex_) = nullptr; /* null: there is none */
  bool end_ GUARDED_BY(mutex_) = false;
  std::thread thread_; /* last: it uses the others */
};

}  // namespace tarn

#endif
