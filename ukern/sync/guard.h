/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Scoped locks: the constructor locks and the destructor unlocks, so that an early return is safe.
 * They cannot be copied. They are always inlined, so that the lock checker reports the function
 * with the scope.
 *
 * Under SpinGuard, ReadGuard and WriteGuard nothing may sleep; the others may themselves sleep. An
 * unlock without a guard is a hand-over: another function took the lock, and a comment names it.
 */
#ifndef UKERN_SYNC_GUARD_H
#define UKERN_SYNC_GUARD_H

#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/spinlock.h>

#define UKERN_INLINE [[gnu::always_inline]]

class SpinGuard {
 public:
  UKERN_INLINE explicit SpinGuard(spinlock_t &lock) : lock_(lock) { spin_lock(&lock_); }
  /* `subclass` distinguishes two locks of one class that are taken one under the other. */
  UKERN_INLINE SpinGuard(spinlock_t &lock, unsigned subclass) : lock_(lock) {
    spin_lock_nested(&lock_, subclass);
  }
  UKERN_INLINE ~SpinGuard() { spin_unlock(&lock_); }
  SpinGuard(const SpinGuard &) = delete;
  SpinGuard &operator=(const SpinGuard &) = delete;

 private:
  spinlock_t &lock_;
};

/* A bare word, for code below the lock checker. */
class WordGuard {
 public:
  UKERN_INLINE explicit WordGuard(volatile unsigned &word) : word_(word) {
    ukern_word_lock(&word_);
  }
  UKERN_INLINE ~WordGuard() { ukern_word_unlock(&word_); }
  WordGuard(const WordGuard &) = delete;
  WordGuard &operator=(const WordGuard &) = delete;

 private:
  volatile unsigned &word_;
};

/* The reverse: unlocks a held lock until the end of the scope. */
class SpinPause {
 public:
  UKERN_INLINE explicit SpinPause(spinlock_t &lock) : lock_(lock) { spin_unlock(&lock_); }
  UKERN_INLINE ~SpinPause() { spin_lock(&lock_); }
  SpinPause(const SpinPause &) = delete;
  SpinPause &operator=(const SpinPause &) = delete;

 private:
  spinlock_t &lock_;
};

class ReadGuard {
 public:
  UKERN_INLINE explicit ReadGuard(rwlock_t &lock) : lock_(lock) { read_lock(&lock_); }
  UKERN_INLINE ~ReadGuard() { read_unlock(&lock_); }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;

 private:
  rwlock_t &lock_;
};

class WriteGuard {
 public:
  UKERN_INLINE explicit WriteGuard(rwlock_t &lock) : lock_(lock) { write_lock(&lock_); }
  UKERN_INLINE ~WriteGuard() { write_unlock(&lock_); }
  WriteGuard(const WriteGuard &) = delete;
  WriteGuard &operator=(const WriteGuard &) = delete;

 private:
  rwlock_t &lock_;
};

class MutexGuard {
 public:
  UKERN_INLINE explicit MutexGuard(struct mutex &lock) : lock_(lock) { mutex_lock(&lock_); }
  /* `subclass` distinguishes a parent's i_mutex from a child's (I_MUTEX_*). */
  UKERN_INLINE MutexGuard(struct mutex &lock, unsigned subclass) : lock_(lock) {
    (void)subclass; /* only lock debugging uses it */
    mutex_lock_nested(&lock_, subclass);
  }
  UKERN_INLINE ~MutexGuard() { mutex_unlock(&lock_); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;

 private:
  struct mutex &lock_;
};

/* Holds a semaphore for reading. */
class SharedGuard {
 public:
  UKERN_INLINE explicit SharedGuard(struct rw_semaphore &sem) : sem_(sem) { down_read(&sem_); }
  UKERN_INLINE ~SharedGuard() { up_read(&sem_); }
  SharedGuard(const SharedGuard &) = delete;
  SharedGuard &operator=(const SharedGuard &) = delete;

 private:
  struct rw_semaphore &sem_;
};

/* Holds the semaphore for reading if that is possible at once; test with `if (guard)`. */
class SharedTryGuard {
 public:
  UKERN_INLINE explicit SharedTryGuard(struct rw_semaphore &sem)
      : sem_(sem), held_(down_read_trylock(&sem_)) {}
  UKERN_INLINE ~SharedTryGuard() {
    if (held_) up_read(&sem_);
  }
  SharedTryGuard(const SharedTryGuard &) = delete;
  SharedTryGuard &operator=(const SharedTryGuard &) = delete;
  explicit operator bool() const { return held_; }

 private:
  struct rw_semaphore &sem_;
  bool held_;
};

/* Holds a semaphore for writing. */
class ExclusiveGuard {
 public:
  UKERN_INLINE explicit ExclusiveGuard(struct rw_semaphore &sem) : sem_(sem) { down_write(&sem_); }
  UKERN_INLINE ~ExclusiveGuard() { up_write(&sem_); }
  ExclusiveGuard(const ExclusiveGuard &) = delete;
  ExclusiveGuard &operator=(const ExclusiveGuard &) = delete;

 private:
  struct rw_semaphore &sem_;
};

#undef UKERN_INLINE

#endif
