/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Limits how fast data is copied: the copying thread reports each piece and sleeps when it is ahead
 * of the rate. A stop flag of the owner ends the sleep and the copy. One thread, except that any
 * thread may set the flag.
 */
#ifndef TARN_MIRRORD_PACE_H
#define TARN_MIRRORD_PACE_H

#include <atomic>
#include <chrono>
#include <cstdint>

#include "base/result.h"

namespace tarn {

class Pace {
 public:
  /* 0: no limit. */
  void set_rate(std::uint64_t bytes_per_second) { rate_ = bytes_per_second; }
  /* Checked after each piece and while sleeping. Null: none. */
  void set_stop(const std::atomic<bool> *stop) { stop_ = stop; }

  /* Call it after a piece. Error: -ECANCELED if the flag is set. */
  Result<void> spend(std::uint64_t bytes);

 private:
  using Clock = std::chrono::steady_clock;

  std::uint64_t rate_ = 0;
  const std::atomic<bool> *stop_ = nullptr;
  Clock::time_point due_{}; /* when the bytes so far are to be done */
};

}  // namespace tarn

#endif
