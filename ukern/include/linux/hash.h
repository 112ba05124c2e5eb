/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Multiplicative hashing: the top `bits` bits of the product with 2^64 over the golden ratio. All
 * bits of the value count; with a multiplier of few set bits, only the low bits of the value would
 * decide the upper bits of an index into a large table.
 */
#ifndef _LINUX_HASH_H
#define _LINUX_HASH_H

#include <asm/types.h>

#define GOLDEN_RATIO_PRIME 0x9e3779b97f4a7c15UL

static inline unsigned long hash_long(unsigned long val, unsigned int bits) {
  return (val * GOLDEN_RATIO_PRIME) >> (BITS_PER_LONG - bits);
}

#endif
