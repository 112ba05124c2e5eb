// SPDX-License-Identifier: GPL-2.0
#include <linux/jiffies.h>
#include <linux/sched.h>
#include <linux/time.h>

#include "tests/harness/case.h"

CASE(time, jiffies_count_milliseconds) {
  const unsigned long start = jiffies;
  msleep(50);
  EXPECT_GE(jiffies - start, 50ul * HZ / 1000);
}

CASE(time, order_of_jiffies_survives_the_wrap) {
  EXPECT_TRUE(time_after(1UL, ~0UL));
  EXPECT_TRUE(time_before(~0UL, 1UL));
  EXPECT_TRUE(time_after_eq(5UL, 5UL));
  EXPECT_FALSE(time_after(5UL, 5UL));
}

CASE(time, units_convert) {
  EXPECT_EQ(msecs_to_jiffies(1500), 1500ul * HZ / 1000);
  EXPECT_EQ(jiffies_to_msecs(1500), 1500u * 1000 / HZ);
  EXPECT_EQ(msecs_to_jiffies(0xffffffffu), MAX_JIFFY_OFFSET);
  // Only the highest are without end. A part of a tick is a tick.
  EXPECT_EQ(msecs_to_jiffies(0x80000000u), (0x80000000ul * HZ + 999) / 1000);
  EXPECT_EQ(usecs_to_jiffies(0xffffffffu), MAX_JIFFY_OFFSET);
  EXPECT_EQ(usecs_to_jiffies(4000000000u), 4000ul * HZ);
  EXPECT_EQ(usecs_to_jiffies(1000000 / HZ + 1), 2ul);
  // A tick is what the timer can be set to, not exactly a part of a second.
  EXPECT_LT(TICK_NSEC, 1001000000ul / HZ);
  EXPECT_LT(999000000ul / HZ, TICK_NSEC);
  struct timespec ts = {2, 500000001};
  EXPECT_EQ(timespec_to_jiffies(&ts), 2500000001ul / TICK_NSEC + 1);
  jiffies_to_timespec(10 * HZ, &ts);
  EXPECT_EQ(ts.tv_sec * 1000000000ul + ts.tv_nsec, 10ul * HZ * TICK_NSEC);
}

CASE(time, clocks_agree_to_the_jiffy) {
  struct timeval tv;
  struct timespec before = current_kernel_time();
  do_gettimeofday(&tv);
  struct timespec now;
  getnstimeofday(&now);
  EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < USEC_PER_SEC);
  EXPECT_TRUE(now.tv_nsec >= 0 && now.tv_nsec < NSEC_PER_SEC);
  struct timespec middle = {tv.tv_sec, tv.tv_usec * NSEC_PER_USEC};
  EXPECT_LE(timespec_compare(&before, &middle), 0);
  EXPECT_LE(timespec_compare(&middle, &now), 0);
  EXPECT_LE((unsigned long)tv.tv_sec, get_seconds());
}

CASE(time, mktime_counts_seconds_since_1970) {
  EXPECT_EQ(mktime(1970, 1, 1, 0, 0, 0), 0ul);
  EXPECT_EQ(mktime(2000, 2, 29, 12, 0, 0), 951825600ul);
  EXPECT_EQ(mktime(2009, 12, 31, 23, 59, 59), 1262303999ul);
}

CASE(time, trunc_cuts_to_the_granularity) {
  struct timespec t = {10, 123456789};
  EXPECT_EQ(timespec_trunc(t, 1000000000).tv_nsec, 0l);
  EXPECT_EQ(timespec_trunc(t, 50000000).tv_nsec, 100000000l);
  EXPECT_EQ(timespec_trunc(t, 4000000000u / HZ).tv_nsec,
            123456789l / (4000000000l / HZ) * (4000000000l / HZ));
  // Times come from a clock that counts ticks: what is finer is left as it is.
  EXPECT_EQ(timespec_trunc(t, 1000000000u / HZ).tv_nsec, 123456789l);
  EXPECT_EQ(timespec_trunc(t, 1).tv_nsec, 123456789l);
}
