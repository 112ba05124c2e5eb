// SPDX-License-Identifier: GPL-2.0
#include "mirrord/pace.h"

#include <algorithm>
#include <cerrno>
#include <thread>

namespace tarn {
namespace {

/* Shorter sleeps are saved up: they would be longer than asked for. */
constexpr std::chrono::milliseconds kShortest{5};
/* How soon a sleep notices the stop flag. */
constexpr std::chrono::milliseconds kLook{20};

}  // namespace

Result<void> Pace::spend(std::uint64_t bytes) {
  const auto stopped = [this] { return stop_ && stop_->load(std::memory_order_relaxed); };
  if (rate_ != 0) {
    // An idle time gives no credit.
    due_ = std::max(due_, Clock::now() - kShortest);
    const std::chrono::duration<double> cost(static_cast<double>(bytes) /
                                             static_cast<double>(rate_));
    due_ += std::chrono::duration_cast<Clock::duration>(cost);
    for (auto left = due_ - Clock::now(); left >= kShortest && !stopped();
         left = due_ - Clock::now())
      std::this_thread::sleep_for(std::min<Clock::duration>(left, kLook));
  }
  if (stopped()) return Error{-ECANCELED, "the copy was interrupted"};
  return {};
}

}  // namespace tarn
