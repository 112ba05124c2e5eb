/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A warning on standard error that may be due again and again: it is printed a few times in a
 * while, and how many more there were is said with the next one. One object for each kind; any
 * thread.
 */
#ifndef TARND_PROCESS_LIMITED_WARNING_H
#define TARND_PROCESS_LIMITED_WARNING_H

#include <chrono>
#include <mutex>
#include <string>

namespace tarnd {

class LimitedWarning {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kAtOnce = 10;
  static constexpr std::chrono::minutes kWhile{1};

  /* Prints "tarnd: TEXT" or counts it. */
  void print(const std::string &text);
  /* What print() would print at that time; empty when it only counts. */
  std::string line(const std::string &text, Clock::time_point now);

 private:
  std::mutex mutex_;
  Clock::time_point begun_;  // of the while that lasts; under mutex_, and so are these
  int printed_ = 0;          // in it
  unsigned long held_back_ = 0;
};

}  // namespace tarnd

#endif
