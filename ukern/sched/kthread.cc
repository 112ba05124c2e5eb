// SPDX-License-Identifier: GPL-2.0
// Kernel threads.
#include <linux/kthread.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "ukern/host/host.h"
#include "ukern/sched/task.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/lockcheck.h"

struct ukern_kthread {
  int (*fn)(void *data);
  void *data;
  volatile int should_stop;
  int result;
  struct completion exited;
  void *exit_point[5];  // setjmp buffer for complete_and_exit
};

namespace {

// Kernel threads that have not ended. A thread's last action is to decrement it.
volatile unsigned int live_threads;

// 1: new threads wait before they call their function.
volatile unsigned int threads_held;

// Calls the thread's function; also returns when that ends in complete_and_exit.
noinline void run(struct ukern_kthread *kthread) {
  if (__builtin_setjmp(kthread->exit_point)) return;
  kthread->result = kthread_should_stop() ? -EINTR : kthread->fn(kthread->data);
}

void thread_main(void *arg) {
  auto *task = static_cast<struct task_struct *>(arg);
  struct ukern_kthread *kthread = task->kthread;
  ukern_set_current(task);
  schedule();  // until the first wake-up
  while (__atomic_load_n(&threads_held, __ATOMIC_ACQUIRE)) host_wait(&threads_held, 1, -1);
  run(kthread);

  ukern_lock_check_none("end of a kernel thread");
  task->flags |= PF_EXITING;
  task->exit_code = kthread->result;
  complete_all(&kthread->exited);
  put_task_struct(task);
  ukern_set_current(nullptr);
  if (__atomic_sub_fetch(&live_threads, 1, __ATOMIC_ACQ_REL) == 0)
    host_wake(&live_threads, INT_MAX);
}

int start(struct task_struct *task, int (*fn)(void *), void *data) {
  task->kthread = static_cast<struct ukern_kthread *>(kmalloc(sizeof(*task->kthread), GFP_KERNEL));
  if (!task->kthread) return -ENOMEM;
  task->kthread->fn = fn;
  task->kthread->data = data;
  task->kthread->should_stop = 0;
  init_completion(&task->kthread->exited);
  set_task_state(task, TASK_INTERRUPTIBLE);
  __atomic_add_fetch(&live_threads, 1, __ATOMIC_RELAXED);
  const int error = host_thread_start(thread_main, task, task->comm);
  if (error) __atomic_sub_fetch(&live_threads, 1, __ATOMIC_RELAXED);
  return error;
}

}  // namespace

extern "C" {

struct task_struct *kthread_create(int (*threadfn)(void *data), void *data, const char namefmt[],
                                   ...) {
  might_sleep();
  char name[TASK_COMM_LEN];
  va_list args;
  va_start(args, namefmt);
  vsnprintf(name, sizeof(name), namefmt, args);
  va_end(args);

  struct task_struct *task = ukern_task_alloc(name);
  if (!task) return static_cast<struct task_struct *>(ERR_PTR(-ENOMEM));
  const int error = start(task, threadfn, data);
  if (!error) return task;
  put_task_struct(task);
  return static_cast<struct task_struct *>(ERR_PTR(error));
}

int kthread_stop(struct task_struct *task) {
  might_sleep();
  get_task_struct(task);
  __atomic_store_n(&task->kthread->should_stop, 1, __ATOMIC_SEQ_CST);
  wake_up_process(task);
  wait_for_completion(&task->kthread->exited);
  const int result = task->kthread->result;
  put_task_struct(task);
  return result;
}

int kthread_should_stop(void) {
  const struct ukern_kthread *kthread = current->kthread;
  return kthread && __atomic_load_n(&kthread->should_stop, __ATOMIC_ACQUIRE);
}

void complete_and_exit(struct completion *comp, long code) {
  struct ukern_kthread *kthread = current->kthread;
  BUG_ON(!kthread);  // only kernel threads end this way here
  kthread->result = static_cast<int>(code);
  if (comp) complete(comp);
  __builtin_longjmp(kthread->exit_point, 1);
}

void ukern_kthread_free(struct ukern_kthread *kthread) {
  kfree(kthread);
}

void ukern_kthreads_hold(void) {
  __atomic_store_n(&threads_held, 1, __ATOMIC_RELEASE);
}

void ukern_kthreads_release(void) {
  __atomic_store_n(&threads_held, 0, __ATOMIC_RELEASE);
  host_wake(&threads_held, INT_MAX);
}

unsigned ukern_kthreads_wait(void) {
  const long long deadline = host_clock_ns() + 5 * NSEC_PER_SEC;
  for (;;) {
    const unsigned live = __atomic_load_n(&live_threads, __ATOMIC_ACQUIRE);
    const long long left = deadline - host_clock_ns();
    if (!live || left <= 0) return live;
    host_wait(&live_threads, live, left);
  }
}

void daemonize(const char *name, ...) {
  struct task_struct *task = current;
  va_list args;
  va_start(args, name);
  {
    SpinGuard guard(task->alloc_lock);
    vsnprintf(task->comm, sizeof(task->comm), name, args);
  }
  va_end(args);

  {
    SpinGuard guard(task->sighand->siglock);
    sigfillset(&task->blocked);
    recalc_sigpending();
  }
  flush_signals(task);
}
}
