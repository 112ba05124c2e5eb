// SPDX-License-Identifier: GPL-2.0
#include "ox_thread.h"
#include "ox_types.h"
#include "tests/harness/case.h"
#include "ukern/sched/task.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

namespace {

struct observed {
  struct completion wake;
  int flags_in_body;
  int name_ok;
  int signals_blocked;
};

int body(ox_thread_t *thread) {
  observed *seen = static_cast<observed *>(thread->t_private);
  seen->flags_in_body = ox_load(thread->t_flags);
  seen->name_ok = strncmp(current->comm, thread->t_comm, TASK_COMM_LEN - 1) == 0;
  seen->signals_blocked = sigismember(&current->blocked, SIGKILL) && !signal_pending(current);
  while (!ox_thread_stopping(thread)) ox_complete_timedwait(&seen->wake, 5);
  return 7;
}

}  // namespace

CASE(ox_thread, a_null_record_is_refused) {
  EXPECT_EQ(ox_thread_init(nullptr, "x", 0, 0, body, nullptr), -EINVAL);
}

CASE(ox_thread, a_long_name_is_cut) {
  ox_thread_t thread;
  memset(static_cast<void *>(&thread), 0xFF, sizeof(thread));
  char name[81];
  memset(name, 'n', sizeof(name));
  name[80] = '\0';
  EXPECT_EQ(ox_thread_init(&thread, name, 2, 9, body, &thread), 0);
  EXPECT_EQ(strlen(thread.t_comm), 63ul);
  name[64] = '\0';
  EXPECT_EQ(ox_thread_init(&thread, name, 2, 9, body, &thread), 0);
  EXPECT_EQ(strlen(thread.t_comm), 63ul);
  name[63] = '\0';
  EXPECT_EQ(ox_thread_init(&thread, name, 2, 9, body, &thread), 0);
  EXPECT_STREQ(thread.t_comm, name);
  EXPECT_EQ(thread.t_flags, 2);
  EXPECT_EQ(thread.t_seqno, 9);
  EXPECT_EQ(thread.t_error, 0);
  EXPECT_TRUE(thread.t_task == nullptr);
  EXPECT_TRUE(thread.t_private == &thread);
}

CASE(ox_thread, it_comes_up_and_stops_when_asked) {
  observed seen;
  memset(static_cast<void *>(&seen), 0, sizeof(seen));
  init_completion(&seen.wake);
  ox_thread_t thread;
  REQUIRE_EQ(ox_thread_init(&thread, "a_worker", 0, 1, body, &seen), 0);
  REQUIRE_EQ(ox_thread_create(&thread), 0);
  EXPECT_TRUE(thread.t_task != nullptr);
  EXPECT_EQ(ox_load(thread.t_flags) & OX_THREAD_RUNNING, OX_THREAD_RUNNING);
  complete(&seen.wake); /* not asked to stop: it goes on */
  EXPECT_EQ(ox_thread_kill(&thread), 0);
  EXPECT_EQ(thread.t_flags, OX_THREAD_RUNNING);
  EXPECT_EQ(seen.flags_in_body & OX_THREAD_RUNNING, OX_THREAD_RUNNING);
  EXPECT_TRUE(seen.name_ok);
  EXPECT_TRUE(seen.signals_blocked);
}

CASE(ox_thread, a_stop_request_from_before_the_start_is_kept) {
  observed seen;
  memset(static_cast<void *>(&seen), 0, sizeof(seen));
  init_completion(&seen.wake);
  ox_thread_t thread;
  ox_thread_init(&thread, "short", OX_THREAD_RUNNING | OX_THREAD_STOP, 0, body, &seen);
  REQUIRE_EQ(ox_thread_create(&thread), 0);
  EXPECT_EQ(ox_thread_kill(&thread), 0);
  EXPECT_EQ(seen.flags_in_body, OX_THREAD_RUNNING | OX_THREAD_STOP);
  EXPECT_EQ(thread.t_flags & OX_THREAD_RUNNING, OX_THREAD_RUNNING);
}

CASE(ox_thread, a_destroyed_record_can_be_created_anew) {
  observed seen;
  memset(static_cast<void *>(&seen), 0, sizeof(seen));
  init_completion(&seen.wake);
  ox_thread_t thread;
  ox_thread_init(&thread, "twice", OX_THREAD_STOP, 0, body, &seen);
  for (int i = 0; i < 2; ++i) {
    REQUIRE_EQ(ox_thread_create(&thread), 0);
    EXPECT_EQ(ox_thread_kill(&thread), 0);
    EXPECT_EQ(ox_thread_destroy(&thread), 0);
    __atomic_fetch_or(&thread.t_flags, OX_THREAD_STOP, __ATOMIC_RELAXED);
  }
}

CASE(ox_thread, without_memory_there_is_no_thread) {
  ox_thread_t thread;
  ox_thread_init(&thread, "none", 0, 0, body, nullptr);
  uk_fault_arm(1);
  const int result = ox_thread_create(&thread);
  uk_fault_arm(0);
  EXPECT_LT(result, 0);
  EXPECT_TRUE(thread.t_task == nullptr);
}

/* The creator gives up, the thread does not: it comes up later and can be stopped as any other. */
CASE(ox_thread, a_thread_that_is_late_is_left_running) {
  observed seen;
  memset(static_cast<void *>(&seen), 0, sizeof(seen));
  init_completion(&seen.wake);
  ox_thread_t thread;
  ox_thread_init(&thread, "late", 0, 0, body, &seen);
  ukern_kthreads_hold();
  const unsigned long start = jiffies;
  const int result = ox_thread_create(&thread);
  const unsigned long waited = jiffies - start;
  const int flags = ox_load(thread.t_flags);
  ukern_kthreads_release();
  EXPECT_EQ(result, -ETIMEDOUT);
  EXPECT_GE(waited, 5000ul);
  EXPECT_EQ(flags, 0);
  REQUIRE_TRUE(thread.t_task != nullptr);
  wait_for_completion(&thread.t_up);
  EXPECT_EQ(ox_thread_kill(&thread), 0);
  EXPECT_EQ(thread.t_flags, OX_THREAD_RUNNING);
  EXPECT_EQ(seen.flags_in_body & OX_THREAD_RUNNING, OX_THREAD_RUNNING);
}

/* It waits for the body's end all the same, but asks nobody to stop. */
CASE(ox_thread, killing_what_never_ran) {
  ox_thread_t thread;
  ox_thread_init(&thread, "never", 0, 0, body, nullptr);
  complete(&thread.t_down);
  EXPECT_EQ(ox_thread_kill(&thread), 0);
  EXPECT_EQ(thread.t_flags, 0);
}
