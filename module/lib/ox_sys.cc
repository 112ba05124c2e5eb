// SPDX-License-Identifier: GPL-2.0
#include "ox_types.h"

namespace {

const int kDaySeconds = 86400;
const ox_s64_t kUsPerSecond = 1000000;
/* ox_mktime takes dates in the zone eight hours east of UTC. */
const ox_s64_t kZoneUs = 8 * 3600 * kUsPerSecond;
/* The day formula's result for 1 January 1970, in seconds. */
const ox_s64_t kEpochSeconds = 719499LL * kDaySeconds;

const int yeartab[2][12] = {{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                            {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};

bool leap_year(ox_u32_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

}  // namespace

struct rtc_time *gmtime_r(const ox_s64_t *seconds, struct rtc_time *tm) {
  ox_u32_t days = static_cast<ox_u32_t>(*seconds / kDaySeconds);
  const int rest = static_cast<int>(*seconds % kDaySeconds);
  tm->tm_sec = rest % 60;
  tm->tm_hour = rest / 3600;
  tm->tm_min = rest % 3600 / 60;
  tm->tm_wday = (days + 4) % 7; /* 1 January 1970 was a Thursday */

  ox_u32_t year = 1970;
  for (ox_u32_t length; days >= (length = leap_year(year) ? 366 : 365); ++year) days -= length;
  tm->tm_yday = static_cast<int>(days);
  tm->tm_year = static_cast<int>(year - 1900);

  const int *const months = yeartab[leap_year(year)];
  int month = 0;
  for (; days >= static_cast<ox_u32_t>(months[month]); ++month) days -= months[month];
  tm->tm_mon = month;
  tm->tm_mday = static_cast<int>(days) + 1;
  tm->tm_isdst = 0;
  return tm;
}

ox_s64_t ox_mktime(const struct rtc_time *tm) {
  /* Counted from March, so that the leap day is the last of its year. */
  ox_u32_t month = static_cast<ox_u32_t>(tm->tm_mon) - 2;
  ox_u32_t year = static_cast<ox_u32_t>(tm->tm_year);
  if (static_cast<ox_s32_t>(month) < 1) {
    month += 12;
    year -= 1;
  }
  const ox_u64_t days = static_cast<ox_u64_t>(year / 4) - year / 100 + year / 400 +
                        367 * month / 12 + static_cast<ox_u32_t>(tm->tm_mday) +
                        static_cast<ox_u64_t>(year) * 365;
  const ox_u64_t seconds =
      ((days * 24 + static_cast<ox_u32_t>(tm->tm_hour)) * 60 + static_cast<ox_u32_t>(tm->tm_min)) *
          60 +
      static_cast<ox_u32_t>(tm->tm_sec);
  return (static_cast<ox_s64_t>(seconds) - kEpochSeconds) * kUsPerSecond - kZoneUs;
}

ox_time_t ox_current_time_us(void) {
  struct timeval now;
  do_gettimeofday(&now);
  return now.tv_sec * kUsPerSecond + now.tv_usec;
}

ox_time_t ox_current_time_ns(void) {
  struct timespec now;
  getnstimeofday(&now);
  return now.tv_sec * kUsPerSecond + now.tv_nsec;
}

int ox_complete_timedwait(struct completion *done, ox_u32_t milliseconds) {
  return wait_for_completion_timeout(done, msecs_to_jiffies(milliseconds)) ? 0 : -ETIMEDOUT;
}
