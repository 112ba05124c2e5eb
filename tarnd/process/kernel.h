/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel in this process, with the tarn module loaded, for as long as the object lives. There
 * is at most one. Its name space is the host's: "/" is the host's root directory.
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

  /* Unloads the module and shuts the kernel down: nothing may be mounted, no thread may act as a
   * task. Once. */
  void stop();

 private:
  Kernel() = default;

  bool running_ = true;
};

/* What a kernel panic does: the report goes to standard error and to the system log, then the
 * process aborts. */
void install_panic_handler();

}  // namespace tarnd

#endif
