// SPDX-License-Identifier: GPL-2.0
// Reader-writer semaphores: the word of a reader-writer lock, but new readers are barred while a
// task waits.
#include <linux/rwsem.h>

#include "ukern/host/host.h"
#include "ukern/sync/lockcheck.h"

namespace {

constexpr unsigned int kBarred = UKERN_RW_WRITER | UKERN_RW_WAITERS;

void read_lock_slow(volatile unsigned int *word) {
  for (;;) {
    if (ukern_rw_read_trylock(word, kBarred)) return;
    unsigned int seen = __atomic_load_n(word, __ATOMIC_RELAXED);
    if (!(seen & kBarred)) continue;
    if (!(seen & UKERN_RW_WAITERS)) {
      if (!__atomic_compare_exchange_n(word, &seen, seen | UKERN_RW_WAITERS, false,
                                       __ATOMIC_RELAXED, __ATOMIC_RELAXED))
        continue;
      seen |= UKERN_RW_WAITERS;
    }
    host_wait(word, seen, -1);
  }
}

}  // namespace

extern "C" {

void down_read(struct rw_semaphore *sem) {
  UKERN_LOCK_BEFORE(&sem->dep_map, UKERN_SEM_READ, 0);
  if (unlikely(!ukern_rw_read_trylock(&sem->count, kBarred))) read_lock_slow(&sem->count);
  UKERN_LOCK_GOT(&sem->dep_map, UKERN_SEM_READ, 0);
}

void down_write(struct rw_semaphore *sem) {
  UKERN_LOCK_BEFORE(&sem->dep_map, UKERN_SEM_WRITE, 0);
  if (unlikely(!ukern_rw_write_trylock(&sem->count))) ukern_rw_write_lock_slow(&sem->count);
  UKERN_LOCK_GOT(&sem->dep_map, UKERN_SEM_WRITE, 0);
}

int down_read_trylock(struct rw_semaphore *sem) {
  if (!ukern_rw_read_trylock(&sem->count, kBarred)) return 0;
  UKERN_LOCK_GOT(&sem->dep_map, UKERN_SEM_READ, 0);
  return 1;
}

int down_write_trylock(struct rw_semaphore *sem) {
  if (!ukern_rw_write_trylock(&sem->count)) return 0;
  UKERN_LOCK_GOT(&sem->dep_map, UKERN_SEM_WRITE, 0);
  return 1;
}

void up_read(struct rw_semaphore *sem) {
  UKERN_LOCK_RELEASE(&sem->dep_map, UKERN_SEM_READ);
  ukern_rw_read_unlock(&sem->count);
}

void up_write(struct rw_semaphore *sem) {
  UKERN_LOCK_RELEASE(&sem->dep_map, UKERN_SEM_WRITE);
  ukern_rw_write_unlock(&sem->count);
}

void downgrade_write(struct rw_semaphore *sem) {
  UKERN_LOCK_DOWNGRADE(&sem->dep_map);
  // Waiting readers may enter now. The exchange clears the waiters bit, which would bar them.
  const unsigned int seen = __atomic_exchange_n(&sem->count, 1u, __ATOMIC_RELEASE);
  if (seen & UKERN_RW_WAITERS) host_wake(&sem->count, INT_MAX);
}
}
