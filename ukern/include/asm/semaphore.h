/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Counting semaphores. down sleeps while the count is 0; anyone may call up.
 */
#ifndef _ASM_SEMAPHORE_H
#define _ASM_SEMAPHORE_H

#include <linux/linkage.h>
#include <linux/wait.h>
#include <linux/rwsem.h>

struct semaphore {
  int count; /* under wait.lock */
  wait_queue_head_t wait;
};

#define __SEMAPHORE_INITIALIZER(name, n) \
  { .count = n, .wait = __WAIT_QUEUE_HEAD_INITIALIZER((name).wait) }
#define DECLARE_MUTEX(name) struct semaphore name = __SEMAPHORE_INITIALIZER(name, 1)
#define DECLARE_MUTEX_LOCKED(name) struct semaphore name = __SEMAPHORE_INITIALIZER(name, 0)

extern "C" {
void down(struct semaphore *sem);
int down_trylock(struct semaphore *sem); /* 0: taken */
void up(struct semaphore *sem);
}

static inline void sema_init(struct semaphore *sem, int val) {
  sem->count = val;
  init_waitqueue_head(&sem->wait);
}
static inline void init_MUTEX(struct semaphore *sem) {
  sema_init(sem, 1);
}

#endif
