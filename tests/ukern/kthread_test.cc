// SPDX-License-Identifier: GPL-2.0
#include <linux/completion.h>
#include <linux/err.h>
#include <linux/kthread.h>
#include <linux/sched.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "tests/harness/case.h"

namespace {

struct Seen {
  struct completion ready;
  int runs;
  int pid;
  int kernel_limit;
  int signals_blocked;
  char comm[TASK_COMM_LEN];
};

void note(struct Seen *seen) {
  seen->runs++;
  seen->pid = current->pid;
  seen->kernel_limit = segment_eq(get_fs(), KERNEL_DS);
  seen->signals_blocked = current->blocked.sig[0] == ~0UL;
  strlcpy(seen->comm, current->comm, sizeof(seen->comm));
  complete(&seen->ready);
}

int run_until_stopped(void *data) {
  note((struct Seen *)data);
  while (!kthread_should_stop()) {
    set_current_state(TASK_INTERRUPTIBLE);
    if (!kthread_should_stop()) schedule();
    __set_current_state(TASK_RUNNING);
  }
  return 17;
}

int run_daemonized(void *data) {
  daemonize("renamed_%d", 5);
  note((struct Seen *)data);
  return 0;
}

struct Seen seen;

void reset() {
  memset(&seen, 0, sizeof(seen));
  init_completion(&seen.ready);
}

}  // namespace

CASE(kthread, runs_once_woken_and_stop_gives_its_result) {
  reset();
  struct task_struct *task = kthread_create(run_until_stopped, &seen, "worker/%d", 3);
  REQUIRE_TRUE(!IS_ERR(task));
  EXPECT_STREQ(task->comm, "worker/3");
  msleep(20);
  EXPECT_EQ(seen.runs, 0);
  EXPECT_EQ(wake_up_process(task), 1);
  wait_for_completion(&seen.ready);
  EXPECT_EQ(seen.pid, task->pid);
  EXPECT_NE(seen.pid, current->pid);
  EXPECT_EQ(kthread_stop(task), 17);
}

CASE(kthread, never_woken_ends_without_running) {
  reset();
  struct task_struct *task = kthread_create(run_until_stopped, &seen, "sleeper");
  REQUIRE_TRUE(!IS_ERR(task));
  EXPECT_EQ(kthread_stop(task), -EINTR);
  EXPECT_EQ(seen.runs, 0);
}

CASE(kthread, has_the_kernels_address_limit_and_blocks_signals) {
  reset();
  struct task_struct *task = kthread_run(run_until_stopped, &seen, "limits");
  REQUIRE_TRUE(!IS_ERR(task));
  wait_for_completion(&seen.ready);
  EXPECT_TRUE(seen.kernel_limit);
  EXPECT_TRUE(seen.signals_blocked);
  EXPECT_EQ(send_sig(SIGTERM, task, 1), 0);
  EXPECT_FALSE(signal_pending(task));
  kthread_stop(task);
}

CASE(kthread, can_be_found_by_its_pid) {
  reset();
  struct task_struct *task = kthread_run(run_until_stopped, &seen, "findable");
  REQUIRE_TRUE(!IS_ERR(task));
  read_lock(&tasklist_lock);
  EXPECT_EQ(find_task_by_pid(task->pid), task);
  EXPECT_EQ(find_task_by_pid(current->pid), current);
  read_unlock(&tasklist_lock);
  EXPECT_EQ(kill_proc(task->pid, 0, 1), 0);
  wait_for_completion(&seen.ready);
  kthread_stop(task);
}

CASE(kthread, long_name_is_cut) {
  reset();
  struct task_struct *task =
      kthread_create(run_until_stopped, &seen, "%s", "a_name_of_many_letters");
  REQUIRE_TRUE(!IS_ERR(task));
  EXPECT_STREQ(task->comm, "a_name_of_many_");
  kthread_stop(task);
}

CASE(kthread, daemonize_renames) {
  reset();
  struct task_struct *task = kthread_run(run_daemonized, &seen, "before");
  REQUIRE_TRUE(!IS_ERR(task));
  wait_for_completion(&seen.ready);
  EXPECT_STREQ(seen.comm, "renamed_5");
  EXPECT_TRUE(seen.signals_blocked);
}

CASE(kthread, wake_up_of_a_running_task_does_nothing) {
  EXPECT_EQ(wake_up_process(current), 0);
}
