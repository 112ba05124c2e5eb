/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes the process behind a FUSE request the current task of the thread that serves it.
 */
#ifndef TARND_FUSE_CALLER_H
#define TARND_FUSE_CALLER_H

#include <array>
#include <chrono>
#include <cstddef>

#include "base/mutex.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/path_walk.h"
#include "tarnd/fuse/process_rights.h"
#include "tarnd/process/task.h"

namespace tarnd {

/* The caller's attributes that an operation needs, besides pid, uid and gid. */
enum class Need {
  kBasic,
  kRights, /* groups and capabilities, for permission checks and writes */
  kLookup, /* kRights, for a look-up */
  kPath,   /* kRights, for an operation after look-ups in one system call (path_walk.h) */
};

/*
 * A worker's task. Each worker has one while it runs. It takes on the identity of the caller of
 * each request, and no look-up by process id finds it.
 */
class CallerTask {
 public:
  CallerTask(); /* throws std::bad_alloc */
  ~CallerTask();
  CallerTask(const CallerTask &) = delete;
  CallerTask &operator=(const CallerTask &) = delete;

  const Task &task() const { return task_; }
  /* Takes on the identity of the request's caller. Throws std::bad_alloc. */
  void become(fuse_req_t req, Need need);
  /* Call it before a reply, which invalidates the worker's request, if there is one. */
  static void reply_due();

 private:
  friend class InterruptScope;
  using Clock = std::chrono::steady_clock;
  /* More than a program has threads that look at files: git status has up to 20. */
  static constexpr std::size_t kRightsCached = 32;
  struct CachedRights {
    pid_t pid = 0; /* 0: unused */
    uid_t uid = 0;
    gid_t gid = 0;
    ProcessRights rights;
    Clock::time_point valid_until;
  };
  const ProcessRights &rights_of(const fuse_ctx &ctx, Clock::time_point now);
  bool continues_walk(int pid, Need need);
  static void interrupted(fuse_req_t req, void *task);
  static void before_wait(void *task);
  void watch_interrupts() EXCLUDES(mutex_);
  void end_wait() EXCLUDES(mutex_);

  Task task_;
  Identity identity_;
  Clock::time_point rights_valid_until_;
  std::array<CachedRights, kRightsCached> rights_cache_;
  PathWalk walk_;

  fuse_req_t interruptible_ = nullptr;  // its interrupt ends a wait; null after the reply
  bool watching_ = false;               // watched_ is set; only the worker uses this
  tarn::Mutex mutex_;
  fuse_req_t watched_ GUARDED_BY(mutex_) = nullptr;  // interruptible_, once the task has waited
  bool interrupted_ GUARDED_BY(mutex_) = false;
};

/*
 * While it exists, an interrupt of the request ends a wait of the task. The interrupt callback is
 * registered only when the task is about to wait: registering costs more than many requests, and
 * most never wait.
 */
class InterruptScope {
 public:
  InterruptScope(CallerTask &task, fuse_req_t req) : task_(task) { task_.interruptible_ = req; }
  ~InterruptScope() { task_.end_wait(); }
  InterruptScope(const InterruptScope &) = delete;
  InterruptScope &operator=(const InterruptScope &) = delete;

 private:
  CallerTask &task_;
};

/* The calling worker's task. */
CallerTask &caller_task();

}  // namespace tarnd

#endif
