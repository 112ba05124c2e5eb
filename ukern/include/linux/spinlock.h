/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Spin locks and reader-writer spin locks. The holder must not sleep. The host preempts threads, so
 * a waiter spins briefly and then sleeps in the host until the lock is free; that is no sleep in
 * the kernel's sense. Readers may nest and enter while a writer waits. There are no interrupts, so
 * the _irq, _irqsave and _bh forms do the same as the plain ones.
 *
 * Uncontended: one atomic operation each way. In debug builds every call goes through the lock
 * checker.
 */
#ifndef _LINUX_SPINLOCK_H
#define _LINUX_SPINLOCK_H

#include <linux/preempt.h>
#include <linux/linkage.h>
#include <linux/compiler.h>
#include <linux/kernel.h>
#include <linux/spinlock_types.h>
#include <asm/atomic.h>
#include <asm/system.h>

#define UKERN_RW_WRITER 0x80000000u
#define UKERN_RW_WAITERS 0x40000000u
#define UKERN_RW_READERS 0x3fffffffu

extern "C" {

void ukern_word_lock_slow(volatile unsigned int *word);
void ukern_word_unlock_slow(volatile unsigned int *word);
void ukern_rw_read_lock_slow(volatile unsigned int *word);
void ukern_rw_write_lock_slow(volatile unsigned int *word);
void ukern_rw_unlock_slow(volatile unsigned int *word);

#if UKERN_DEBUG
void ukern_spin_lock_init(spinlock_t *lock, const char *name, struct lock_class_key *key);
void ukern_rwlock_init(rwlock_t *lock, const char *name, struct lock_class_key *key);
void ukern_spin_lock(spinlock_t *lock, unsigned int subclass);
int spin_trylock(spinlock_t *lock);
void spin_unlock(spinlock_t *lock);
void read_lock(rwlock_t *lock);
int read_trylock(rwlock_t *lock);
void read_unlock(rwlock_t *lock);
void write_lock(rwlock_t *lock);
int write_trylock(rwlock_t *lock);
void write_unlock(rwlock_t *lock);
/* BUG unless the calling thread holds the lock. */
void ukern_assert_spin_locked(spinlock_t *lock);
#endif

/* The slow path of atomic_dec_and_lock: 1 with the lock held if the count falls to zero, else 0
 * without it. */
int _atomic_dec_and_lock(atomic_t *atomic, spinlock_t *lock);
}

static inline int ukern_word_trylock(volatile unsigned int *word) {
  unsigned int free = 0;
  return __atomic_compare_exchange_n(word, &free, 1u, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

static inline void ukern_word_lock(volatile unsigned int *word) {
  if (unlikely(!ukern_word_trylock(word))) ukern_word_lock_slow(word);
}

static inline void ukern_word_unlock(volatile unsigned int *word) {
  if (unlikely(__atomic_exchange_n(word, 0u, __ATOMIC_RELEASE) != 1u)) ukern_word_unlock_slow(word);
}

/* `barred`: state bits that keep a new reader out. */
static inline int ukern_rw_read_trylock(volatile unsigned int *word, unsigned int barred) {
  unsigned int seen = __atomic_load_n(word, __ATOMIC_RELAXED);
  while (!(seen & barred)) {
    if (__atomic_compare_exchange_n(word, &seen, seen + 1, false, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED))
      return 1;
  }
  return 0;
}

static inline int ukern_rw_write_trylock(volatile unsigned int *word) {
  unsigned int seen = 0;
  return __atomic_compare_exchange_n(word, &seen, UKERN_RW_WRITER, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED);
}

static inline void ukern_rw_read_unlock(volatile unsigned int *word) {
  if (unlikely(__atomic_sub_fetch(word, 1, __ATOMIC_RELEASE) == UKERN_RW_WAITERS))
    ukern_rw_unlock_slow(word);
}

static inline void ukern_rw_write_unlock(volatile unsigned int *word) {
  if (unlikely(__atomic_and_fetch(word, ~UKERN_RW_WRITER, __ATOMIC_RELEASE) != 0))
    ukern_rw_unlock_slow(word);
}

#define spin_is_locked(x) (__atomic_load_n(&(x)->slock, __ATOMIC_RELAXED) != 0)

#if UKERN_DEBUG

#define spin_lock_init(lock) UKERN_LOCK_INIT(lock, ukern_spin_lock_init)
#define rwlock_init(lock) UKERN_LOCK_INIT(lock, ukern_rwlock_init)
#define assert_spin_locked(x) ukern_assert_spin_locked(x)

static inline void spin_lock(spinlock_t *lock) {
  ukern_spin_lock(lock, 0);
}
static inline void spin_lock_nested(spinlock_t *lock, unsigned int subclass) {
  ukern_spin_lock(lock, subclass);
}

#else

#define spin_lock_init(lock)      \
  do {                            \
    *(lock) = SPIN_LOCK_UNLOCKED; \
  } while (0)
#define rwlock_init(lock)       \
  do {                          \
    *(lock) = RW_LOCK_UNLOCKED; \
  } while (0)
#define assert_spin_locked(x) BUG_ON(!spin_is_locked(x))

static inline void spin_lock(spinlock_t *lock) {
  ukern_word_lock(&lock->slock);
}
static inline void spin_lock_nested(spinlock_t *lock, unsigned int) {
  ukern_word_lock(&lock->slock);
}
static inline int spin_trylock(spinlock_t *lock) {
  return ukern_word_trylock(&lock->slock);
}
static inline void spin_unlock(spinlock_t *lock) {
  ukern_word_unlock(&lock->slock);
}
static inline void read_lock(rwlock_t *lock) {
  if (unlikely(!ukern_rw_read_trylock(&lock->lock, UKERN_RW_WRITER)))
    ukern_rw_read_lock_slow(&lock->lock);
}
static inline int read_trylock(rwlock_t *lock) {
  return ukern_rw_read_trylock(&lock->lock, UKERN_RW_WRITER);
}
static inline void read_unlock(rwlock_t *lock) {
  ukern_rw_read_unlock(&lock->lock);
}
static inline void write_lock(rwlock_t *lock) {
  if (unlikely(!ukern_rw_write_trylock(&lock->lock))) ukern_rw_write_lock_slow(&lock->lock);
}
static inline int write_trylock(rwlock_t *lock) {
  return ukern_rw_write_trylock(&lock->lock);
}
static inline void write_unlock(rwlock_t *lock) {
  ukern_rw_write_unlock(&lock->lock);
}

#endif

#define spin_lock_irq(lock) spin_lock(lock)
#define spin_unlock_irq(lock) spin_unlock(lock)
#define spin_lock_bh(lock) spin_lock(lock)
#define spin_unlock_bh(lock) spin_unlock(lock)
#define read_lock_irq(lock) read_lock(lock)
#define read_unlock_irq(lock) read_unlock(lock)
#define read_lock_bh(lock) read_lock(lock)
#define read_unlock_bh(lock) read_unlock(lock)
#define write_lock_irq(lock) write_lock(lock)
#define write_unlock_irq(lock) write_unlock(lock)
#define write_lock_bh(lock) write_lock(lock)
#define write_unlock_bh(lock) write_unlock(lock)

/* `flags` must be an unsigned long variable, as if it held the interrupt state. */
static inline void ukern_no_irq_flags(unsigned long &flags) {
  flags = 0;
}
#define spin_lock_irqsave(lock, flags) \
  do {                                 \
    ukern_no_irq_flags(flags);         \
    spin_lock(lock);                   \
  } while (0)
#define spin_unlock_irqrestore(lock, flags) \
  do {                                      \
    (void)(flags);                          \
    spin_unlock(lock);                      \
  } while (0)
#define read_lock_irqsave(lock, flags) \
  do {                                 \
    ukern_no_irq_flags(flags);         \
    read_lock(lock);                   \
  } while (0)
#define read_unlock_irqrestore(lock, flags) \
  do {                                      \
    (void)(flags);                          \
    read_unlock(lock);                      \
  } while (0)
#define write_lock_irqsave(lock, flags) \
  do {                                  \
    ukern_no_irq_flags(flags);          \
    write_lock(lock);                   \
  } while (0)
#define write_unlock_irqrestore(lock, flags) \
  do {                                       \
    (void)(flags);                           \
    write_unlock(lock);                      \
  } while (0)

static inline int atomic_dec_and_lock(atomic_t *atomic, spinlock_t *lock) {
  return !atomic_add_unless(atomic, -1, 1) && _atomic_dec_and_lock(atomic, lock);
}

#endif
