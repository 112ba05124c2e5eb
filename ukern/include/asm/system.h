/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Memory barriers, exchange and compare-and-exchange, and the fields that are read without a lock.
 * The thread sanitizer knows atomic operations but no fences, so under it a barrier is a
 * read-modify-write of a word of its own.
 */
#ifndef _ASM_SYSTEM_H
#define _ASM_SYSTEM_H

#include <linux/compiler.h>

#if defined(__SANITIZE_THREAD__)
#define UKERN_NO_FENCES 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UKERN_NO_FENCES 1
#endif
#endif

#ifdef UKERN_NO_FENCES
extern "C" int ukern_fence_word;
#define mb() (void)__atomic_fetch_add(&ukern_fence_word, 0, __ATOMIC_SEQ_CST)
#else
#define mb() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#endif
#define rmb() mb()
#define wmb() mb()
#define smp_mb() mb()
#define smp_rmb() mb()
#define smp_wmb() mb()
#define smp_read_barrier_depends() \
  do {                             \
  } while (0)
#define set_mb(var, value) (void)__atomic_exchange_n(&(var), value, __ATOMIC_SEQ_CST)

#define xchg(ptr, v) __atomic_exchange_n((ptr), (v), __ATOMIC_SEQ_CST)
/* Returns the previous value, which equals `old` if the exchange was made. */
#define cmpxchg(ptr, old, desired)                                                        \
  ({                                                                                      \
    __typeof__(*(ptr) + 0) cmpxchg_old_ = (old);                                          \
    __atomic_compare_exchange_n((ptr), &cmpxchg_old_, (desired), false, __ATOMIC_SEQ_CST, \
                                __ATOMIC_SEQ_CST);                                        \
    cmpxchg_old_;                                                                         \
  })

/*
 * A field of type T that is written under a lock and read without it: an inode's attributes, a
 * dentry's inode. A read returns a value that was written, never a torn one. The type is used like
 * a plain T. `+=` and the like are a read and a write, not one atomic step: the writer holds the
 * lock.
 *
 * Accesses order nothing, unless the field publishes what it points to (`order` UKERN_PUBLISHED):
 * then a reader of the pointer sees what was written before it.
 */
enum ukern_field_order { UKERN_UNORDERED, UKERN_PUBLISHED };

template <typename T, ukern_field_order order = UKERN_UNORDERED>
class ukern_field {
 public:
  ukern_field() = default;
  constexpr ukern_field(T value) : value_(value) {}
  ukern_field(const ukern_field &other) : value_(other.get()) {}
  ukern_field &operator=(const ukern_field &other) { return *this = other.get(); }
  ukern_field &operator=(T value) {
    __atomic_store_n(&value_, value,
                     order == UKERN_PUBLISHED ? __ATOMIC_RELEASE : __ATOMIC_RELAXED);
    return *this;
  }
  operator T() const { return get(); }
  T operator->() const { return get(); }
  ukern_field &operator+=(T by) { return *this = (T)(get() + by); }
  ukern_field &operator-=(T by) { return *this = (T)(get() - by); }
  ukern_field &operator|=(T bits) { return *this = (T)(get() | bits); }
  ukern_field &operator&=(T bits) { return *this = (T)(get() & bits); }
  T operator++(int) { return change_by(1); }
  T operator--(int) { return change_by((T)-1); }

 private:
  T get() const {
    return __atomic_load_n(&value_, order == UKERN_PUBLISHED ? __ATOMIC_ACQUIRE : __ATOMIC_RELAXED);
  }
  T change_by(T by) {
    const T old = get();
    *this = (T)(old + by);
    return old;
  }

  T value_;
};

#endif
