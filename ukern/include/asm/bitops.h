/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Bit operations on a word or an array. Those without "__" are atomic, and access 32 bits at a
 * time, so that a 32-bit field is enough.
 */
#ifndef _ASM_BITOPS_H
#define _ASM_BITOPS_H

#include <asm/system.h>
#include <asm/types.h>

static inline volatile u32 *ukern_bit_word(int nr, const volatile void *addr) {
  return (volatile u32 *)const_cast<volatile void *>(addr) + (nr >> 5);
}
static inline u32 ukern_bit_mask(int nr) {
  return 1U << (nr & 31);
}

static inline void set_bit(int nr, volatile void *addr) {
  __atomic_fetch_or(ukern_bit_word(nr, addr), ukern_bit_mask(nr), __ATOMIC_SEQ_CST);
}
static inline void clear_bit(int nr, volatile void *addr) {
  __atomic_fetch_and(ukern_bit_word(nr, addr), ~ukern_bit_mask(nr), __ATOMIC_SEQ_CST);
}
static inline void change_bit(int nr, volatile void *addr) {
  __atomic_fetch_xor(ukern_bit_word(nr, addr), ukern_bit_mask(nr), __ATOMIC_SEQ_CST);
}
static inline int test_and_set_bit(int nr, volatile void *addr) {
  const u32 mask = ukern_bit_mask(nr);
  return (__atomic_fetch_or(ukern_bit_word(nr, addr), mask, __ATOMIC_SEQ_CST) & mask) != 0;
}
static inline int test_and_clear_bit(int nr, volatile void *addr) {
  const u32 mask = ukern_bit_mask(nr);
  return (__atomic_fetch_and(ukern_bit_word(nr, addr), ~mask, __ATOMIC_SEQ_CST) & mask) != 0;
}
static inline int test_bit(int nr, const volatile void *addr) {
  return (__atomic_load_n(ukern_bit_word(nr, addr), __ATOMIC_RELAXED) & ukern_bit_mask(nr)) != 0;
}

static inline void __set_bit(int nr, volatile void *addr) {
  volatile u32 *word = ukern_bit_word(nr, addr);
  *word = *word | ukern_bit_mask(nr);
}
static inline void __clear_bit(int nr, volatile void *addr) {
  volatile u32 *word = ukern_bit_word(nr, addr);
  *word = *word & ~ukern_bit_mask(nr);
}

#define smp_mb__before_clear_bit() barrier()
#define smp_mb__after_clear_bit() barrier()

/* Number of the lowest set bit; the word must not be 0. */
static inline unsigned long __ffs(unsigned long word) {
  return (unsigned long)__builtin_ctzl(word);
}
/* Number of the lowest clear bit; the word must not be all ones. */
static inline unsigned long ffz(unsigned long word) {
  return (unsigned long)__builtin_ctzl(~word);
}
/* Number of the last set bit, counted from 1; 0 for none. */
static inline int fls(int x) {
  return x ? 32 - __builtin_clz((unsigned)x) : 0;
}
static inline int fls64(__u64 x) {
  return x ? 64 - __builtin_clzll(x) : 0;
}

#endif
