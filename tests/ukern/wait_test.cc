// SPDX-License-Identifier: GPL-2.0
#include <linux/jiffies.h>
#include <linux/sched.h>
#include <linux/wait.h>

#include "tests/harness/case.h"
#include "tests/ukern/threads.h"

namespace {

struct Door {
  wait_queue_head_t queue;
  atomic_t open;
  atomic_t passed;
  atomic_t waiting;
};

void init(struct Door *door) {
  init_waitqueue_head(&door->queue);
  atomic_set(&door->open, 0);
  atomic_set(&door->passed, 0);
  atomic_set(&door->waiting, 0);
}

void pass(void *arg) {
  auto *door = (struct Door *)arg;
  atomic_inc(&door->waiting);
  wait_event(door->queue, atomic_read(&door->open));
  atomic_inc(&door->passed);
}

// Sleeps in the queue once, as an exclusive waiter.
void sleep_exclusive(void *arg) {
  auto *door = (struct Door *)arg;
  DEFINE_WAIT(wait);
  prepare_to_wait_exclusive(&door->queue, &wait, TASK_UNINTERRUPTIBLE);
  atomic_inc(&door->waiting);
  schedule();
  finish_wait(&door->queue, &wait);
  atomic_inc(&door->passed);
}

bool reaches(atomic_t *count, int value) {
  for (int i = 0; i < 2000 && atomic_read(count) != value; i++) msleep(1);
  return atomic_read(count) == value;
}

}  // namespace

CASE(wait, event_that_is_true_does_not_sleep) {
  wait_queue_head_t queue;
  init_waitqueue_head(&queue);
  wait_event(queue, 1);
  EXPECT_EQ(wait_event_interruptible(queue, 1), 0);
  EXPECT_EQ(wait_event_timeout(queue, 1, 7), 7);
  EXPECT_FALSE(waitqueue_active(&queue));
}

CASE(wait, wake_up_lets_every_plain_waiter_go) {
  static struct Door door;
  init(&door);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 3, pass, &door));
  EXPECT_TRUE(reaches(&door.waiting, 3));
  atomic_set(&door.open, 1);
  wake_up(&door.queue);
  thread_team_wait(&team, 3);
  EXPECT_EQ(atomic_read(&door.passed), 3);
  EXPECT_FALSE(waitqueue_active(&door.queue));
}

CASE(wait, wake_up_wakes_one_exclusive_waiter) {
  static struct Door door;
  init(&door);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 3, sleep_exclusive, &door));
  EXPECT_TRUE(reaches(&door.waiting, 3));
  wake_up(&door.queue);
  EXPECT_TRUE(reaches(&door.passed, 1));
  msleep(20);
  EXPECT_EQ(atomic_read(&door.passed), 1);
  wake_up_all(&door.queue);
  thread_team_wait(&team, 3);
  EXPECT_EQ(atomic_read(&door.passed), 3);
}

CASE(wait, interruptible_wake_up_leaves_uninterruptible_sleepers) {
  static struct Door door;
  init(&door);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 1, sleep_exclusive, &door));
  EXPECT_TRUE(reaches(&door.waiting, 1));
  wake_up_interruptible(&door.queue);
  msleep(20);
  EXPECT_EQ(atomic_read(&door.passed), 0);
  wake_up(&door.queue);
  thread_team_wait(&team, 1);
}

CASE(wait, timeout_runs_out_after_that_many_jiffies) {
  wait_queue_head_t queue;
  init_waitqueue_head(&queue);
  const unsigned long start = jiffies;
  EXPECT_EQ(wait_event_timeout(queue, 0, 30), 0);
  EXPECT_TRUE(time_after_eq(jiffies, start + 30));
  EXPECT_FALSE(waitqueue_active(&queue));
}

CASE(wait, schedule_in_running_state_returns) {
  set_current_state(TASK_RUNNING);
  schedule();
  EXPECT_EQ(current->state, (long)TASK_RUNNING);
}

CASE(wait, schedule_timeout_refuses_a_negative_time) {
  set_current_state(TASK_INTERRUPTIBLE);
  EXPECT_EQ(schedule_timeout(-5), 0);
  EXPECT_EQ(current->state, (long)TASK_RUNNING);
}

CASE(wait, pending_signal_ends_an_interruptible_wait_only) {
  wait_queue_head_t queue;
  init_waitqueue_head(&queue);
  EXPECT_EQ(send_sig(SIGUSR1, current, 1), 0);
  EXPECT_TRUE(signal_pending(current));
  EXPECT_EQ(wait_event_interruptible(queue, 0), -ERESTARTSYS);
  EXPECT_EQ(wait_event_interruptible_timeout(queue, 0, 50), -ERESTARTSYS);
  EXPECT_EQ(wait_event_timeout(queue, 0, 5), 0);
  set_current_state(TASK_INTERRUPTIBLE);
  EXPECT_GT(schedule_timeout(1000), 0);
  flush_signals(current);
  EXPECT_FALSE(signal_pending(current));
}

CASE(wait, blocked_signal_is_not_pending) {
  spin_lock_irq(&current->sighand->siglock);
  const sigset_t before = current->blocked;
  sigfillset(&current->blocked);
  recalc_sigpending();
  spin_unlock_irq(&current->sighand->siglock);
  EXPECT_EQ(send_sig(SIGUSR1, current, 1), 0);
  EXPECT_FALSE(signal_pending(current));

  spin_lock_irq(&current->sighand->siglock);
  current->blocked = before;
  recalc_sigpending();
  spin_unlock_irq(&current->sighand->siglock);
  EXPECT_TRUE(signal_pending(current));
  flush_signals(current);
}

CASE(wait, blocked_signals_are_changed_and_put_back) {
  sigset_t set, before, during;
  siginitset(&set, sigmask(SIGUSR1) | sigmask(SIGKILL));
  EXPECT_EQ(sigprocmask(SIG_BLOCK, &set, &before), 0);
  EXPECT_EQ(send_sig(SIGUSR1, current, 1), 0);
  EXPECT_FALSE(signal_pending(current));
  siginitset(&set, sigmask(SIGUSR1));
  EXPECT_EQ(sigprocmask(SIG_UNBLOCK, &set, &during), 0);
  EXPECT_TRUE(sigismember(&during, SIGUSR1));
  EXPECT_TRUE(sigismember(&during, SIGKILL));
  EXPECT_TRUE(signal_pending(current));
  EXPECT_EQ(sigprocmask(3, &set, NULL), -EINVAL);
  EXPECT_TRUE(sigismember(&current->blocked, SIGKILL));
  EXPECT_EQ(sigprocmask(SIG_SETMASK, &before, NULL), 0);
  EXPECT_EQ(current->blocked.sig[0], before.sig[0]);
  flush_signals(current);
}

CASE(wait, kill_proc_of_nobody_is_esrch) {
  EXPECT_EQ(kill_proc(0x7ffffff0, SIGUSR1, 1), -ESRCH);
  EXPECT_EQ(kill_proc(current->pid, 65, 1), -EINVAL);
  EXPECT_EQ(kill_proc(current->pid, 0, 1), 0);
  EXPECT_FALSE(signal_pending(current));
}
