// SPDX-License-Identifier: GPL-2.0
// The slow paths of all locks. A lock is one word. A thread that cannot take it spins briefly, then
// sleeps in the host until the holder, which sees the waiters in the word, wakes it.
#include <asm/processor.h>
#include <linux/spinlock.h>

#include "ukern/host/host.h"

namespace {

constexpr int kSpins = 100;
constexpr int kAll = INT_MAX;

inline unsigned int load(volatile unsigned int *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

// Sets the waiters bit; false when the word has changed since `seen`.
bool mark_waiting(volatile unsigned int *word, unsigned int seen) {
  return (seen & UKERN_RW_WAITERS) ||
         __atomic_compare_exchange_n(word, &seen, seen | UKERN_RW_WAITERS, false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED);
}

void sleep_marked(volatile unsigned int *word, unsigned int seen) {
  if (mark_waiting(word, seen)) host_wait(word, seen | UKERN_RW_WAITERS, -1);
}

}  // namespace

extern "C" {

#ifdef UKERN_NO_FENCES
int ukern_fence_word;
#endif

void ukern_word_lock_slow(volatile unsigned int *word) {
  for (int i = 0; i < kSpins; i++) {
    if (load(word) == 0 && ukern_word_trylock(word)) return;
    cpu_relax();
  }
  // From here on the word is 2 (contended): after the sleep there may be other waiters.
  while (__atomic_exchange_n(word, 2u, __ATOMIC_ACQUIRE) != 0) host_wait(word, 2u, -1);
}

void ukern_word_unlock_slow(volatile unsigned int *word) {
  host_wake(word, 1);
}

void ukern_rw_read_lock_slow(volatile unsigned int *word) {
  for (int i = 0;; i++) {
    if (ukern_rw_read_trylock(word, UKERN_RW_WRITER)) return;
    const unsigned int seen = load(word);
    if (i < kSpins)
      cpu_relax();
    else if (seen & UKERN_RW_WRITER)
      sleep_marked(word, seen);
  }
}

void ukern_rw_write_lock_slow(volatile unsigned int *word) {
  for (int i = 0;; i++) {
    unsigned int seen = load(word);
    if (!(seen & ~UKERN_RW_WAITERS)) {
      // The waiters bit stays: others may wait as well.
      if (__atomic_compare_exchange_n(word, &seen, seen | UKERN_RW_WRITER, false, __ATOMIC_ACQUIRE,
                                      __ATOMIC_RELAXED))
        return;
    } else if (i < kSpins) {
      cpu_relax();
    } else {
      sleep_marked(word, seen);
    }
  }
}

// No holder is left, but there are waiters. A thread that has taken the lock meanwhile inherits the
// waiters bit and the wake-up.
void ukern_rw_unlock_slow(volatile unsigned int *word) {
  unsigned int seen = UKERN_RW_WAITERS;
  if (__atomic_compare_exchange_n(word, &seen, 0u, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
    host_wake(word, kAll);
}

int _atomic_dec_and_lock(atomic_t *atomic, spinlock_t *lock) {
  spin_lock(lock);
  if (atomic_dec_and_test(atomic)) return 1;
  spin_unlock(lock);
  return 0;
}
}
