/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tasks of the kernel in the process, for threads of the host program.
 *
 * A Task belongs to whoever made it. An ActAs makes it the calling thread's current task for a
 * scope; a thread has at most one, and a task is acted as by one thread at a time.
 */
#ifndef TARND_PROCESS_TASK_H
#define TARND_PROCESS_TASK_H

#include <vector>

#include "ukern/door/uk_core.h"

namespace tarnd {

inline constexpr unsigned kAllCapabilities = ~0u;

/* The credentials of a task. */
struct Identity {
  int pid = 0;
  unsigned uid = 0;
  unsigned gid = 0;
  unsigned capabilities = 0;
  std::vector<unsigned> groups;
  long (*find_exe)(int pid, char *buf, unsigned long size) = nullptr; /* see uk_cred */

  bool operator==(const Identity &) const = default;
};

/* The view of an identity that the kernel takes; valid as long as the identity is. */
uk_cred to_cred(const Identity &identity);

/* The host program itself: its own pid, user and groups, every capability. */
Identity service_identity();

class Task {
 public:
  explicit Task(const Identity &identity); /* throws std::bad_alloc */
  Task(const Task &) = delete;
  Task &operator=(const Task &) = delete;
  ~Task();

  void become(const Identity &identity); /* throws std::bad_alloc */
  /* No process id leads to the task from here on. */
  void hide() { uk_task_hide(task_); }
  uk_task *get() const { return task_; }

 private:
  uk_task *task_;
};

class ActAs {
 public:
  explicit ActAs(const Task &task) { uk_task_enter(task.get()); }
  ActAs(const ActAs &) = delete;
  ActAs &operator=(const ActAs &) = delete;
  ~ActAs() { uk_task_leave(); }
};

}  // namespace tarnd

#endif
