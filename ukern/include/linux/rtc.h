/* SPDX-License-Identifier: GPL-2.0 */
#ifndef _LINUX_RTC_H
#define _LINUX_RTC_H

/* A date in its parts; the user defines where each begins to count. */
struct rtc_time {
  int tm_sec;
  int tm_min;
  int tm_hour;
  int tm_mday;
  int tm_mon;
  int tm_year;
  int tm_wday;
  int tm_yday;
  int tm_isdst;
};

#endif
