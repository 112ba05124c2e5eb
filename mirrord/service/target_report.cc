// SPDX-License-Identifier: GPL-2.0
// What others see of a target and ask of it.
#include <cerrno>

#include <fmt/format.h>

#include "mirrord/file_status.h"
#include "mirrord/service/target.h"

namespace tarn {
namespace {

/* How long a request may take to be noticed. */
constexpr std::chrono::seconds kTakeTime{10};

}  // namespace

void Target::set_phase(Phase phase, const std::string &error) {
  MutexLock lock(mutex_);
  const bool recovered = phase == Phase::kRunning && phase_ != Phase::kRunning;
  if (recovered || !error.empty()) error_ = error;
  phase_ = phase;
  changed_.notify_all();
}

void Target::publish(std::int64_t entry_time_ns) {
  published_at_ = Clock::now();
  MutexLock lock(mutex_);
  shown_ = state_;
  shown_.position = position_;
  if (entry_time_ns != 0) entry_time_ns_ = entry_time_ns;
}

TargetReport Target::report() const {
  const Log &log = intake_.log();
  const bool marked = intake_.marked();
  MutexLock lock(mutex_);
  TargetReport report;
  report.name = options_.name;
  report.directory = options_.directory;
  report.last_error = error_;
  report.position = shown_.position;
  const LogPosition end = log.end();
  const bool known = shown_.position != 0;
  report.lag_entries = known && end > shown_.position ? end - shown_.position : 0;
  report.lag_bytes = report.lag_entries != 0 ? log.bytes_after(shown_.position) : 0;
  if (report.lag_entries != 0 && entry_time_ns_ != 0)
    report.lag_seconds = std::max(0.0, static_cast<double>(log.now_ns() - entry_time_ns_) / 1e9);
  report.applied = shown_.applied;
  report.failures = shown_.failures;
  report.gaps = shown_.gaps;
  report.skipped = shown_.skipped;
  report.progress = progress_;
  report.seconds_left = seconds_left_;
  report.bytes_per_second = bytes_per_second_;
  if (paused_)
    report.state = "paused";
  else if (phase_ == Phase::kAway)
    report.state = "away";
  else if (phase_ == Phase::kStarting)
    report.state = "starting";
  else if (phase_ == Phase::kHeld)
    report.state = "held";
  else if (shown_.missing_since)
    report.state = *shown_.missing_since == kSinceEver ? "copying" : "healing";
  else if (report.lag_entries != 0 || !marked || shown_.gaps != 0)
    report.state = "following";
  else
    report.state = "equal";
  return report;
}

/* Until the thread has reset the request. */
Result<void> Target::until_taken(bool Target::*request) {
  const auto end = Clock::now() + kTakeTime;
  MutexLock lock(mutex_);
  while (this->*request && !ended_) {
    if (changed_.wait_until(lock, end)) continue;
    return Error{-ETIMEDOUT, fmt::format("{} does so when the entry that it is applying is done: "
                                         "'mirrord status' shows it",
                                         about())};
  }
  if (this->*request) return Error{-EIO, about() + " does not run"};
  return request_error_ ? Result<void>(*request_error_) : Result<void>();
}

Result<void> Target::pause() {
  {
    MutexLock lock(mutex_);
    if (paused_ && !request_error_) return {};
    paused_ = pause_changed_ = true;
    changed_.notify_all();
  }
  intake_.log().wake();
  return until_taken(&Target::pause_changed_);
}

Result<void> Target::resume() {
  {
    MutexLock lock(mutex_);
    if (!paused_ && !request_error_) return {};
    paused_ = false;
    pause_changed_ = true;
    changed_.notify_all();
  }
  return until_taken(&Target::pause_changed_);
}

Result<void> Target::resync() {
  {
    MutexLock lock(mutex_);
    resync_ = true;
    mark_ = 0;
    changed_.notify_all();
  }
  intake_.log().wake();
  return until_taken(&Target::resync_);
}

Result<void> Target::between_entries(const std::function<void()> &work) {
  Work mine{work};
  MutexLock lock(mutex_);
  while (work_ && !ended_) changed_.wait(lock);
  if (ended_) return Error{-EIO, about() + " is ending"};
  work_ = &mine;
  changed_.notify_all();
  lock.unlock();
  intake_.log().wake();
  lock.lock();
  while (work_ == &mine && !ended_) changed_.wait(lock);
  if (work_ == &mine) {
    work_ = nullptr;
    return Error{-EIO, about() + " is ending"};
  }
  if (mine.done) return {};
  return Error{-ENODEV, about() + " is away: 'mirrord status' says why"};
}

Result<std::string> Target::skip() {
  const auto end = Clock::now() + kTakeTime;
  MutexLock lock(mutex_);
  // It may just be tried again.
  while (held_entry_.empty() && phase_ == Phase::kHeld && changed_.wait_until(lock, end)) {
  }
  if (held_entry_.empty())
    return Error{-ENOENT, fmt::format("{} is not held: nothing is skipped", about())};
  skip_ = true;
  changed_.notify_all();
  return held_entry_;
}

Result<void> Target::wait(std::uint64_t mark, Clock::time_point end) {
  MutexLock lock(mutex_);
  for (;;) {
    if (mark_ >= mark && !resync_) return {};
    if (stop_) return Error{-EIO, "mirrord is ending"};
    if (paused_) return Error{-EIO, about() + " is paused: 'mirrord resume' lets it go on"};
    if (phase_ == Phase::kAway) return Error{-EIO, about() + " is away: " + error_};
    if (phase_ == Phase::kHeld) return Error{-EIO, about() + " is held: " + error_};
    if (!changed_.wait_until(lock, end))
      return Error{-ETIMEDOUT, about() + " is not equal yet: 'mirrord status' shows how far it is"};
  }
}

}  // namespace tarn
