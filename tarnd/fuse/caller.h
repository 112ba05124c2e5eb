/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes the process behind a FUSE request the current task of the thread that serves it.
 */
#ifndef TARND_FUSE_CALLER_H
#define TARND_FUSE_CALLER_H

#include <array>
#include <chrono>
#include <mutex>

#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/path_walk.h"
#include "tarnd/fuse/process_rights.h"
#include "tarnd/process/task.h"

namespace tarnd {

/* What of the caller the operation can depend on, besides pid, user and group. */
enum class Need {
  kBasic,
  kRights, /* groups and capabilities: whatever checks permissions, and what is written */
  kLookup, /* these, of a look-up */
  kPath,   /* these, of what follows the look-ups of its path in one system call of the caller's */
};

/*
 * The task that a worker thread lends to one caller after another; each worker has one while it
 * runs. It stays whoever was lent it last, and no process id leads to it.
 */
class CallerTask {
 public:
  CallerTask(); /* throws std::bad_alloc */
  ~CallerTask();
  CallerTask(const CallerTask &) = delete;
  CallerTask &operator=(const CallerTask &) = delete;

  const Task &task() const { return task_; }
  /* Makes it the request's caller. Throws std::bad_alloc. */
  void become(fuse_req_t req, Need need);
  /* The calling thread's request, if there is one, is about to be answered, and with that gone. */
  static void answered();

 private:
  friend class Listening;
  using Clock = std::chrono::steady_clock;
  struct KnownRights {
    pid_t pid = 0; /* 0: of nobody */
    uid_t uid = 0;
    gid_t gid = 0;
    ProcessRights rights;
    Clock::time_point good_until;
  };
  const ProcessRights &rights_of(const fuse_ctx &ctx, Clock::time_point now);
  bool continues_walk(int pid, Need need);
  static void interrupted(fuse_req_t req, void *task);
  static void before_wait(void *task);
  void listen();
  void calm();

  Task task_;
  Identity identity_;
  Clock::time_point rights_good_until_;
  std::array<KnownRights, 4> known_; /* of those whom it was last */
  PathWalk walk_;

  fuse_req_t waiting_ = nullptr;  // whose interruption ends a wait; null once it is answered
  std::mutex mutex_;
  fuse_req_t listening_ = nullptr;  // the same once there was a wait; changed under mutex_
  bool interrupted_ = false;        // under mutex_
};

/*
 * As long as it lasts, an interruption of the request ends a wait of the task. Most requests never
 * wait, and to be told of interruptions costs more than many of them do, so that is asked for when
 * the task is about to.
 */
class Listening {
 public:
  Listening(CallerTask &task, fuse_req_t req) : task_(task) { task_.waiting_ = req; }
  ~Listening() { task_.calm(); }
  Listening(const Listening &) = delete;
  Listening &operator=(const Listening &) = delete;

 private:
  CallerTask &task_;
};

/* The calling worker's. */
CallerTask &caller_task();

}  // namespace tarnd

#endif
