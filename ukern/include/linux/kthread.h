/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel threads, each a thread of the host with a task of its own. */
#ifndef _LINUX_KTHREAD_H
#define _LINUX_KTHREAD_H

#include <linux/err.h>
#include <linux/sched.h>

extern "C" {
/*
 * A thread that will run threadfn(data) once it is woken; -ENOMEM or -EAGAIN as an error pointer.
 * It runs with all signals blocked. The task may be used until the thread ends.
 */
struct task_struct *kthread_create(int (*threadfn)(void *data), void *data, const char namefmt[],
                                   ...) __attribute__((format(printf, 3, 4)));
/*
 * Makes kthread_should_stop true in the thread, wakes it and waits for its end: threadfn's result,
 * or -EINTR if it was never woken. The thread must not have ended by itself.
 */
int kthread_stop(struct task_struct *k);
int kthread_should_stop(void);
}

#define kthread_run(threadfn, data, namefmt, ...)                                              \
  ({                                                                                           \
    struct task_struct *kthread_run_ = kthread_create(threadfn, data, namefmt, ##__VA_ARGS__); \
    if (!IS_ERR(kthread_run_)) wake_up_process(kthread_run_);                                  \
    kthread_run_;                                                                              \
  })

#endif
