// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/log_printer.h"

#include <cstdio>

#include "base/print_error.h"
#include "ukern/door/uk_core.h"

namespace tarnd {

static constexpr unsigned kWaitMs = 200;

void LogPrinter::start() {
  thread_ = std::thread([this] { print_lines(); });
}

LogPrinter::~LogPrinter() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

void LogPrinter::print_lines() {
  char text[4096];
  uk_klog_line line;
  for (unsigned long long next = 0;;) {
    if (uk_klog_read(next, kWaitMs, &line, text, sizeof(text))) {
      tarn::print_error("<{}>{}\n", line.level, text);
      next = line.number + 1;
    } else if (stopping_) {
      return;
    }
  }
}

}  // namespace tarnd
