// SPDX-License-Identifier: GPL-2.0
#include "ox_thread.h"
#include "ox_types.h"

namespace {

const ox_u32_t kStartMs = 5000;

void set_flag(ox_thread_t *thread, ox_u16_t flag) {
  __atomic_fetch_or(&thread->t_flags, flag, __ATOMIC_RELAXED);
}

void keep_flag(ox_thread_t *thread, ox_u16_t flag) {
  __atomic_fetch_and(&thread->t_flags, flag, __ATOMIC_RELAXED);
}

void block_all_signals(void) {
  spin_irq_guard guard(current->sighand->siglock);
  sigfillset(&current->blocked);
  recalc_sigpending();
}

int thread_proxy(void *context) {
  ox_thread_t *thread = static_cast<ox_thread_t *>(context);
  daemonize("%s", thread->t_comm);
  block_all_signals();
  set_flag(thread, OX_THREAD_RUNNING);
  complete(&thread->t_up);
  const int result = thread->t_cb(thread);
  keep_flag(thread, OX_THREAD_RUNNING);
  /*
   * A waiter for t_down may free the record and unload the module at once: neither is touched
   * afterwards.
   */
  complete_and_exit(&thread->t_down, result);
}

}  // namespace

int ox_thread_init(ox_thread_t *thread, const char *name, ox_u16_t flags, ox_u16_t seqno,
                   ox_thread_cb_t body, void *context) {
  if (!thread) return -EINVAL;
  memset(static_cast<void *>(thread), 0, sizeof(*thread));
  init_completion(&thread->t_up);
  init_completion(&thread->t_down);
  strncpy(thread->t_comm, name, OX_THREAD_NAME_LEN);
  thread->t_comm[OX_THREAD_NAME_LEN - 1] = '\0';
  thread->t_flags = flags;
  thread->t_seqno = seqno;
  thread->t_cb = body;
  thread->t_private = context;
  return 0;
}

int ox_thread_create(ox_thread_t *thread) {
  keep_flag(thread, OX_THREAD_STOP);
  struct task_struct *task = kthread_create(thread_proxy, thread, "%s", thread->t_comm);
  if (IS_ERR(task)) return static_cast<int>(PTR_ERR(task));
  thread->t_task = task;
  wake_up_process(task);
  return ox_complete_timedwait(&thread->t_up, kStartMs);
}

int ox_thread_kill(ox_thread_t *thread) {
  if (ox_load(thread->t_flags) & OX_THREAD_RUNNING) set_flag(thread, OX_THREAD_STOP);
  wait_for_completion(&thread->t_down);
  return 0;
}

int ox_thread_destroy(ox_thread_t *thread) {
  init_completion(&thread->t_up);
  init_completion(&thread->t_down);
  return 0;
}
