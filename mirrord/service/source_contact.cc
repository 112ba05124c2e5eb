// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/source_contact.h"

#include <algorithm>
#include <utility>

#include "mirrord/service/journal.h"
#include "mirrord/service/log_entries.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds kRound{500};
constexpr std::chrono::seconds kLearn{5}, kReport{2};
constexpr std::chrono::hours kLongestPause{1};

}  // namespace

SourceContact::~SourceContact() {
  stop();
}

void SourceContact::start() {
  thread_ = std::thread([this] { run(); });
}

void SourceContact::stop() {
  {
    MutexLock lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void SourceContact::request(const std::string &target, std::int64_t since, LogPosition from) {
  MutexLock lock(mutex_);
  wanted_ = Wanted{.target = target, .since = since, .from = from};
  hurry_ = true;
  changed_.notify_all();
}

void SourceContact::came(const LogEntry &entry, LogPosition position) {
  const auto kind = static_cast<EntryKind>(entry.kind);
  if (kind != EntryKind::kWalkBegin && kind != EntryKind::kWalkEnd) return;
  MutexLock lock(mutex_);
  if (!wanted_) return;
  if (kind == EntryKind::kWalkEnd) {
    const auto end = decode_walk_end(entry.payload);
    if (end && wanted_->walk == end->walk) wanted_.reset();
    return;
  }
  const auto begin = decode_walk_begin(entry.payload);
  const bool serves = begin && position >= wanted_->from && begin->since <= wanted_->since &&
                      (begin->target.empty() || begin->target == wanted_->target);
  if (serves) wanted_->walk = begin->walk;
}

std::optional<remote::AboutAnswer> SourceContact::source() const {
  MutexLock lock(mutex_);
  return source_;
}

void SourceContact::run() {
  MutexLock lock(mutex_);
  while (!stop_) {
    hurry_ = false;
    lock.unlock();
    Result<void> talked = learn();
    if (talked) talked = ask_for_walk();
    if (talked) talked = report();
    problem_.set(talked ? "" : talked.error().text);
    lock.lock();
    const auto end = Clock::now() + kRound;
    while (!stop_ && !hurry_ && changed_.wait_until(lock, end)) {
    }
  }
}

Result<void> SourceContact::learn() {
  if (learned_at_ != Clock::time_point{} && Clock::now() - learned_at_ < kLearn) return {};
  auto answer = conversation_.ask<remote::AboutAnswer>(remote::AboutQuestion{}, message_);
  if (!answer) {
    learned_at_ = {};  // whoever answers next may be another run
    return answer.error();
  }
  learned_at_ = Clock::now();
  MutexLock lock(mutex_);
  source_ = std::move(*answer);
  return {};
}

Result<void> SourceContact::ask_for_walk() {
  if (!options_.follows()) return {};
  remote::WalkQuestion question{options_.replica, 0};
  std::uint64_t run = 0;
  {
    MutexLock lock(mutex_);
    if (!wanted_ || !source_) return {};
    run = source_->run;
    const bool waits = wanted_->walk || Clock::now() < wanted_->again;
    if (wanted_->asked_of == run && waits) return {};
    // Before its first entry can come.
    if (wanted_->asked_of != run) wanted_->walk.reset();
    wanted_->asked_of = run;
    question.since = wanted_->since;
  }
  const auto asked = conversation_.ask<remote::WalkAnswer>(question, message_);
  if (!asked) return asked.error();
  MutexLock lock(mutex_);
  if (!wanted_ || wanted_->asked_of != run) return {};  // another one is wanted meanwhile
  wanted_->again = Clock::now() + wanted_->pause;
  wanted_->pause = std::min<Clock::duration>(2 * wanted_->pause, kLongestPause);
  return {};
}

Result<void> SourceContact::report() {
  if (Clock::now() - reported_at_ < kReport) return {};
  const auto question = options_.report();
  if (!question) return {};
  const auto reported = conversation_.ask<remote::ReportAnswer>(*question, message_);
  if (!reported) return reported.error();
  reported_at_ = Clock::now();
  return {};
}

}  // namespace tarn
