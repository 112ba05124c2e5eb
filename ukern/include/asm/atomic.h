/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Atomic counters. Operations that return a value are full barriers, as all are on x86-64.
 * atomic_read orders as a load does there, so that a thread that sees the count after a dropped
 * reference also sees what was done under that reference.
 */
#ifndef _ASM_ATOMIC_H
#define _ASM_ATOMIC_H

#include <asm/system.h>

typedef struct {
  volatile int counter;
} atomic_t;

#define ATOMIC_INIT(i) \
  { (i) }
#define atomic_read(v) __atomic_load_n(&(v)->counter, __ATOMIC_ACQUIRE)
#define atomic_set(v, i) __atomic_store_n(&(v)->counter, (i), __ATOMIC_RELAXED)

static inline void atomic_add(int i, atomic_t *v) {
  __atomic_fetch_add(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline void atomic_sub(int i, atomic_t *v) {
  __atomic_fetch_sub(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline int atomic_add_return(int i, atomic_t *v) {
  return __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline int atomic_sub_return(int i, atomic_t *v) {
  return __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline void atomic_inc(atomic_t *v) {
  atomic_add(1, v);
}
static inline void atomic_dec(atomic_t *v) {
  atomic_sub(1, v);
}
static inline int atomic_dec_and_test(atomic_t *v) {
  return atomic_sub_return(1, v) == 0;
}
static inline int atomic_inc_and_test(atomic_t *v) {
  return atomic_add_return(1, v) == 0;
}
static inline int atomic_add_negative(int i, atomic_t *v) {
  return atomic_add_return(i, v) < 0;
}
#define atomic_inc_return(v) (atomic_add_return(1, v))
#define atomic_dec_return(v) (atomic_sub_return(1, v))
#define atomic_cmpxchg(v, old, desired) ((int)cmpxchg(&((v)->counter), old, desired))
#define atomic_xchg(v, desired) (xchg(&((v)->counter), desired))

/* Adds unless the value is `u`; non-zero when it was added. */
static inline int atomic_add_unless(atomic_t *v, int a, int u) {
  int seen = atomic_read(v);
  while (seen != u) {
    if (__atomic_compare_exchange_n(&v->counter, &seen, seen + a, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_RELAXED))
      return 1;
  }
  return 0;
}
#define atomic_inc_not_zero(v) atomic_add_unless((v), 1, 0)

#define smp_mb__before_atomic_dec() barrier()
#define smp_mb__after_atomic_dec() barrier()
#define smp_mb__before_atomic_inc() barrier()
#define smp_mb__after_atomic_inc() barrier()

typedef struct {
  volatile long counter;
} atomic64_t;

#define ATOMIC64_INIT(i) \
  { (i) }
#define atomic64_read(v) __atomic_load_n(&(v)->counter, __ATOMIC_ACQUIRE)
#define atomic64_set(v, i) __atomic_store_n(&(v)->counter, (i), __ATOMIC_RELAXED)

static inline void atomic64_add(long i, atomic64_t *v) {
  __atomic_fetch_add(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline void atomic64_sub(long i, atomic64_t *v) {
  __atomic_fetch_sub(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline long atomic64_add_return(long i, atomic64_t *v) {
  return __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline long atomic64_sub_return(long i, atomic64_t *v) {
  return __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline void atomic64_inc(atomic64_t *v) {
  atomic64_add(1, v);
}
static inline void atomic64_dec(atomic64_t *v) {
  atomic64_sub(1, v);
}
#define atomic64_inc_return(v) (atomic64_add_return(1, v))
#define atomic64_dec_return(v) (atomic64_sub_return(1, v))

typedef atomic64_t atomic_long_t;
#define ATOMIC_LONG_INIT(i) ATOMIC64_INIT(i)
#define atomic_long_read(v) atomic64_read(v)
#define atomic_long_set(v, i) atomic64_set(v, i)
#define atomic_long_inc(v) atomic64_inc(v)
#define atomic_long_dec(v) atomic64_dec(v)
#define atomic_long_add(i, v) atomic64_add(i, v)
#define atomic_long_sub(i, v) atomic64_sub(i, v)

#endif
