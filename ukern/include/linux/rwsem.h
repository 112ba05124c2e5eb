/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reader-writer semaphores: the holder may sleep. New readers queue behind a waiting writer, so a
 * reader must not take the semaphore a second time. The task that takes it releases it.
 */
#ifndef _LINUX_RWSEM_H
#define _LINUX_RWSEM_H

#include <linux/linkage.h>
#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/spinlock.h>

struct rw_semaphore {
  volatile unsigned int count; /* as rwlock_t's word */
#if UKERN_DEBUG
  struct lockdep_map dep_map;
#endif
};

#define __RWSEM_INITIALIZER(name) \
  { .count = 0 UKERN_DEP_MAP(name) }
#define DECLARE_RWSEM(name) struct rw_semaphore name = __RWSEM_INITIALIZER(name)
#define init_rwsem(sem) UKERN_LOCK_INIT(sem, __init_rwsem)

extern "C" {
#if UKERN_DEBUG
void __init_rwsem(struct rw_semaphore *sem, const char *name, struct lock_class_key *key);
#else
static inline void __init_rwsem(struct rw_semaphore *sem, const char *, struct lock_class_key *) {
  sem->count = 0;
}
#endif
void down_read(struct rw_semaphore *sem);
int down_read_trylock(struct rw_semaphore *sem); /* 1: taken */
void down_write(struct rw_semaphore *sem);
int down_write_trylock(struct rw_semaphore *sem); /* 1: taken */
void up_read(struct rw_semaphore *sem);
void up_write(struct rw_semaphore *sem);
/* From writer to reader, without another writer in between. */
void downgrade_write(struct rw_semaphore *sem);
}

#endif
