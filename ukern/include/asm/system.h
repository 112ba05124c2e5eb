/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Memory barriers, exchange and compare-and-exchange. The thread sanitizer knows atomic operations
 * but no fences, so under it a barrier is a read-modify-write of a word of its own.
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
/* What was there before; equal to `old` when the exchange was made. */
#define cmpxchg(ptr, old, desired)                                                        \
  ({                                                                                      \
    __typeof__(*(ptr) + 0) cmpxchg_old_ = (old);                                          \
    __atomic_compare_exchange_n((ptr), &cmpxchg_old_, (desired), false, __ATOMIC_SEQ_CST, \
                                __ATOMIC_SEQ_CST);                                        \
    cmpxchg_old_;                                                                         \
  })

#endif
