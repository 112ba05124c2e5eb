/* SPDX-License-Identifier: GPL-2.0 */
/* As whom a case acts: another program, one without capabilities, one of a certain file. */
#ifndef TESTS_MODULE_KIT_PROGRAMS_H
#define TESTS_MODULE_KIT_PROGRAMS_H

#include "kernel.h"
#include "netlink.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"
#include "ukern/sched/task.h"

/* The task has no capability for a scope. */
class without_capabilities {
 public:
  without_capabilities() : cap_(current->cap_effective) { cap_clear(current->cap_effective); }
  ~without_capabilities() { current->cap_effective = cap_; }
  without_capabilities(const without_capabilities &) = delete;
  without_capabilities &operator=(const without_capabilities &) = delete;

 private:
  kernel_cap_t cap_;
};

/* Another program: its own process id, a plain user, the capabilities given. */
class other_program {
 public:
  explicit other_program(int pid, unsigned capabilities = 0) {
    uk_cred cred = {};
    cred.pid = pid;
    cred.uid = cred.gid = 1000;
    cred.cap_effective = capabilities;
    task_ = uk_task_new(&cred);
  }
  ~other_program() {
    if (task_) uk_task_put(task_);
  }
  other_program(const other_program &) = delete;
  other_program &operator=(const other_program &) = delete;
  struct uk_task *get() const {
    return task_;
  }
  /* By the module, for messages that it lost. */
  bool signalled() const { return uk_task_signals(task_) & 1ull << (OX_SIG_LOST - 1); }

 private:
  struct uk_task *task_;
};

/* Acts as another program for a scope. */
class acting_as {
 public:
  explicit acting_as(const other_program &program) : self_(current) {
    ukern_set_current(nullptr);
    uk_task_enter(program.get());
  }
  ~acting_as() {
    uk_task_leave();
    ukern_set_current(self_);
  }
  acting_as(const acting_as &) = delete;
  acting_as &operator=(const acting_as &) = delete;

 private:
  struct task_struct *self_;
};

/* The current task, an administrator's, runs the program of that path for a scope. */
class running {
 public:
  explicit running(const char *path) { set(path); }
  ~running() { set(nullptr); }
  running(const running &) = delete;
  running &operator=(const running &) = delete;

 private:
  static void set(const char *exe) {
    uk_cred cred = {};
    cred.pid = current->pid;
    cred.cap_effective = ~0u;
    cred.exe = exe;
    EXPECT_EQ(uk_task_set_cred(reinterpret_cast<struct uk_task *>(current), &cred), 0);
  }
};

#endif
