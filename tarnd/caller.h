/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes the process behind a FUSE request the current task of the thread that serves it.
 */
#ifndef TARND_CALLER_H
#define TARND_CALLER_H

#include "tarnd/fuse_api.h"
#include "tarnd/task.h"

namespace tarnd {

/* The task that a worker thread lends to one caller after another; each worker has one while it
 * runs. */
class CallerTask {
 public:
  CallerTask();
  ~CallerTask();
  CallerTask(const CallerTask &) = delete;
  CallerTask &operator=(const CallerTask &) = delete;

 private:
  Task task_;
};

/* What of the caller the operation can depend on, besides pid, user, group and capabilities. */
enum class Need {
  kBasic,
  kGroups,       /* supplementary groups: whatever checks permissions */
  kGroupsAndExe, /* and the path of its program: rename */
};

class Caller {
 public:
  Caller(fuse_req_t req, Need need); /* throws std::bad_alloc */
  /* The task is nobody's from here on: a signal to the process must not find it. */
  ~Caller();
  Caller(const Caller &) = delete;
  Caller &operator=(const Caller &) = delete;

 private:
  ActAs act_;
};

}  // namespace tarnd

#endif
