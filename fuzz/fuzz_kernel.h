/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel of a fuzzer: booted with the module loaded at the first use, for the whole process,
 * with the calling thread as a privileged task of it. At the end of the process it is shut down,
 * and what it then finds left ends the process with a report.
 */
#ifndef FUZZ_FUZZ_KERNEL_H
#define FUZZ_FUZZ_KERNEL_H

#include "ukern/door/uk_core.h"

namespace fuzz {

/* Ends the process as a finding. */
[[noreturn]] void fail(const char *what, long long got = 0, long long expected = 0);
inline void check(bool holds, const char *what) {
  if (!holds) fail(what);
}
inline void check_equal(long long got, long long expected, const char *what) {
  if (got != expected) fail(what, got, expected);
}

class Kernel {
 public:
  static constexpr int kPid = 1000;
  static constexpr int kOtherPid = 2000;

  static Kernel &get();
  ~Kernel();
  Kernel(const Kernel &) = delete;
  Kernel &operator=(const Kernel &) = delete;

  /* Signal 58 as often as the task has got it since the last call. */
  int lost_signals();
  /* For the end of each input, when nothing of it is left: compares now and then with the start. */
  void check_leaks();

 private:
  friend class Unprivileged;
  Kernel();

  uk_task *task_ = nullptr;
  uk_task *other_ = nullptr;
  unsigned long blocks_ = 0;
  unsigned long inputs_ = 0;
  int lost_ = 0;
};

/* The thread is a task without capabilities for a scope. */
class Unprivileged {
 public:
  Unprivileged() {
    uk_task_leave();
    uk_task_enter(Kernel::get().other_);
  }
  ~Unprivileged() {
    uk_task_leave();
    uk_task_enter(Kernel::get().task_);
  }
  Unprivileged(const Unprivileged &) = delete;
  Unprivileged &operator=(const Unprivileged &) = delete;
};

}  // namespace fuzz

#endif
