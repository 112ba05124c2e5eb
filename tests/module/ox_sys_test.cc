// SPDX-License-Identifier: GPL-2.0
#include "lib/ox_export.h"
#include "ox_thread.h"
#include "ox_types.h"
#include "tests/harness/case.h"

namespace {

struct rtc_time date_of(ox_s64_t seconds) {
  struct rtc_time tm;
  memset(&tm, 0xFF, sizeof(tm));
  gmtime_r(&seconds, &tm);
  return tm;
}

ox_s64_t mktime_of(int year, int month, int day, int hour, int minute, int second) {
  struct rtc_time tm = {};
  tm.tm_year = year;
  tm.tm_mon = month;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return ox_mktime(&tm);
}

}  // namespace

CASE(ox_sys, the_epoch_was_a_thursday) {
  const struct rtc_time tm = date_of(0);
  EXPECT_EQ(tm.tm_year, 70);
  EXPECT_EQ(tm.tm_mon, 0);
  EXPECT_EQ(tm.tm_mday, 1);
  EXPECT_EQ(tm.tm_hour, 0);
  EXPECT_EQ(tm.tm_min, 0);
  EXPECT_EQ(tm.tm_sec, 0);
  EXPECT_EQ(tm.tm_wday, 4);
  EXPECT_EQ(tm.tm_yday, 0);
  EXPECT_EQ(tm.tm_isdst, 0);
}

CASE(ox_sys, the_year_2000_has_a_leap_day) {
  const struct rtc_time tm = date_of(951782400);
  EXPECT_EQ(tm.tm_year, 100);
  EXPECT_EQ(tm.tm_mon, 1);
  EXPECT_EQ(tm.tm_mday, 29);
  EXPECT_EQ(tm.tm_yday, 59);
  EXPECT_EQ(tm.tm_wday, 2);
}

CASE(ox_sys, the_year_2100_has_none) {
  const struct rtc_time last = date_of(4107456000); /* 28 February 2100 */
  EXPECT_EQ(last.tm_mon, 1);
  EXPECT_EQ(last.tm_mday, 28);
  const struct rtc_time next = date_of(4107456000 + 86400);
  EXPECT_EQ(next.tm_mon, 2);
  EXPECT_EQ(next.tm_mday, 1);
}

CASE(ox_sys, the_last_second_of_a_year) {
  const struct rtc_time tm = date_of(1230767999); /* 31 December 2008, 23:59:59 */
  EXPECT_EQ(tm.tm_year, 108);
  EXPECT_EQ(tm.tm_mon, 11);
  EXPECT_EQ(tm.tm_mday, 31);
  EXPECT_EQ(tm.tm_yday, 365);
  EXPECT_EQ(tm.tm_hour, 23);
  EXPECT_EQ(tm.tm_min, 59);
  EXPECT_EQ(tm.tm_sec, 59);
}

CASE(ox_sys, dates_are_eight_hours_east) {
  EXPECT_EQ(mktime_of(1970, 1, 1, 8, 0, 0), 0);
  EXPECT_EQ(mktime_of(1970, 1, 1, 0, 0, 0), -28800000000);
  EXPECT_EQ(mktime_of(2000, 2, 29, 8, 0, 1), 951782401000000);
  EXPECT_EQ(mktime_of(2009, 1, 1, 7, 59, 59), 1230767999000000);
}

CASE(ox_sys, every_day_comes_back) {
  for (ox_s64_t day = 0; day < 60000; ++day) {
    struct rtc_time tm = date_of(day * 86400);
    tm.tm_year += 1900;
    tm.tm_mon += 1;
    tm.tm_hour = 8;
    REQUIRE_EQ(ox_mktime(&tm), day * 86400000000);
  }
}

CASE(ox_sys, the_clock_in_microseconds_runs) {
  const ox_time_t before = ox_current_time_us();
  struct timeval now;
  do_gettimeofday(&now);
  const ox_time_t after = ox_current_time_us();
  const ox_time_t us = now.tv_sec * 1000000LL + now.tv_usec;
  EXPECT_LE(before, us);
  EXPECT_LE(us, after);
  EXPECT_GT(before, 1500000000000000);
}

CASE(ox_sys, the_other_clock_counts_seconds_in_millions) {
  struct timespec low, high;
  ox_time_t value;
  do { /* a new second takes the value back */
    getnstimeofday(&low);
    value = ox_current_time_ns();
    getnstimeofday(&high);
  } while (low.tv_sec != high.tv_sec || low.tv_nsec < 1000000);
  EXPECT_LE(low.tv_sec * 1000000LL + low.tv_nsec, value);
  EXPECT_LE(value, high.tv_sec * 1000000LL + high.tv_nsec);
}

CASE(ox_sys, waiting_for_a_completion) {
  struct completion done;
  init_completion(&done);
  const unsigned long start = jiffies;
  EXPECT_EQ(ox_complete_timedwait(&done, 30), -ETIMEDOUT);
  EXPECT_GE(jiffies - start, 30ul);
  complete(&done);
  EXPECT_EQ(ox_complete_timedwait(&done, 0xFFFFFFFF), 0);
  EXPECT_EQ(ox_complete_timedwait(&done, 0), -ETIMEDOUT);
}

/* The longest time is a time like any other: it neither ends at once nor is an error. */
CASE(ox_sys, the_longest_wait_ends_by_completion) {
  static struct completion done;
  init_completion(&done);
  struct task_struct *later = kthread_run(
      [](void *) {
        set_current_state(TASK_UNINTERRUPTIBLE);
        schedule_timeout(100);
        complete(&done);
        return 0;
      },
      nullptr, "later");
  REQUIRE_TRUE(!IS_ERR(later));
  const unsigned long start = jiffies;
  EXPECT_EQ(ox_complete_timedwait(&done, 0xFFFFFFFF), 0);
  EXPECT_GE(jiffies - start, 50ul); /* not by what was left of an earlier one */
  EXPECT_EQ(ox_complete_timedwait(&done, 0), -ETIMEDOUT);
}

CASE(ox_sys, the_list_of_exports) {
  static const char *const expected[] = {
      "ox_debug_exit",      "ox_debug_init",      "ox_log",
      "ox_free_page",       "ox_alloc_page",      "ox_free",
      "ox_malloc",          "gmtime_r",           "ox_mktime",
      "ox_current_time_ns", "ox_current_time_us", "ox_complete_timedwait",
      "ox_thread_kill",     "ox_thread_create",   "ox_thread_destroy",
      "ox_thread_init",
  };
#define NAME_OF(name) #name,
#define ADDRESS_OF(name) reinterpret_cast<const void *>(&name),
  static const char *const names[] = {OX_EXPORTS(NAME_OF)};
  const void *const addresses[] = {OX_EXPORTS(ADDRESS_OF)};
  REQUIRE_EQ(ARRAY_SIZE(names), ARRAY_SIZE(expected));
  for (unsigned i = 0; i < ARRAY_SIZE(names); ++i) {
    EXPECT_STREQ(names[i], expected[i]);
    EXPECT_TRUE(addresses[i] != nullptr);
  }
}
