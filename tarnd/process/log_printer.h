/* SPDX-License-Identifier: GPL-2.0 */
/* Prints the kernel log to standard error as it grows, on its own thread, until it is destroyed. */
#ifndef TARND_PROCESS_LOG_PRINTER_H
#define TARND_PROCESS_LOG_PRINTER_H

#include <atomic>
#include <thread>

namespace tarnd {

class LogPrinter {
 public:
  LogPrinter() = default;
  ~LogPrinter();
  LogPrinter(const LogPrinter &) = delete;
  LogPrinter &operator=(const LogPrinter &) = delete;

  void start();

 private:
  void print_lines();

  std::thread thread_;
  std::atomic<bool> stopping_ = false;
};

}  // namespace tarnd

#endif
