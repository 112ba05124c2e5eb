// SPDX-License-Identifier: GPL-2.0
#include <linux/completion.h>
#include <linux/jiffies.h>
#include <linux/sched.h>

#include "tests/harness/case.h"
#include "tests/ukern/threads.h"

namespace {

struct Waiters {
  struct completion gate;
  atomic_t passed;
};

void wait_at_gate(void *arg) {
  auto *waiters = (struct Waiters *)arg;
  wait_for_completion(&waiters->gate);
  atomic_inc(&waiters->passed);
}

void complete_soon(void *arg) {
  msleep(10);
  complete((struct completion *)arg);
}

}  // namespace

CASE(completion, each_complete_lets_one_wait_through) {
  DECLARE_COMPLETION_ONSTACK(done);
  complete(&done);
  complete(&done);
  wait_for_completion(&done);
  EXPECT_EQ(done.done, 1u);
  EXPECT_EQ(wait_for_completion_timeout(&done, 100), 100ul);
  EXPECT_EQ(wait_for_completion_timeout(&done, 5), 0ul);
}

CASE(completion, a_wait_without_time_takes_what_is_there) {
  DECLARE_COMPLETION_ONSTACK(done);
  complete(&done);
  complete(&done);
  EXPECT_EQ(wait_for_completion_timeout(&done, 0), 0ul);
  EXPECT_EQ(done.done, 1u);
  EXPECT_EQ(wait_for_completion_interruptible_timeout(&done, 0), 0ul);
  EXPECT_EQ(done.done, 0u);
}

CASE(completion, wait_sleeps_until_complete) {
  DECLARE_COMPLETION_ONSTACK(done);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 1, complete_soon, &done));
  const unsigned long left = wait_for_completion_timeout(&done, 10000);
  EXPECT_GT(left, 0ul);
  EXPECT_LT(left, 10000ul);
  thread_team_wait(&team, 1);
}

CASE(completion, complete_all_opens_for_good) {
  static struct Waiters waiters;
  init_completion(&waiters.gate);
  atomic_set(&waiters.passed, 0);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 3, wait_at_gate, &waiters));
  complete_all(&waiters.gate);
  thread_team_wait(&team, 3);
  EXPECT_EQ(atomic_read(&waiters.passed), 3);
  wait_for_completion(&waiters.gate);
}

CASE(completion, longest_timeout_is_no_timeout) {
  DECLARE_COMPLETION_ONSTACK(done);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 1, complete_soon, &done));
  EXPECT_GT(wait_for_completion_timeout(&done, 0x7ffffffffffffffeUL), 0ul);
  thread_team_wait(&team, 1);
}

CASE(completion, signal_ends_only_the_interruptible_wait) {
  DECLARE_COMPLETION_ONSTACK(done);
  send_sig(SIGTERM, current, 1);
  EXPECT_EQ(wait_for_completion_interruptible(&done), -ERESTARTSYS);
  EXPECT_EQ(wait_for_completion_timeout(&done, 5), 0ul);
  flush_signals(current);
}

CASE(completion, init_completion_starts_anew) {
  DECLARE_COMPLETION_ONSTACK(done);
  complete(&done);
  INIT_COMPLETION(done);
  EXPECT_EQ(wait_for_completion_timeout(&done, 2), 0ul);
  complete(&done);
  init_completion(&done);
  EXPECT_EQ(wait_for_completion_timeout(&done, 2), 0ul);
}
