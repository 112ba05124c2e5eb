// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/stream_intake.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/text.h"
#include "mirrord/config/state_directory.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds kFetch{200}, kPause{500}, kSlice{50};
/* Between two questions for what a hole lacks. */
constexpr std::chrono::seconds kAskPause{2}, kLongestAskPause{60};

}  // namespace

Result<std::unique_ptr<StreamIntake>> StreamIntake::open(Options options, Connection &connection,
                                                         Intake &intake) {
  std::unique_ptr<StreamIntake> made(new StreamIntake(std::move(options), connection, intake));
  if (const auto loaded = made->load(); !loaded) return loaded.error();
  return made;
}

StreamIntake::~StreamIntake() {
  stop();
}

/* A document that is missing or of another log only costs reading the whole log. */
Result<void> StreamIntake::load() {
  const Log &log = intake_.log();
  const auto document = read_document(options_.file);
  if (!document) return document.error();
  LogPosition from = log.first();
  try {
    if (*document && (*document)->at("log").get<std::string>() == to_string(log.epoch())) {
      MutexLock lock(mutex_);
      for (const json &joint : (*document)->at("joints")) {
        const auto epoch = parse_uuid(joint.at("epoch").get<std::string>());
        if (!epoch) throw json::other_error::create(501, "no epoch is named", &joint);
        joints_.push_back({count_field(joint, "at"), {*epoch, count_field(joint, "position")}});
      }
      from = std::max(from, count_field(**document, "read"));
    }
  } catch (const json::exception &error) {
    return Error{-EBADMSG, fmt::format("{}: {}: remove the file", printable(options_.file),
                                       escape_controls(error.what()))};
  }
  // Joints behind the end were lost with it. What Intake has declared lies behind found_end().
  const LogPosition end = intake_.found_end();
  {
    MutexLock lock(mutex_);
    while (!joints_.empty() && joints_.back().at >= end) joints_.pop_back();
  }
  if (from > end) from = log.first();
  if (const auto found = find_joints(from); !found) return found;
  const auto next = in_stream(end);
  consumer_.emplace(connection_, options_.replica, next);
  if (!next)
    joint_ = JoinEntry{.missing = !log.recovery().created, .reason = "the replica begins anew"};
  else if (!intake_.found_whole())
    joint_ = JoinEntry{.missing = false, .reason = "the log has gaps of its own"};
  return {};
}

Result<void> StreamIntake::find_joints(LogPosition from) {
  LogReader reader(intake_.log(), from);
  MutexLock lock(mutex_);
  for (;;) {
    const auto entry = reader.next();
    if (!entry) {
      if (entry.error().code != -EBADMSG && entry.error().code != -ESTALE) return entry.error();
      if (const auto skipped = reader.skip_damage(); !skipped) return skipped.error();
      continue;
    }
    if (!*entry || (*entry)->position >= intake_.found_end()) return {};
    if ((*entry)->kind != static_cast<std::uint8_t>(EntryKind::kJoin)) continue;
    const auto join = decode_join((*entry)->payload);
    if (!join) return join.error();
    if (joints_.empty() || joints_.back().at < (*entry)->position)
      joints_.push_back({(*entry)->position, {join->epoch, join->position}});
  }
}

/* A joint's entry leaves the log only when it was applied, which is when it is here. */
Result<void> StreamIntake::save() {
  json document = {{"log", to_string(intake_.log().epoch())}, {"joints", json::array()}};
  const LogPosition applied = options_.applied();
  {
    MutexLock lock(mutex_);
    while (joints_.size() > 1 && joints_[1].at < applied) joints_.pop_front();
    for (const Joint &joint : joints_)
      document["joints"].push_back({{"at", joint.at},
                                    {"epoch", to_string(joint.first.epoch)},
                                    {"position", joint.first.position}});
  }
  document["read"] = intake_.log().end();
  // The document must not be ahead of the log.
  if (const auto synced = intake_.log().sync(); !synced) return synced;
  if (const auto written = write_document(options_.file, document); !written) return written;
  unsaved_ = false;
  return {};
}

std::optional<StreamPosition> StreamIntake::in_stream(LogPosition position) const {
  MutexLock lock(mutex_);
  const auto behind =
      std::lower_bound(joints_.begin(), joints_.end(), position,
                       [](const Joint &joint, LogPosition at) { return joint.at < at; });
  if (behind == joints_.begin()) return std::nullopt;
  const Joint &joint = *std::prev(behind);
  StreamPosition place = joint.first;
  place.position += position - joint.at - 1;
  // Entries of the log's own before the next joint are not of the stream.
  if (behind != joints_.end() && behind->first.epoch == place.epoch)
    place.position = std::min(place.position, behind->first.position);
  return place;
}

std::optional<StreamPosition> StreamIntake::needed(LogPosition applied) const {
  {
    MutexLock lock(mutex_);
    if (joints_.empty()) return std::nullopt;
    auto first = std::prev(joints_.end());
    while (first != joints_.begin() && std::prev(first)->first.epoch == first->first.epoch) --first;
    if (applied <= first->at) return first->first;
  }
  return in_stream(applied);
}

void StreamIntake::start() {
  thread_ = std::thread([this] { run(); });
}

void StreamIntake::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void StreamIntake::pause() {
  for (auto left = kPause; left > kSlice && !stop_; left -= kSlice)
    std::this_thread::sleep_for(kSlice);
}

void StreamIntake::run() {
  while (!stop_) {
    step();
    acknowledge();
  }
  if (const auto saved = save(); !saved) say(Level::kError, options_.about, saved.error().text);
}

void StreamIntake::step() {
  if (unsaved_) {
    if (const auto saved = save(); !saved) {
      problem_.set(saved.error().text);
      return pause();
    }
  }
  const auto entries = consumer_->fetch(kFetch);
  if (entries && consumer_->awaits()) return ask_again();
  if (entries) {
    problem_.set("");
    follows_ = true;
    return append(*entries);
  }
  follows_ = false;
  if (entries.error().code == -ENODATA) return stop_at_hole();
  problem_.set(entries.error().text);
  pause();
}

/* What came of another log does not follow, and where nothing is known nothing can be asked for. */
void StreamIntake::stop_at_hole() {
  const StreamHole &hole = *consumer_->hole();
  if (hole.kind == StreamHole::Kind::kOtherEpoch || !consumer_->next()) return declare_hole();
  say(Level::kWarning, options_.about, hole.text + ": asking the source's host");
  consumer_->await();
  ask_pause_ = kAskPause;
  ask_at_ = {};
  ask_again();
}

/* What is asked for comes behind all that the stream has now, or what was asked for is lost too. */
void StreamIntake::ask_again() {
  using Clock = std::chrono::steady_clock;
  if (Clock::now() < ask_at_) return;
  const auto coming = options_.again(*consumer_->next(), consumer_->received());
  ask_at_ = Clock::now() + ask_pause_;
  ask_pause_ = std::min<Clock::duration>(2 * ask_pause_, kLongestAskPause);
  if (coming && !*coming) return declare_hole();
  problem_.set(consumer_->hole()->text + ": " +
               (coming ? "the source's host sends them again" : coming.error().text));
}

/* Before the process says so in the log, it would find the hole again. */
void StreamIntake::declare_hole() {
  const std::string text = consumer_->hole()->text;
  say(Level::kWarning, options_.about, "GAP: " + text);
  joint_ = JoinEntry{.missing = true, .reason = text};
  consumer_->go_on();
}

/* Until they are in the log: the stream has more room than this process. */
void StreamIntake::append(const std::vector<LogEntry> &entries) {
  for (const LogEntry &entry : entries) {
    for (;;) {
      Result<void> appended;
      if (joint_) appended = join({consumer_->next()->epoch, entry.position});
      if (appended) appended = append_one(entry);
      if (appended) break;
      problem_.set(appended.error().text);
      pause();
      acknowledge();
      if (stop_) return;
    }
  }
}

Result<void> StreamIntake::join(const StreamPosition &first) {
  joint_->epoch = first.epoch;
  joint_->position = first.position;
  const auto payload = encode(*joint_);
  const auto appended = intake_.append(EntryKind::kJoin, payload);
  if (!appended) return appended.error();
  {
    MutexLock lock(mutex_);
    joints_.push_back({*appended, first});
  }
  joint_.reset();
  unsaved_ = true;
  return {};
}

Result<void> StreamIntake::append_one(const LogEntry &entry) {
  LogEntry copy = entry;
  // Only this log's own joints are any here.
  if (copy.kind == static_cast<std::uint8_t>(EntryKind::kJoin)) copy.kind = 0;
  auto appended = intake_.copy(copy);
  std::vector<std::byte> gap;
  if (!appended && appended.error().code == -EMSGSIZE) {
    gap = encode(GapEntry{kSinceEver, appended.error().text});
    copy.kind = static_cast<std::uint8_t>(EntryKind::kGap);
    copy.payload = gap;
    appended = intake_.copy(copy);
  }
  if (!appended) return appended.error();
  options_.appended(copy, *appended);
  return {};
}

void StreamIntake::acknowledge() {
  const auto applied = in_stream(options_.applied());
  const auto &next = consumer_->next();
  if (!applied || !next || applied->epoch != next->epoch || applied->position == acknowledged_)
    return;
  acknowledged_ = applied->position;
  consumer_->acknowledge(acknowledged_);
}

}  // namespace tarn
