// SPDX-License-Identifier: GPL-2.0
// Signals. A signal to a task goes to the hosting program's handler if there is one; otherwise it
// is pending in the task.
#include <linux/sched.h>

#include "ukern/sched/task.h"
#include "ukern/sync/guard.h"

namespace {

// Called with the task's siglock.
void update_pending(struct task_struct *task) {
  const int waiting = (task->pending.signal.sig[0] & ~task->blocked.sig[0]) != 0;
  __atomic_store_n(&task->sigpending, waiting, __ATOMIC_RELEASE);
}

bool may_signal(const struct task_struct *task) {
  const struct task_struct *me = current;
  return me->euid == task->suid || me->euid == task->uid || me->uid == task->suid ||
         me->uid == task->uid || capable(CAP_KILL);
}

// Signals whose default action is to be ignored are dropped unless blocked.
bool ignores(const struct task_struct *task, int sig) {
  if (task->blocked.sig[0] & sigmask(sig)) return false;
  return sig == SIGCHLD || sig == SIGCONT || sig == SIGWINCH || sig == SIGURG;
}

}  // namespace

extern "C" int ukern_task_signal(struct task_struct *task, int sig) {
  int result = 0;
  {
    SpinGuard guard(task->sighand->siglock);
    task->signals_seen |= sigmask(sig);
    if (task->deliver) {
      // Under the lock, so that no call of a handler is in progress once another has been set.
      result = task->deliver(task->deliver_arg, sig);
    } else if (!ignores(task, sig)) {
      sigaddset(&task->pending.signal, sig);
      update_pending(task);
    }
  }
  if (signal_pending(task)) wake_up_state(task, TASK_INTERRUPTIBLE);
  return result;
}

namespace {

// Finds a task by id, preferably one with a handler, and takes a reference; null for none.
struct task_struct *target_of(pid_t pid) {
  struct task_struct *found = nullptr, *without_handler = nullptr;
  {
    ReadGuard guard(tasklist_lock);
    struct task_struct *task = find_task_by_pid(pid);
    struct hlist_node *node = task ? &task->pid_link : nullptr;
    for (; node && !(found && found->deliver); node = node->next) {
      task = hlist_entry(node, struct task_struct, pid_link);
      if (task->pid != pid || (found && !task->deliver)) continue;
      if (!atomic_inc_not_zero(&task->usage)) continue;
      without_handler = found;
      found = task;
    }
  }
  if (without_handler) put_task_struct(without_handler);
  return found;
}

}  // namespace

extern "C" {

void recalc_sigpending(void) {
  update_pending(current);
}

void flush_signals(struct task_struct *task) {
  SpinGuard guard(task->sighand->siglock);
  sigemptyset(&task->pending.signal);
  update_pending(task);
}

int sigprocmask(int how, sigset_t *set, sigset_t *oldset) {
  int error = 0;
  SpinGuard guard(current->sighand->siglock);
  if (oldset) *oldset = current->blocked;
  unsigned long *blocked = &current->blocked.sig[0];
  if (how == SIG_BLOCK)
    *blocked |= set->sig[0];
  else if (how == SIG_UNBLOCK)
    *blocked &= ~set->sig[0];
  else if (how == SIG_SETMASK)
    *blocked = set->sig[0];
  else
    error = -EINVAL;
  recalc_sigpending();
  return error;
}

int send_sig(int sig, struct task_struct *task, int priv) {
  (void)priv;  // a caller that has the task may signal it
  if (sig < 0 || !valid_signal(static_cast<unsigned long>(sig))) return -EINVAL;
  return sig ? ukern_task_signal(task, sig) : 0;
}

int kill_proc(pid_t pid, int sig, int priv) {
  struct task_struct *task = target_of(pid);
  if (!task) return -ESRCH;
  const bool refused = valid_signal(static_cast<unsigned long>(sig)) && !priv && !may_signal(task);
  const int result = refused ? -EPERM : send_sig(sig, task, priv);
  put_task_struct(task);
  return result;
}

int allow_signal(int sig) {
  if (sig < 1 || !valid_signal(static_cast<unsigned long>(sig))) return -EINVAL;
  SpinGuard guard(current->sighand->siglock);
  sigdelset(&current->blocked, sig);
  recalc_sigpending();
  return 0;
}
}
