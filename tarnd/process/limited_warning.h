/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A rate-limited warning on standard error: prints a burst per interval and counts the others; the
 * next printed one tells their number. One object per kind of warning; any thread.
 */
#ifndef TARND_PROCESS_LIMITED_WARNING_H
#define TARND_PROCESS_LIMITED_WARNING_H

#include <chrono>
#include <string>

#include "base/mutex.h"

namespace tarnd {

class LimitedWarning {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kBurst = 10;
  static constexpr std::chrono::minutes kInterval{1};

  /* Prints "tarnd: TEXT" or counts it. */
  void print(const std::string &text);
  /* The line that print() would print at that time; empty if it only counts. */
  std::string line(const std::string &text, Clock::time_point now) EXCLUDES(mutex_);

 private:
  tarn::Mutex mutex_;
  Clock::time_point begun_ GUARDED_BY(mutex_);  // of the current interval
  int printed_ GUARDED_BY(mutex_) = 0;          // in this interval
  unsigned long suppressed_ GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnd

#endif
