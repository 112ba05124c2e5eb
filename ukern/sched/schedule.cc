// SPDX-License-Identifier: GPL-2.0
// Sleeping and waking. A task sleeps in host_wait on the low half of its state; a change of the
// state to TASK_RUNNING wakes it there.
#include <linux/sched.h>

#include "ukern/host/host.h"
#include "ukern/sync/debug.h"

namespace {

constexpr long long kJiffyNs = 1000000;

const volatile unsigned int *state_word(struct task_struct *task) {
  return reinterpret_cast<const volatile unsigned int *>(&task->state);
}

long state_of(struct task_struct *task) {
  return __atomic_load_n(&task->state, __ATOMIC_ACQUIRE);
}

void check_may_schedule() {
  if constexpr (kDebugBuild) BUG_ON(!current);
  might_sleep();
}

// Sleeps until woken or until the deadline (negative: none). False when the deadline came first.
bool sleep_until(long long deadline) {
  struct task_struct *task = current;
  if ((state_of(task) & TASK_INTERRUPTIBLE) && task->before_wait)
    task->before_wait(task->before_wait_arg);
  for (;;) {
    const long state = state_of(task);
    if (state == TASK_RUNNING) return true;
    if ((state & TASK_INTERRUPTIBLE) && signal_pending(task)) break;
    long long left = -1;
    if (deadline >= 0) {
      left = deadline - host_clock_ns();
      if (left <= 0) {
        __set_task_state(task, TASK_RUNNING);
        return false;
      }
    }
    host_wait(state_word(task), static_cast<unsigned int>(state), left);
  }
  __set_task_state(task, TASK_RUNNING);
  return true;
}

}  // namespace

extern "C" {

void schedule(void) {
  check_may_schedule();
  sleep_until(-1);
}

signed long schedule_timeout(signed long timeout) {
  check_may_schedule();
  if (timeout == MAX_SCHEDULE_TIMEOUT) {
    sleep_until(-1);
    return timeout;
  }
  if (timeout < 0) {
    printk(KERN_ERR "schedule_timeout: wrong timeout value %lx\n", timeout);
    __set_current_state(TASK_RUNNING);
    return 0;
  }
  const long long now = host_clock_ns();
  const long long most = (0x7fffffffffffffffLL - now) / kJiffyNs;
  const long long deadline = now + (timeout < most ? timeout : most) * kJiffyNs;
  if (!sleep_until(deadline)) return 0;
  const long long left = deadline - host_clock_ns();
  return left > 0 ? static_cast<signed long>((left + kJiffyNs - 1) / kJiffyNs) : 0;
}

signed long schedule_timeout_interruptible(signed long timeout) {
  __set_current_state(TASK_INTERRUPTIBLE);
  return schedule_timeout(timeout);
}

signed long schedule_timeout_uninterruptible(signed long timeout) {
  __set_current_state(TASK_UNINTERRUPTIBLE);
  return schedule_timeout(timeout);
}

void msleep(unsigned int msecs) {
  unsigned long timeout = msecs_to_jiffies(msecs) + 1;
  while (timeout)
    timeout =
        static_cast<unsigned long>(schedule_timeout_uninterruptible(static_cast<long>(timeout)));
}

void yield(void) {
  might_sleep();
  __set_current_state(TASK_RUNNING);
  host_yield();
}

int cond_resched(void) {
  might_sleep();
  return 0;
}

int wake_up_state(struct task_struct *task, unsigned int mode) {
  long state = __atomic_load_n(&task->state, __ATOMIC_SEQ_CST);
  do {
    if (!(state & static_cast<long>(mode))) return 0;
  } while (!__atomic_compare_exchange_n(&task->state, &state, static_cast<long>(TASK_RUNNING),
                                        false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
  // The task may be freed from here on; only its address is used.
  host_wake(state_word(task), 1);
  return 1;
}

int wake_up_process(struct task_struct *task) {
  return wake_up_state(task,
                       TASK_STOPPED | TASK_TRACED | TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE);
}
}
