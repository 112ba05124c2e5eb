/* SPDX-License-Identifier: GPL-2.0 */
/* Wall clock. current_kernel_time advances once per jiffy, the other two by nanoseconds. */
#ifndef _LINUX_TIME_H
#define _LINUX_TIME_H

#include <linux/types.h>
#include <asm/system.h>

struct timespec {
  ukern_field<time_t> tv_sec; /* read without a lock as part of an inode */
  ukern_field<long> tv_nsec;
};

struct timeval {
  time_t tv_sec;
  suseconds_t tv_usec;
};

#define MSEC_PER_SEC 1000L
#define USEC_PER_SEC 1000000L
#define NSEC_PER_SEC 1000000000L
#define NSEC_PER_USEC 1000L

static inline int timespec_equal(const struct timespec *a, const struct timespec *b) {
  return a->tv_sec == b->tv_sec && a->tv_nsec == b->tv_nsec;
}
static inline int timespec_compare(const struct timespec *a, const struct timespec *b) {
  if (a->tv_sec != b->tv_sec) return a->tv_sec < b->tv_sec ? -1 : 1;
  return (int)(a->tv_nsec - b->tv_nsec);
}

extern "C" {
struct timespec current_kernel_time(void);
void do_gettimeofday(struct timeval *tv);
void getnstimeofday(struct timespec *tv);
unsigned long get_seconds(void);
/* Seconds since 1970 of a UTC date: full year, month 1 to 12. */
unsigned long mktime(unsigned int year, unsigned int mon, unsigned int day, unsigned int hour,
                     unsigned int min, unsigned int sec);
/* Rounds down to a file system's granularity in nanoseconds. */
struct timespec timespec_trunc(struct timespec t, unsigned gran);
}

#define CURRENT_TIME (current_kernel_time())
#define CURRENT_TIME_SEC ((struct timespec){(time_t)get_seconds(), 0})

#endif
