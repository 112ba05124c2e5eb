/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel threads for test cases: several at once that all run one function to its end. */
#ifndef TESTS_UKERN_THREADS_H
#define TESTS_UKERN_THREADS_H

#include <linux/completion.h>
#include <linux/kthread.h>

struct ThreadTeam {
  void (*fn)(void *arg);
  void *arg;
  struct completion done;
};

static inline int thread_team_member(void *data) {
  struct ThreadTeam *team = (struct ThreadTeam *)data;
  team->fn(team->arg);
  complete(&team->done);
  return 0;
}

/* Starts `count` threads that run fn(arg). False when one of them could not be made. */
static inline bool thread_team_start(struct ThreadTeam *team, int count, void (*fn)(void *arg),
                                     void *arg) {
  team->fn = fn;
  team->arg = arg;
  init_completion(&team->done);
  for (int i = 0; i < count; i++) {
    if (IS_ERR(kthread_run(thread_team_member, team, "team/%d", i))) return false;
  }
  return true;
}

static inline void thread_team_wait(struct ThreadTeam *team, int count) {
  for (int i = 0; i < count; i++) wait_for_completion(&team->done);
}

#endif
