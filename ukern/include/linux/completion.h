/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Completions: a count of events that have not been waited for. A completion may be on the waiter's
 * stack: complete does not touch it any more once the waiter can return.
 */
#ifndef _LINUX_COMPLETION_H
#define _LINUX_COMPLETION_H

#include <linux/wait.h>

struct completion {
  unsigned int done;
  wait_queue_head_t wait; /* its lock protects `done` */
};

#define COMPLETION_INITIALIZER(work) \
  { .done = 0, .wait = __WAIT_QUEUE_HEAD_INITIALIZER((work).wait) }
#define DECLARE_COMPLETION(work) struct completion work = COMPLETION_INITIALIZER(work)
#define DECLARE_COMPLETION_ONSTACK(work) DECLARE_COMPLETION(work)
#define INIT_COMPLETION(x) ((x).done = 0)

static inline void init_completion(struct completion *x) {
  x->done = 0;
  init_waitqueue_head(&x->wait);
}

extern "C" {
void wait_for_completion(struct completion *x);
/* 0, or -ERESTARTSYS when a signal came first. */
int wait_for_completion_interruptible(struct completion *x);
/* Jiffies left (at least 1), or 0 when the time ran out. */
unsigned long wait_for_completion_timeout(struct completion *x, unsigned long timeout);
/* As the one above, or -ERESTARTSYS (as an unsigned long). */
unsigned long wait_for_completion_interruptible_timeout(struct completion *x,
                                                        unsigned long timeout);
/* Releases one waiter, a present or a future one. */
void complete(struct completion *x);
/* Releases all present and future waiters. */
void complete_all(struct completion *x);
}

#endif
