/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tasks of the kernel in the process, for threads of the host program.
 *
 * The creator owns a Task. An ActAs makes it the calling thread's current task for a scope. A
 * thread has at most one current task, and one thread at a time acts as a task.
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

/* The kernel's view of an identity; refers to it. */
uk_cred to_cred(const Identity &identity);

/* The host program's own pid, user and groups, with all capabilities. */
Identity service_identity();

class Task {
 public:
  explicit Task(const Identity &identity); /* throws std::bad_alloc */
  Task(const Task &) = delete;
  Task &operator=(const Task &) = delete;
  ~Task();

  void become(const Identity &identity); /* throws std::bad_alloc */
  /* Look-ups by process id no longer find the task. */
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
