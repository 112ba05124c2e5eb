/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tasks from the inside: how they come to be and go, and the scope in which a thread of the host
 * that has no task may use kernel functions that need one.
 */
#ifndef UKERN_SCHED_TASK_H
#define UKERN_SCHED_TASK_H

#include <linux/sched.h>

extern "C" {

int ukern_tasks_init(void);
/* Reports every task that is still there. */
void ukern_tasks_exit(void);

/* Fills in a kernel task: all rights, KERNEL_DS, no signals. It is in no table. */
void ukern_task_setup(struct task_struct *task, pid_t pid, const char *name);
/* A kernel task with one reference, in the tables; null without memory. */
struct task_struct *ukern_task_alloc(const char *name);
/* Puts a task into the tables, or takes it out. */
void ukern_task_hash(struct task_struct *task);
void ukern_task_unhash(struct task_struct *task);
/* Changes the path of the task's program (copied; null: none). 0 or -ENOMEM. */
int ukern_task_set_exe(struct task_struct *task, const char *exe);
/* Sends a signal; nobody is asked whether the sender may. 0, or what the task's handler answers. */
int ukern_task_signal(struct task_struct *task, int sig);
/* Makes the calling thread run as the task, or as none. */
void ukern_set_current(struct task_struct *task);

/* Waits until all kernel threads have left the kernel, for five seconds; how many have not. */
unsigned ukern_kthreads_wait(void);
/* For cases: kernel threads that begin meanwhile do not come to their function before the release.
 */
void ukern_kthreads_hold(void);
void ukern_kthreads_release(void);
/* What kthread_create made, freed with the task. */
void ukern_kthread_free(struct ukern_kthread *kthread);

/* Starts jiffies at their initial value. */
void ukern_time_reset(void);
}

/* A kernel task for the calling thread while it has no other. */
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
