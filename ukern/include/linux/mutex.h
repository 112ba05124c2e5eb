/* SPDX-License-Identifier: GPL-2.0 */
/* Mutexes: one holder, which may sleep, does not take it twice and releases it itself. */
#ifndef _LINUX_MUTEX_H
#define _LINUX_MUTEX_H

#include <linux/list.h>
#include <linux/spinlock_types.h>
#include <linux/spinlock.h>
#include <linux/linkage.h>
#include <linux/lockdep.h>
#include <asm/atomic.h>

struct mutex {
  volatile unsigned int word; /* 0 free, 1 held, 2 held with waiters */
#if UKERN_DEBUG
  struct lockdep_map dep_map;
#endif
};

#define __MUTEX_INITIALIZER(lockname) \
  { .word = 0 UKERN_DEP_MAP(lockname) }
#define DEFINE_MUTEX(mutexname) struct mutex mutexname = __MUTEX_INITIALIZER(mutexname)
#define mutex_init(mutex) UKERN_LOCK_INIT(mutex, __mutex_init)

extern "C" {
#if UKERN_DEBUG
void __mutex_init(struct mutex *lock, const char *name, struct lock_class_key *key);
void mutex_lock(struct mutex *lock);
void mutex_lock_nested(struct mutex *lock, unsigned int subclass);
int mutex_trylock(struct mutex *lock); /* 1: taken */
void mutex_unlock(struct mutex *lock);
void mutex_destroy(struct mutex *lock);
#endif
}

static inline int mutex_is_locked(struct mutex *lock) {
  return __atomic_load_n(&lock->word, __ATOMIC_RELAXED) != 0;
}

#if !UKERN_DEBUG
#define mutex_lock_nested(lock, subclass) mutex_lock(lock)
#define mutex_destroy(mutex) \
  do {                       \
  } while (0)

static inline void __mutex_init(struct mutex *lock, const char *, struct lock_class_key *) {
  lock->word = 0;
}
static inline void mutex_lock(struct mutex *lock) {
  ukern_word_lock(&lock->word);
}
static inline int mutex_trylock(struct mutex *lock) {
  return ukern_word_trylock(&lock->word);
}
static inline void mutex_unlock(struct mutex *lock) {
  ukern_word_unlock(&lock->word);
}
#endif

#endif
