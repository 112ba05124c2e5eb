// SPDX-License-Identifier: GPL-2.0
// Spin locks, reader-writer locks and mutexes of debug builds, which call the lock checker. Those
// of release builds are in the headers.
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/spinlock.h>

#include "ukern/sync/lockcheck.h"

extern "C" {

void __mutex_init(struct mutex *lock, const char *name, struct lock_class_key *key) {
  lockdep_init_map(&lock->dep_map, name, key);
  lock->word = 0;
}

void __init_rwsem(struct rw_semaphore *sem, const char *name, struct lock_class_key *key) {
  lockdep_init_map(&sem->dep_map, name, key);
  sem->count = 0;
}

void ukern_spin_lock_init(spinlock_t *lock, const char *name, struct lock_class_key *key) {
  lockdep_init_map(&lock->dep_map, name, key);
  lock->slock = 0;
}

void ukern_rwlock_init(rwlock_t *lock, const char *name, struct lock_class_key *key) {
  lockdep_init_map(&lock->dep_map, name, key);
  lock->lock = 0;
}

void ukern_spin_lock(spinlock_t *lock, unsigned int subclass) {
  ukern_lock_before(&lock->dep_map, UKERN_SPIN, subclass);
  ukern_word_lock(&lock->slock);
  ukern_lock_got(&lock->dep_map, UKERN_SPIN, subclass);
}

int spin_trylock(spinlock_t *lock) {
  if (!ukern_word_trylock(&lock->slock)) return 0;
  ukern_lock_got(&lock->dep_map, UKERN_SPIN, 0);
  return 1;
}

void spin_unlock(spinlock_t *lock) {
  ukern_lock_release(&lock->dep_map, UKERN_SPIN);
  ukern_word_unlock(&lock->slock);
}

void ukern_assert_spin_locked(spinlock_t *lock) {
  BUG_ON(!ukern_lock_held(&lock->dep_map));
}

void read_lock(rwlock_t *lock) {
  ukern_lock_before(&lock->dep_map, UKERN_RW_READ, 0);
  if (unlikely(!ukern_rw_read_trylock(&lock->lock, UKERN_RW_WRITER)))
    ukern_rw_read_lock_slow(&lock->lock);
  ukern_lock_got(&lock->dep_map, UKERN_RW_READ, 0);
}

int read_trylock(rwlock_t *lock) {
  if (!ukern_rw_read_trylock(&lock->lock, UKERN_RW_WRITER)) return 0;
  ukern_lock_got(&lock->dep_map, UKERN_RW_READ, 0);
  return 1;
}

void read_unlock(rwlock_t *lock) {
  ukern_lock_release(&lock->dep_map, UKERN_RW_READ);
  ukern_rw_read_unlock(&lock->lock);
}

void write_lock(rwlock_t *lock) {
  ukern_lock_before(&lock->dep_map, UKERN_RW_WRITE, 0);
  if (unlikely(!ukern_rw_write_trylock(&lock->lock))) ukern_rw_write_lock_slow(&lock->lock);
  ukern_lock_got(&lock->dep_map, UKERN_RW_WRITE, 0);
}

int write_trylock(rwlock_t *lock) {
  if (!ukern_rw_write_trylock(&lock->lock)) return 0;
  ukern_lock_got(&lock->dep_map, UKERN_RW_WRITE, 0);
  return 1;
}

void write_unlock(rwlock_t *lock) {
  ukern_lock_release(&lock->dep_map, UKERN_RW_WRITE);
  ukern_rw_write_unlock(&lock->lock);
}

void mutex_lock_nested(struct mutex *lock, unsigned int subclass) {
  ukern_lock_before(&lock->dep_map, UKERN_MUTEX, subclass);
  ukern_word_lock(&lock->word);
  ukern_lock_got(&lock->dep_map, UKERN_MUTEX, subclass);
}

void mutex_lock(struct mutex *lock) {
  ukern_lock_before(&lock->dep_map, UKERN_MUTEX, 0);
  ukern_word_lock(&lock->word);
  ukern_lock_got(&lock->dep_map, UKERN_MUTEX, 0);
}

int mutex_trylock(struct mutex *lock) {
  if (!ukern_word_trylock(&lock->word)) return 0;
  ukern_lock_got(&lock->dep_map, UKERN_MUTEX, 0);
  return 1;
}

void mutex_unlock(struct mutex *lock) {
  ukern_lock_release(&lock->dep_map, UKERN_MUTEX);
  ukern_word_unlock(&lock->word);
}

void mutex_destroy(struct mutex *lock) {
  BUG_ON(mutex_is_locked(lock));
}
}
