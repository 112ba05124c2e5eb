/* SPDX-License-Identifier: GPL-2.0 */
/* The tick count, one per millisecond. It starts five minutes before the 32-bit wrap. */
#ifndef _LINUX_JIFFIES_H
#define _LINUX_JIFFIES_H

#include <linux/kernel.h>
#include <linux/types.h>
#include <linux/time.h>

#define HZ 1000
/* Nanoseconds between ticks with the timer's divisor: a little less than 1 / HZ. */
#define TICK_NSEC 999848UL

#define INITIAL_JIFFIES ((unsigned long)(unsigned int)(-300 * HZ))
#define MAX_JIFFY_OFFSET ((~0UL >> 1) - 1)

extern "C" unsigned long ukern_jiffies(void);

#define jiffies ukern_jiffies()

#define time_after(a, b) ((long)(b) - (long)(a) < 0)
#define time_before(a, b) time_after(b, a)
#define time_after_eq(a, b) ((long)(a) - (long)(b) >= 0)
#define time_before_eq(a, b) time_after_eq(b, a)

static inline unsigned int jiffies_to_msecs(const unsigned long j) {
  return (unsigned int)j;
}
static inline unsigned int jiffies_to_usecs(const unsigned long j) {
  return (unsigned int)(j * 1000);
}
static inline unsigned long msecs_to_jiffies(const unsigned int m) {
  return m > jiffies_to_msecs(MAX_JIFFY_OFFSET) ? MAX_JIFFY_OFFSET : m;
}
static inline unsigned long usecs_to_jiffies(const unsigned int u) {
  return u > jiffies_to_usecs(MAX_JIFFY_OFFSET) ? MAX_JIFFY_OFFSET
                                                : ((unsigned long)u + 999) / 1000;
}
static inline unsigned long timespec_to_jiffies(const struct timespec *value) {
  if ((unsigned long)value->tv_sec >= MAX_JIFFY_OFFSET / HZ) return MAX_JIFFY_OFFSET;
  /* A second is `whole` ticks and `rest` ns; 64 bits do not hold all times in ns. */
  const unsigned long whole = 1000000000 / TICK_NSEC, rest = 1000000000 % TICK_NSEC;
  const unsigned long sec = (unsigned long)value->tv_sec, nsec = (unsigned long)value->tv_nsec;
  return sec * whole + sec / TICK_NSEC * rest +
         (sec % TICK_NSEC * rest + nsec + TICK_NSEC - 1) / TICK_NSEC;
}
static inline void jiffies_to_timespec(const unsigned long j, struct timespec *value) {
  const unsigned long long ns = (unsigned long long)j * TICK_NSEC;
  value->tv_sec = (time_t)(ns / 1000000000);
  value->tv_nsec = (long)(ns % 1000000000);
}

#endif
