/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Internal interface of tasks: creation and destruction, and a scope that gives a host thread
 * without a task a temporary one.
 */
#ifndef UKERN_SCHED_TASK_H
#define UKERN_SCHED_TASK_H

#include <linux/sched.h>

extern "C" {

int ukern_tasks_init(void);
/* Reports every task that is left. */
void ukern_tasks_exit(void);

/* Initialises a kernel task: all capabilities, KERNEL_DS, all signals blocked. Adds it to no
 * table. */
void ukern_task_setup(struct task_struct *task, pid_t pid, const char *name);
/* Allocates a kernel task with one reference and adds it to the tables; null without memory. */
struct task_struct *ukern_task_alloc(const char *name);
/* Add a task to the tables and remove it. */
void ukern_task_hash(struct task_struct *task);
void ukern_task_unhash(struct task_struct *task);
/* Changes the path of the task's program (copied; null: none). 0 or -ENOMEM. */
int ukern_task_set_exe(struct task_struct *task, const char *exe);
/* Sends a signal without a permission check. 0, or the result of the task's handler. */
int ukern_task_signal(struct task_struct *task, int sig);
/* Makes the calling thread run as the task; null: as none. */
void ukern_set_current(struct task_struct *task);

/* Waits up to five seconds for all kernel threads to end. Returns the number of those that have
 * not. */
unsigned ukern_kthreads_wait(void);
/* For tests: kernel threads started after hold call their function only after release. */
void ukern_kthreads_hold(void);
void ukern_kthreads_release(void);
/* Frees what kthread_create allocated beside the task. */
void ukern_kthread_free(struct ukern_kthread *kthread);

/* Starts jiffies at their initial value. */
void ukern_time_reset(void);
}

/* Gives the calling thread a kernel task if it has no task. */
class KernelTaskScope {
 public:
  explicit KernelTaskScope(const char *name) : used_(!current) {
    if (!used_) return;
    ukern_task_setup(&task_, 0, name);
    ukern_set_current(&task_);
  }
  ~KernelTaskScope() {
    if (!used_) return;
    put_group_info(task_.group_info);
    ukern_set_current(NULL);
  }
  KernelTaskScope(const KernelTaskScope &) = delete;
  KernelTaskScope &operator=(const KernelTaskScope &) = delete;

 private:
  bool used_;
  struct task_struct task_;
};

#endif
