/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel in this process with the tarn module; runs while the object exists. There is at most
 * one. Its root directory is the host's.
 */
#ifndef TARND_PROCESS_KERNEL_H
#define TARND_PROCESS_KERNEL_H

#include <memory>

#include "base/result.h"

namespace tarnd {

class Kernel {
 public:
  static tarn::Result<std::unique_ptr<Kernel>> boot();
  ~Kernel() { stop(); }
  Kernel(const Kernel &) = delete;
  Kernel &operator=(const Kernel &) = delete;

  /* Unloads the module and shuts the kernel down. Nothing may be mounted, and no thread may act as
   * a task. Later calls do nothing. */
  void stop();

 private:
  Kernel() = default;

  bool running_ = true;
};

/* On a kernel panic, writes the report to standard error and the system log, then aborts. */
void install_panic_handler();

}  // namespace tarnd

#endif
