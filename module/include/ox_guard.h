/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Scope guards: the destructor releases what the constructor has taken, so that an early return is
 * safe. They cost no more than the calls they make, cannot be copied and do not allocate.
 *
 * Lock guards hold their lock from the declaration to the end of the scope. Nothing may sleep under
 * spin_guard, spin_irq_guard, read_guard and write_guard; mutex_guard itself may sleep.
 */
#ifndef OX_GUARD_H
#define OX_GUARD_H

#include "kernel.h"

class spin_guard {
 public:
  explicit spin_guard(spinlock_t &lock) : lock_(lock) { spin_lock(&lock_); }
  ~spin_guard() { spin_unlock(&lock_); }
  spin_guard(const spin_guard &) = delete;
  spin_guard &operator=(const spin_guard &) = delete;

 private:
  spinlock_t &lock_;
};

/* For locks that interrupt handlers also take; interrupts must be enabled before. */
class spin_irq_guard {
 public:
  explicit spin_irq_guard(spinlock_t &lock) : lock_(lock) { spin_lock_irq(&lock_); }
  ~spin_irq_guard() { spin_unlock_irq(&lock_); }
  spin_irq_guard(const spin_irq_guard &) = delete;
  spin_irq_guard &operator=(const spin_irq_guard &) = delete;

 private:
  spinlock_t &lock_;
};

class read_guard {
 public:
  explicit read_guard(rwlock_t &lock) : lock_(lock) { read_lock(&lock_); }
  ~read_guard() { read_unlock(&lock_); }
  read_guard(const read_guard &) = delete;
  read_guard &operator=(const read_guard &) = delete;

 private:
  rwlock_t &lock_;
};

class write_guard {
 public:
  explicit write_guard(rwlock_t &lock) : lock_(lock) { write_lock(&lock_); }
  ~write_guard() { write_unlock(&lock_); }
  write_guard(const write_guard &) = delete;
  write_guard &operator=(const write_guard &) = delete;

 private:
  rwlock_t &lock_;
};

/* Holds the lock if it was free; test with `if (guard)`. */
class write_try_guard {
 public:
  explicit write_try_guard(rwlock_t &lock) : lock_(lock), held_(write_trylock(&lock_)) {}
  ~write_try_guard() {
    if (held_) write_unlock(&lock_);
  }
  write_try_guard(const write_try_guard &) = delete;
  write_try_guard &operator=(const write_try_guard &) = delete;
  explicit operator bool() const { return held_; }

 private:
  rwlock_t &lock_;
  bool held_;
};

class mutex_guard {
 public:
  explicit mutex_guard(struct mutex &lock) : lock_(lock) { mutex_lock(&lock_); }
  /* `subclass` distinguishes a parent's from a child's i_mutex (I_MUTEX_*). */
  mutex_guard(struct mutex &lock, unsigned subclass) : lock_(lock) {
    (void)subclass; /* used by lock debugging only */
    mutex_lock_nested(&lock_, subclass);
  }
  ~mutex_guard() { mutex_unlock(&lock_); }
  mutex_guard(const mutex_guard &) = delete;
  mutex_guard &operator=(const mutex_guard &) = delete;

 private:
  struct mutex &lock_;
};

/* Holds the lock if it was free; test with `if (guard)`. */
class mutex_try_guard {
 public:
  explicit mutex_try_guard(struct mutex &lock) : lock_(lock), held_(mutex_trylock(&lock_)) {}
  ~mutex_try_guard() {
    if (held_) mutex_unlock(&lock_);
  }
  mutex_try_guard(const mutex_try_guard &) = delete;
  mutex_try_guard &operator=(const mutex_try_guard &) = delete;
  explicit operator bool() const { return held_; }

 private:
  struct mutex &lock_;
  bool held_;
};

/* User accesses of the task may use kernel addresses in this scope. */
class kernel_ds_guard {
 public:
  kernel_ds_guard() : old_(get_fs()) { set_fs(KERNEL_DS); }
  ~kernel_ds_guard() { set_fs(old_); }
  kernel_ds_guard(const kernel_ds_guard &) = delete;
  kernel_ds_guard &operator=(const kernel_ds_guard &) = delete;

 private:
  mm_segment_t old_;
};

/*
 * Owns an object, or a reference on it, and releases it by Release(object): ox_owner<struct dentry,
 * dput>. Null owns nothing; error pointers are not allowed.
 */
template <typename T, auto Release>
class ox_owner {
 public:
  explicit ox_owner(T *object = nullptr) : object_(object) {}
  ~ox_owner() {
    if (object_) Release(object_);
  }
  ox_owner(const ox_owner &) = delete;
  ox_owner &operator=(const ox_owner &) = delete;

  T *get() const { return object_; }
  T *operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  /* Gives the ownership to the caller. */
  [[nodiscard]] T *release() {
    T *object = object_;
    object_ = nullptr;
    return object;
  }

 private:
  T *object_;
};

/* Owns one object of a slab cache. */
template <typename T>
class kmem_owner {
 public:
  kmem_owner(struct kmem_cache *cache, T *object) : cache_(cache), object_(object) {}
  ~kmem_owner() {
    if (object_) kmem_cache_free(cache_, object_);
  }
  kmem_owner(const kmem_owner &) = delete;
  kmem_owner &operator=(const kmem_owner &) = delete;

  T *get() const { return object_; }
  T *operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  [[nodiscard]] T *release() {
    T *object = object_;
    object_ = nullptr;
    return object;
  }

 private:
  struct kmem_cache *cache_;
  T *object_;
};

/*
 * For words that are read and written without a lock. Each access is a single load or store that
 * the compiler does not split, repeat or omit; no ordering.
 */
template <typename T>
inline T ox_load(const T &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T, typename V>
inline void ox_store(T &word, V value) {
  __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELAXED);
}

#endif
