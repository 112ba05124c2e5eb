// SPDX-License-Identifier: GPL-2.0
#include <linux/jiffies.h>
#include <linux/time.h>

#include "ukern/host/host.h"
#include "ukern/sched/task.h"

namespace {

constexpr long long kJiffyNs = NSEC_PER_SEC / HZ;

long long jiffies_start;

struct timespec to_timespec(long long ns) {
  return {.tv_sec = static_cast<time_t>(ns / NSEC_PER_SEC),
          .tv_nsec = static_cast<long>(ns % NSEC_PER_SEC)};
}

}  // namespace

extern "C" {

void ukern_time_reset(void) {
  __atomic_store_n(&jiffies_start, host_clock_ns(), __ATOMIC_RELAXED);
}

unsigned long ukern_jiffies(void) {
  const long long start = __atomic_load_n(&jiffies_start, __ATOMIC_RELAXED);
  return INITIAL_JIFFIES + static_cast<unsigned long>((host_clock_ns() - start) / kJiffyNs);
}

struct timespec current_kernel_time(void) {
  const long long now = host_wall_ns();
  return to_timespec(now - now % kJiffyNs);
}

void getnstimeofday(struct timespec *tv) {
  *tv = to_timespec(host_wall_ns());
}

void do_gettimeofday(struct timeval *tv) {
  const struct timespec now = to_timespec(host_wall_ns());
  tv->tv_sec = now.tv_sec;
  tv->tv_usec = now.tv_nsec / NSEC_PER_USEC;
}

unsigned long get_seconds(void) {
  return static_cast<unsigned long>(host_wall_ns() / NSEC_PER_SEC);
}

// Days are counted from March on, so that the leap day is the last of its year.
unsigned long mktime(unsigned int year, unsigned int mon, unsigned int day, unsigned int hour,
                     unsigned int min, unsigned int sec) {
  const unsigned int shifted_year = mon > 2 ? year : year - 1;
  const unsigned int month_from_march = mon > 2 ? mon - 2 : mon + 10;
  const unsigned long leap_days = shifted_year / 4 - shifted_year / 100 + shifted_year / 400;
  const unsigned long days =
      leap_days + 367 * month_from_march / 12 + day + 365UL * shifted_year - 719499;
  return ((days * 24 + hour) * 60 + min) * 60 + sec;
}

// current_kernel_time is in whole jiffies already.
struct timespec timespec_trunc(struct timespec t, unsigned gran) {
  if (gran > kJiffyNs) t.tv_nsec -= t.tv_nsec % gran;
  return t;
}
}
