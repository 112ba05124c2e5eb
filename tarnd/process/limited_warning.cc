// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/limited_warning.h"

#include <cstdio>

#include <fmt/format.h>

#include "base/print_error.h"
#include "base/text.h"

namespace tarnd {

std::string LimitedWarning::line(const std::string &text, Clock::time_point now) {
  const tarn::MutexLock lock(mutex_);
  if (printed_ == 0 || now - begun_ >= kInterval) {
    begun_ = now;
    printed_ = 0;
  }
  if (printed_ == kBurst) {
    suppressed_++;
    return {};
  }
  printed_++;
  std::string line = "tarnd: " + tarn::escape_controls(text);
  if (suppressed_ > 0) line += fmt::format(" (and {} like it before)", suppressed_);
  suppressed_ = 0;
  return line + '\n';
}

void LimitedWarning::print(const std::string &text) {
  tarn::print_error("{}", line(text, Clock::now()));
}

}  // namespace tarnd
