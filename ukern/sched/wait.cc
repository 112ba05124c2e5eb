// SPDX-License-Identifier: GPL-2.0
// Wait queues, completions and semaphores.
#include <linux/completion.h>
#include <linux/sched.h>
#include <linux/wait.h>

#include "ukern/sync/guard.h"

namespace {

// Wakes all non-exclusive entries, which come first, and `nr` exclusive ones (0: all).
void wake_locked(wait_queue_head_t *q, unsigned int mode, int nr, int sync, void *key) {
  wait_queue_t *entry, *next;
  list_for_each_entry_safe(entry, next, &q->task_list, task_list) {
    const unsigned int flags = entry->flags;
    if (entry->func(entry, mode, sync, key) && (flags & WQ_FLAG_EXCLUSIVE) && !--nr) break;
  }
}

void wake(wait_queue_head_t *q, unsigned int mode, int nr, int sync, void *key) {
  SpinGuard guard(q->lock);
  wake_locked(q, mode, nr, sync, key);
}

void prepare(wait_queue_head_t *q, wait_queue_t *wait, int state, bool exclusive) {
  // The lock covers the flags too: in later rounds the entry is in the queue already.
  SpinGuard guard(q->lock);
  if (exclusive)
    wait->flags |= WQ_FLAG_EXCLUSIVE;
  else
    wait->flags &= ~static_cast<unsigned>(WQ_FLAG_EXCLUSIVE);
  if (list_empty(&wait->task_list)) {
    if (exclusive)
      __add_wait_queue_tail(q, wait);
    else
      __add_wait_queue(q, wait);
  }
  // After queueing, so that a wake-up that misses the entry comes before the caller's test.
  if (is_sync_wait(wait)) set_current_state(state);
}

// Waits until `done` is above 0 and decrements it. Returns the jiffies left, 0 on a time-out, or
// -ERESTARTSYS. A completion that coincides with the time-out is left for the next waiter; one that
// is there already is taken whatever the time-out.
long wait_done(struct completion *x, int state, long timeout) {
  might_sleep();
  SpinGuard guard(x->wait.lock);
  bool is_done = true;
  if (!x->done) {
    DECLARE_WAITQUEUE(wait, current);
    wait.flags |= WQ_FLAG_EXCLUSIVE;
    __add_wait_queue_tail(&x->wait, &wait);
    do {
      if (state == TASK_INTERRUPTIBLE && signal_pending(current)) {
        timeout = -ERESTARTSYS;
        break;
      }
      __set_current_state(state);
      SpinPause meanwhile(x->wait.lock);
      timeout = schedule_timeout(timeout);
    } while (!x->done && timeout);
    __remove_wait_queue(&x->wait, &wait);
    is_done = timeout > 0;
  }
  if (is_done) x->done--;
  return timeout;
}

int down_state(struct semaphore *sem, int state) {
  might_sleep();
  int result = 0;
  SpinGuard guard(sem->wait.lock);
  if (sem->count <= 0) {
    DECLARE_WAITQUEUE(wait, current);
    wait.flags |= WQ_FLAG_EXCLUSIVE;
    __add_wait_queue_tail(&sem->wait, &wait);
    while (sem->count <= 0) {
      if (state == TASK_INTERRUPTIBLE && signal_pending(current)) {
        result = -EINTR;
        break;
      }
      __set_current_state(state);
      SpinPause meanwhile(sem->wait.lock);
      schedule();
    }
    __remove_wait_queue(&sem->wait, &wait);
  }
  if (!result) sem->count--;
  // Passes to the next waiter a wake-up that this task did not use, and a count that is left.
  if (sem->count > 0)
    wake_locked(&sem->wait, TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE, 1, 0, nullptr);
  return result;
}

}  // namespace

extern "C" {

void init_waitqueue_head(wait_queue_head_t *q) {
  spin_lock_init(&q->lock);
  INIT_LIST_HEAD(&q->task_list);
}

int default_wake_function(wait_queue_t *wait, unsigned mode, int, void *) {
  return wake_up_state(static_cast<struct task_struct *>(wait->private_), mode);
}

int autoremove_wake_function(wait_queue_t *wait, unsigned mode, int sync, void *key) {
  const int woken = default_wake_function(wait, mode, sync, key);
  if (woken) list_del_init(&wait->task_list);
  return woken;
}

void add_wait_queue(wait_queue_head_t *q, wait_queue_t *wait) {
  wait->flags &= ~static_cast<unsigned>(WQ_FLAG_EXCLUSIVE);
  SpinGuard guard(q->lock);
  __add_wait_queue(q, wait);
}

void remove_wait_queue(wait_queue_head_t *q, wait_queue_t *wait) {
  SpinGuard guard(q->lock);
  __remove_wait_queue(q, wait);
}

void __wake_up(wait_queue_head_t *q, unsigned int mode, int nr, void *key) {
  wake(q, mode, nr, 0, key);
}

void __wake_up_locked(wait_queue_head_t *q, unsigned int mode) {
  wake_locked(q, mode, 1, 0, nullptr);
}

void __wake_up_sync(wait_queue_head_t *q, unsigned int mode, int nr) {
  wake(q, mode, nr, 1, nullptr);
}

void prepare_to_wait(wait_queue_head_t *q, wait_queue_t *wait, int state) {
  prepare(q, wait, state, false);
}

void prepare_to_wait_exclusive(wait_queue_head_t *q, wait_queue_t *wait, int state) {
  prepare(q, wait, state, true);
}

void finish_wait(wait_queue_head_t *q, wait_queue_t *wait) {
  __set_current_state(TASK_RUNNING);
  // Always with the lock: the waker may still be at work on the entry, which is on this task's
  // stack.
  SpinGuard guard(q->lock);
  if (!list_empty(&wait->task_list)) list_del_init(&wait->task_list);
}

void wait_for_completion(struct completion *x) {
  wait_done(x, TASK_UNINTERRUPTIBLE, MAX_SCHEDULE_TIMEOUT);
}

int wait_for_completion_interruptible(struct completion *x) {
  const long left = wait_done(x, TASK_INTERRUPTIBLE, MAX_SCHEDULE_TIMEOUT);
  return left < 0 ? static_cast<int>(left) : 0;
}

unsigned long wait_for_completion_timeout(struct completion *x, unsigned long timeout) {
  return static_cast<unsigned long>(wait_done(x, TASK_UNINTERRUPTIBLE, static_cast<long>(timeout)));
}

unsigned long wait_for_completion_interruptible_timeout(struct completion *x,
                                                        unsigned long timeout) {
  return static_cast<unsigned long>(wait_done(x, TASK_INTERRUPTIBLE, static_cast<long>(timeout)));
}

void complete(struct completion *x) {
  SpinGuard guard(x->wait.lock);
  x->done++;
  wake_locked(&x->wait, TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE, 1, 0, nullptr);
}

void complete_all(struct completion *x) {
  SpinGuard guard(x->wait.lock);
  x->done += UINT_MAX / 2;
  wake_locked(&x->wait, TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE, 0, 0, nullptr);
}

void down(struct semaphore *sem) {
  down_state(sem, TASK_UNINTERRUPTIBLE);
}

int down_trylock(struct semaphore *sem) {
  SpinGuard guard(sem->wait.lock);
  const bool taken = sem->count > 0;
  if (taken) sem->count--;
  return !taken;
}

void up(struct semaphore *sem) {
  SpinGuard guard(sem->wait.lock);
  sem->count++;
  wake_locked(&sem->wait, TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE, 1, 0, nullptr);
}
}
