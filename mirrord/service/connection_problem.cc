// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/connection_problem.h"

#include "mirrord/service/journal.h"

namespace tarn {
namespace {

constexpr std::chrono::minutes kSayAgain{1};

}  // namespace

std::string ConnectionProblem::text() const {
  MutexLock lock(mutex_);
  return text_;
}

void ConnectionProblem::set(const std::string &text) {
  {
    MutexLock lock(mutex_);
    text_ = text;
    if (text == said_) return;
    const bool another = !text.empty() && !said_.empty();
    const auto now = std::chrono::steady_clock::now();
    const bool said = said_at_ != std::chrono::steady_clock::time_point{};
    if (another && said && now - said_at_ < kSayAgain) return;
    said_ = text;
    said_at_ = now;
  }
  say(text.empty() ? Level::kNotice : Level::kWarning, about_, text.empty() ? gone_ : text);
}

}  // namespace tarn
