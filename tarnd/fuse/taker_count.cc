// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/taker_count.h"

#include <algorithm>

namespace tarnd {

// A single program makes requests wait as well, those that it does not wait for itself: what it
// closes and what the host forgets. That is fewer than half of the looks, and with one worker too
// many it needs both at up to an eighth.
static constexpr int kHeldUp = TakerCount::kLooks / 2;
static constexpr int kSpare = TakerCount::kLooks - TakerCount::kLooks / 8;

void TakerCount::saw(const Look &look) {
  const bool held_up = look.waiting && look.free == 0;
  const int slow = look.serving + look.free - look.able;
  if (held_up && look.able == 0) {
    // Whoever sleeps in the lower file system or waits for a daemon will do so again, and each time
    // all others would wait for a substitute: that is worth a second worker on one processor.
    raise(std::max(most_, 2));
    begin();
    return;
  }
  looks_++;
  held_up_ += held_up;
  spare_ += slow == 0 && look.serving + look.waiting < wanted_;
  if (looks_ == kLooks) judge();
}

void TakerCount::judge() {
  if (held_up_ >= kHeldUp) {
    raise(most_);
  } else if (wanted_ == 1) {
    patience_ = std::max(patience_ / 2, 1);
  } else if (spare_ >= kSpare && ++too_many_ >= patience_) {
    wanted_--;
  }
  begin();
}

void TakerCount::raise(int most) {
  if (wanted_ >= most) return;
  wanted_++;
  too_many_ = 0;
  patience_ = std::min(2 * patience_, kMaxPatience);
}

void TakerCount::begin() {
  looks_ = held_up_ = spare_ = 0;
}

}  // namespace tarnd
