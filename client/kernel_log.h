/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Gives the lines of a kernel's log numbers, although the log can only be read as a whole: what was
 * there the last time is found again, and what stands behind it is new. One thread. Keeps one copy
 * of the log.
 */
#ifndef TARN_CLIENT_KERNEL_LOG_H
#define TARN_CLIENT_KERNEL_LOG_H

#include <cstdint>
#include <string>
#include <string_view>

#include "client/control_link.h"

namespace tarn {

class KernelLog {
 public:
  /*
   * Takes the log as it is now: lines "<LEVEL>text". A first line that is cut and a last one that
   * has no end yet are left out. If nothing of the last time is left, one number is skipped.
   */
  void update(std::string_view buffer);

  /* The lines from number `first` on. */
  LogPart lines(std::uint64_t first) const;

 private:
  std::string text_;         /* whole lines */
  std::uint64_t first_ = 0;  /* the number of the first of them */
  std::uint64_t behind_ = 0; /* the number behind the last */
};

}  // namespace tarn

#endif
