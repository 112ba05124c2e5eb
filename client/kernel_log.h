/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Numbers the lines of a kernel log that can only be read as a whole: finds the text of the last
 * read again; the lines after it are new. One thread. Keeps one copy of the log.
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
   * Takes the present log: lines "<LEVEL>text". A cut first line and an unfinished last one are
   * left out. If no line of the last read is left, one number is skipped.
   */
  void update(std::string_view buffer);

  /* The lines from number `first` on. */
  LogPart lines(std::uint64_t first) const;

 private:
  std::string text_;         /* whole lines */
  std::uint64_t first_ = 0;  /* the number of its first line */
  std::uint64_t behind_ = 0; /* the number after its last line */
};

}  // namespace tarn

#endif
