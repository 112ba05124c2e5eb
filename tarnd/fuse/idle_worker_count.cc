// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/idle_worker_count.h"

#include <algorithm>

namespace tarnd {

// A single program queues requests too: releases and forgets, for which it does not wait. They are
// queued in fewer than half of the samples, and keep a second worker busy in up to an eighth.
static constexpr int kStalled = IdleWorkerCount::kPeriod / 2;
static constexpr int kLow = IdleWorkerCount::kPeriod - IdleWorkerCount::kPeriod / 8;

void IdleWorkerCount::add(const Sample &sample) {
  const bool stalled = sample.queued && sample.idle == 0;
  const int slow = sample.busy + sample.idle - sample.available;
  if (stalled && sample.available == 0) {
    // A program that sleeps in the lower file system or waits for a daemon will do so again, and
    // every other request would wait for a substitute. That is worth a second worker even on one
    // processor.
    increase(std::max(max_, 2));
    start_period();
    return;
  }
  samples_++;
  stalled_ += stalled;
  low_ += slow == 0 && sample.busy + sample.queued < target_;
  if (samples_ == kPeriod) decide();
}

void IdleWorkerCount::decide() {
  if (stalled_ >= kStalled) {
    increase(max_);
  } else if (target_ == 1) {
    patience_ = std::max(patience_ / 2, 1);
  } else if (low_ >= kLow && ++low_periods_ >= patience_) {
    target_--;
  }
  start_period();
}

void IdleWorkerCount::increase(int max) {
  if (target_ >= max) return;
  target_++;
  low_periods_ = 0;
  patience_ = std::min(2 * patience_, kMaxPatience);
}

void IdleWorkerCount::start_period() {
  samples_ = stalled_ = low_ = 0;
}

}  // namespace tarnd
