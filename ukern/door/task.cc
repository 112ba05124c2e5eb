// SPDX-License-Identifier: GPL-2.0
// Tasks of the hosting program: credentials, entering and leaving the kernel, signals, user memory.
#include "ukern/sched/task.h"

#include <linux/mm.h>
#include <linux/slab.h>
#include <asm/uaccess.h>

#include "ukern/door/uk_core.h"
#include "ukern/sched/user_memory.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/lockcheck.h"
#include "ukern/sync/report.h"

namespace {

struct task_struct *task_of(struct uk_task *task) {
  return reinterpret_cast<struct task_struct *>(task);
}

int by_number(unsigned a, unsigned b) {
  return a < b ? -1 : a > b;
}

void sort_groups(gid_t *gids, int count) {
  for (int gap = count / 2; gap > 0; gap /= 2) {
    for (int i = gap; i < count; i++) {
      const gid_t moving = gids[i];
      int at = i;
      for (; at >= gap && by_number(gids[at - gap], moving) > 0; at -= gap)
        gids[at] = gids[at - gap];
      gids[at] = moving;
    }
  }
}

int change_groups(struct task_struct *task, unsigned count, const unsigned *groups) {
  if (count > NGROUPS_MAX) return -EINVAL;
  const struct group_info *now = task->group_info;
  if (!count && !now->ngroups) return 0;
  struct group_info *info = groups_alloc(static_cast<int>(count));
  if (!info) return -ENOMEM;
  for (unsigned i = 0; i < count; i++) info->gids[i] = groups[i];
  sort_groups(info->gids, info->ngroups);
  struct group_info *old;
  {
    SpinGuard guard(task->alloc_lock);
    old = task->group_info;
    task->group_info = info;
  }
  put_group_info(old);
  return 0;
}

void change_ids(struct task_struct *task, const struct uk_cred *cred) {
  task->uid = task->euid = task->suid = task->fsuid = cred->uid;
  task->gid = task->egid = task->sgid = task->fsgid = cred->gid;
  task->cap_effective = task->cap_permitted = cred->cap_effective;
  if (task->pid == cred->pid) return;
  const bool hidden = hlist_unhashed(&task->pid_link);
  if (!hidden) ukern_task_unhash(task);
  task->pid = task->tgid = cred->pid;
  flush_signals(task);  // they were for the previous process
  if (!hidden) ukern_task_hash(task);
}

}  // namespace

extern "C" {

struct uk_task *uk_task_new(const struct uk_cred *cred) {
  KernelTaskScope scope("new_task");
  struct task_struct *task = ukern_task_alloc("user");
  if (!task) return nullptr;
  task->addr_limit = USER_DS;
  sigemptyset(&task->blocked);
  if (uk_task_set_cred(reinterpret_cast<struct uk_task *>(task), cred)) {
    put_task_struct(task);
    return nullptr;
  }
  return reinterpret_cast<struct uk_task *>(task);
}

int uk_task_set_cred(struct uk_task *uk_task, const struct uk_cred *cred) {
  KernelTaskScope scope("set_cred");
  struct task_struct *task = task_of(uk_task);
  int error = change_groups(task, cred->ngroups, cred->groups);
  if (!error) error = ukern_task_set_exe(task, cred->exe);
  if (error) return error;
  change_ids(task, cred);
  task->find_exe = cred->find_exe;
  return 0;
}

void uk_task_hide(struct uk_task *uk_task) {
  struct task_struct *task = task_of(uk_task);
  WriteGuard guard(tasklist_lock);
  hlist_del_init(&task->pid_link);
}

void uk_task_put(struct uk_task *task) {
  put_task_struct(task_of(task));
}

void uk_task_enter(struct uk_task *uk_task) {
  struct task_struct *task = task_of(uk_task);
  BUG_ON(current);
  ukern_set_current(task);
}

void uk_task_leave(void) {
  struct task_struct *task = current;
  BUG_ON(!task);
  ukern_lock_check_none("return from the kernel");
  if (!segment_eq(task->addr_limit, USER_DS)) {
    report_end(report_begin("return from the kernel with the kernel's address limit"));
    task->addr_limit = USER_DS;
  }
  __set_task_state(task, TASK_RUNNING);
  ukern_set_current(nullptr);
}

void uk_task_set_signal_handler(struct uk_task *uk_task, int (*handler)(void *arg, int signal),
                                void *arg) {
  struct task_struct *task = task_of(uk_task);
  SpinGuard guard(task->sighand->siglock);
  task->deliver = handler;
  task->deliver_arg = arg;
}

void uk_task_set_wait_handler(struct uk_task *uk_task, void (*before)(void *arg), void *arg) {
  struct task_struct *task = task_of(uk_task);
  task->before_wait = before;
  task->before_wait_arg = arg;
}

void uk_task_interrupt(struct uk_task *uk_task, unsigned long long signals) {
  struct task_struct *task = task_of(uk_task);
  for (int sig = 1; sig <= _NSIG; sig++) {
    if (signals & sigmask(sig)) ukern_task_signal(task, sig);
  }
}

void uk_task_clear_interrupt(struct uk_task *task) {
  flush_signals(task_of(task));
}

unsigned long long uk_task_signals(struct uk_task *uk_task) {
  struct task_struct *task = task_of(uk_task);
  SpinGuard guard(task->sighand->siglock);
  return task->signals_seen;
}

int uk_user_add(const void *start, unsigned long len) {
  return user_memory_add(start, len);
}

void uk_user_del(const void *start) {
  user_memory_del(start);
}

unsigned long uk_user_copied(void) {
  return user_memory_copied();
}
}
