/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Fixed-width integers of the records that the module and user space exchange. Needs no other
 * header, so that kernel code, C and C++ programs can include it alike.
 */
#ifndef OX_TYPEDEF_H
#define OX_TYPEDEF_H

#if !defined(__cplusplus) && !defined(static_assert)
#define static_assert _Static_assert
#endif

typedef unsigned char ox_u8_t;
typedef unsigned short ox_u16_t;
typedef unsigned int ox_u32_t;
typedef int ox_s32_t;
typedef unsigned long long ox_u64_t;
typedef long long ox_s64_t;

/* Microseconds since the Unix epoch wherever a record carries a time. */
typedef ox_s64_t ox_time_t;

static_assert(sizeof(ox_u8_t) == 1, "8 bits");
static_assert(sizeof(ox_u16_t) == 2, "16 bits");
static_assert(sizeof(ox_u32_t) == 4 && sizeof(ox_s32_t) == 4, "32 bits");
static_assert(sizeof(ox_u64_t) == 8 && sizeof(ox_s64_t) == 8, "64 bits");

#endif
