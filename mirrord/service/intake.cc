// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/intake.h"

#include <cerrno>
#include <chrono>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "mirrord/config/state_directory.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

using Json = nlohmann::json;

constexpr std::chrono::milliseconds kWriteInterval{500};

std::string without_clock(Json document) {
  document.erase("clock");
  return document.dump();
}

}  // namespace

Result<std::unique_ptr<Intake>> Intake::open(Options options) {
  std::unique_ptr<Intake> intake(new Intake(std::move(options)));
  auto log = Log::open(intake->options_.directory + "/log", {.limit = intake->options_.log_limit});
  if (!log) return log.error();
  intake->log_ = std::move(*log);
  intake->found_end_ = intake->log_->end();
  if (const auto loaded = intake->load(); !loaded) return loaded.error();
  intake->writer_ = std::thread([raw = intake.get()] { raw->write_behind(); });
  return intake;
}

Intake::~Intake() {
  if (!writer_.joinable()) return;
  {
    MutexLock lock(mutex_);
    stop_ = true;
    stop_changed_.notify_all();
  }
  writer_.join();
  if (const auto saved = save(); !saved) say(Level::kError, options_.name, saved.error().text);
}

/* A document that is missing or belongs to another log only costs reading the whole log. */
Result<void> Intake::load() {
  const std::string file = options_.directory + "/received.json";
  const auto document = read_document(file);
  if (!document) return document.error();
  LogPosition from = 0;
  bool other_rule = false;
  {
    MutexLock lock(mutex_);
    clock_ = read_clock();
  }
  if (*document) {
    try {
      {
        const MutexLock one_at_a_time(save_mutex_);
        written_ = without_clock(**document);
      }
      from = read_document_fields(**document);
      other_rule = (*document)->value("rule_text", options_.rule_text) != options_.rule_text;
    } catch (const Json::exception &error) {
      return Error{-EBADMSG, fmt::format("{}: {}: remove the file", file, error.what())};
    }
  } else {
    const auto made = make_uuid();
    if (!made) return made.error();
    rule_ = *made;
  }
  const bool end_lost = from > log_->end();
  if (const auto read = read_on(std::clamp(from, log_->first(), log_->end())); !read) return read;
  {
    MutexLock lock(mutex_);
    watch_clock_locked();
  }
  const Log::Recovery &recovery = log_->recovery();
  if (!recovery.damage.empty())
    declare(kSinceEver, "the log is damaged: " + recovery.damage);
  else if (end_lost)
    declare(kSinceEver, "the log has lost its end");
  else if (other_rule)
    declare(kSinceEver, "the source's directory or excludes are others than before");
  else if (recovery.bytes_cut != 0)
    gap(Missing::kSinceLastRecord, "the log's end was not written whole");
  {
    MutexLock lock(mutex_);
    (void)append_pending_gap_locked(Room::kWaitFor);  // or the log's thread does
  }
  // A rule that nobody knows after a power cut would be a rule that nobody deletes.
  return save();
}

/* Returns where the log goes on. Throws Json::exception. */
LogPosition Intake::read_document_fields(const Json &json) {
  MutexLock lock(mutex_);
  const auto rule = parse_uuid(json.at("rule").get<std::string>());
  if (!rule) throw Json::other_error::create(501, "no rule is named", &json);
  rule_ = *rule;
  received_.counts.gaps = count_field(json, "gaps");
  received_.counts.last_gap = json.at("last_gap");
  received_.last_mark = count_field(json, "last_mark");
  if (json.contains("pending_gap"))
    pending_gap_ = GapEntry{time_field(json.at("pending_gap"), "since"), json.at("last_gap")};
  if (json.at("log").get<std::string>() != to_string(log_->epoch())) return 0;
  marked_ = json.at("marked");
  received_.counts.logged = count_field(json, "logged");
  received_.counts.captured = count_field(json, "captured");
  received_.last_record = time_field(json, "last_record_us");
  if (json.contains("clock")) {
    received_.last_record_at = count_field(json, "last_record_at");
    received_.set_back_at = count_field(json, "clock_set_back_at");
    received_.set_backs = count_field(json, "clock_set_backs");
    const Json &clock = json.at("clock");
    clock_ = {time_field(clock, "wall"), time_field(clock, "ahead"), clock.at("boot")};
  }
  if (json.contains("generation"))
    received_.position =
        Sequencer::Position{static_cast<std::uint32_t>(count_field(json, "generation")),
                            static_cast<std::uint32_t>(count_field(json, "last"))};
  return count_field(json, "position");
}

Result<void> Intake::read_on(LogPosition from) {
  LogReader reader(*log_, from);
  MutexLock lock(mutex_);
  for (;;) {
    const auto entry = reader.next();
    if (!entry) {
      if (entry.error().code != -EBADMSG && entry.error().code != -ESTALE) return entry.error();
      if (const auto skipped = reader.skip_damage(); !skipped) return skipped.error();
      continue;
    }
    if (!*entry) return {};
    note_locked(**entry, (*entry)->position);
  }
}

/* An entry that the log has at this position. */
void Intake::note_locked(const LogEntry &entry, LogPosition position) {
  marked_ = false;
  switch (static_cast<EntryKind>(entry.kind)) {
    case EntryKind::kRecord:
      if (const auto message = decode(entry.payload);
          message && std::holds_alternative<Record>(*message))
        take_locked(std::get<Record>(*message), position);
      break;
    case EntryKind::kGap:
      read_gap(entry.payload);
      break;
    case EntryKind::kMark:
      if (const auto mark = decode_mark(entry.payload))
        received_.last_mark = std::max(received_.last_mark, mark->number);
      marked_ = true;
      break;
    default:
      break;
  }
}

/* The gap that waited for room was appended before anything else, and is counted. */
void Intake::read_gap(Bytes payload) {
  if (pending_gap_) {
    pending_gap_.reset();
    return;
  }
  ++received_.counts.gaps;
  if (const auto gap = decode_gap(payload)) received_.counts.last_gap = gap->reason;
}

/* Records that came late have lower numbers. */
void Intake::take_locked(const Record &record, LogPosition log_position) {
  auto &position = received_.position;
  const std::uint32_t last = record.last() ? record.wseq : record.wseq - 1;
  if (!position || position->generation != record.generation ||
      static_cast<std::int32_t>(last - position->last) > 0)
    position = Sequencer::Position{record.generation, last};
  received_.counts.captured = position->last;
  received_.last_record = static_cast<std::int64_t>(record.ts);
  received_.last_record_at = log_position;
  ++received_.counts.logged;
}

std::optional<Sequencer::Position> Intake::received() const {
  MutexLock lock(mutex_);
  return received_.position;
}

Result<LogPosition> Intake::append_locked(EntryKind kind, Bytes payload) {
  for (;;) {
    auto appended = log_->append(static_cast<std::uint8_t>(kind), std::span(&payload, 1));
    if (appended || appended.error().code != -ENOSPC || !make_room_ || !make_room_())
      return appended;
  }
}

/* While a gap waits for room, nothing else is appended: it would seem to be complete. */
bool Intake::append_pending_gap_locked(Room room) {
  if (!pending_gap_) return true;
  const auto payload = encode(*pending_gap_);
  const Bytes bytes = payload;
  const auto appended =
      room == Room::kMake
          ? append_locked(EntryKind::kGap, bytes)
          : log_->append(static_cast<std::uint8_t>(EntryKind::kGap), std::span(&bytes, 1));
  if (!appended) return false;
  say(Level::kWarning, options_.name, "GAP: " + pending_gap_->reason);
  pending_gap_.reset();
  marked_ = false;
  return true;
}

/* What is appended for a while after the clock was set may be of before. */
void Intake::watch_clock_locked() {
  const ClockReading now = read_clock();
  if (was_set_back(clock_, now)) {
    set_back_ = std::chrono::steady_clock::now();
    clock_ = now;
    ++received_.set_backs;
    if (pending_gap_) pending_gap_->since = kSinceEver;
    say(Level::kNotice, options_.name, "the clock was set back");
  }
  if (set_back_ != std::chrono::steady_clock::time_point{} &&
      std::chrono::steady_clock::now() - set_back_ < kLateRecords)
    received_.set_back_at = log_->end();
  if (clock_.boot != now.boot || clock_.ahead < now.ahead) clock_ = now;
  clock_.wall = now.wall;
}

std::uint64_t Intake::clock_set_backs() {
  MutexLock lock(mutex_);
  watch_clock_locked();
  return received_.set_backs;
}

LogPosition Intake::clock_set_back_at() const {
  MutexLock lock(mutex_);
  return received_.set_back_at;
}

void Intake::record(const Record &record, Bytes packet) {
  MutexLock lock(mutex_);
  watch_clock_locked();
  const bool open = append_pending_gap_locked();
  Result<LogPosition> appended = Error{};
  if (open) appended = append_locked(EntryKind::kRecord, packet);
  const bool lost = !open || !appended;
  if (!lost) marked_ = false;
  // A lost record is not taken: should this process end before the gap is in the log, the hole in
  // the numbers tells the next one.
  if (!lost) {
    take_locked(record, *appended);
  } else if (!pending_gap_) {
    ++received_.counts.gaps;
    received_.counts.last_gap = "the log has no room: " + appended.error().text;
    pending_gap_ =
        GapEntry{missing_since_locked(Missing::kSinceLastRecord), received_.counts.last_gap};
    say(Level::kError, options_.name, "records are lost: " + received_.counts.last_gap);
  }
}

/* If the clock was set meanwhile, times do not tell what has changed since. */
std::int64_t Intake::missing_since_locked(Missing missing) const {
  constexpr std::int64_t kClockSlackUs = 1'000'000;
  const std::int64_t last = received_.last_record;
  const bool set_back =
      received_.last_record_at <= received_.set_back_at || last > now_us() + kClockSlackUs;
  if (missing == Missing::kEverything || last == 0 || set_back) return kSinceEver;
  return last - kLateRecords.count();
}

void Intake::declare(std::int64_t since, const std::string &reason) {
  MutexLock lock(mutex_);
  if (!pending_gap_) {
    ++received_.counts.gaps;
    received_.counts.last_gap = reason;
    pending_gap_ = GapEntry{since, reason};
  }
  pending_gap_->since = std::min(pending_gap_->since, since);
  if (!append_pending_gap_locked())
    say(Level::kError, options_.name, "a gap cannot be logged yet: " + reason);
}

void Intake::gap(Missing missing, const std::string &reason) {
  std::int64_t since = kSinceEver;
  {
    MutexLock lock(mutex_);
    watch_clock_locked();
    since = missing_since_locked(missing);
  }
  declare(since, reason);
}

bool Intake::mark(const MarkEntry &entry) {
  MutexLock lock(mutex_);
  if (!append_pending_gap_locked()) return false;
  const auto payload = encode(entry);
  if (!append_locked(EntryKind::kMark, payload)) return false;
  received_.last_mark = entry.number;
  marked_ = true;
  return true;
}

Result<LogPosition> Intake::append(EntryKind kind, Bytes payload) {
  MutexLock lock(mutex_);
  if (!append_pending_gap_locked()) return Error{-ENOSPC, "the log has no room"};
  marked_ = false;
  return append_locked(kind, payload);
}

Result<LogPosition> Intake::copy(const LogEntry &entry) {
  MutexLock lock(mutex_);
  if (!append_pending_gap_locked()) return Error{-ENOSPC, "the log has no room"};
  auto appended = append_locked(static_cast<EntryKind>(entry.kind), entry.payload);
  if (appended) note_locked(entry, *appended);
  return appended;
}

bool Intake::found_whole() const {
  MutexLock lock(mutex_);
  return !pending_gap_ && log_->recovery().damage.empty() && log_->end() == found_end_;
}

bool Intake::marked() const {
  MutexLock lock(mutex_);
  return marked_ && !pending_gap_;
}

std::uint64_t Intake::last_mark() const {
  MutexLock lock(mutex_);
  return received_.last_mark;
}

Intake::Counts Intake::counts() const {
  MutexLock lock(mutex_);
  return received_.counts;
}

Result<void> Intake::save() {
  const MutexLock one_at_a_time(save_mutex_);
  Json json;
  {
    MutexLock lock(mutex_);
    json = {{"rule", to_string(rule_)},
            {"log", to_string(log_->epoch())},
            {"position", log_->end()},
            {"marked", marked_},
            {"logged", received_.counts.logged},
            {"captured", received_.counts.captured},
            {"gaps", received_.counts.gaps},
            {"last_gap", received_.counts.last_gap},
            {"last_mark", received_.last_mark},
            {"last_record_us", received_.last_record},
            {"rule_text", options_.rule_text},
            {"last_record_at", received_.last_record_at},
            {"clock_set_back_at", received_.set_back_at},
            {"clock_set_backs", received_.set_backs}};
    json["clock"] = {{"wall", clock_.wall}, {"ahead", clock_.ahead}, {"boot", clock_.boot}};
    if (received_.position) {
      json["generation"] = received_.position->generation;
      json["last"] = received_.position->last;
    }
    if (pending_gap_) json["pending_gap"] = {{"since", pending_gap_->since}};
  }
  if (const auto synced = log_->sync(); !synced) return synced;
  const std::string all_but_clock = without_clock(json);
  if (all_but_clock == written_) return {};  // an earlier time does as well
  auto written = write_document(options_.directory + "/received.json", json);
  if (written) written_ = all_but_clock;
  return written;
}

/* Also tries whether there is room for the gap now: no record may follow for long. It makes no room
 * itself: that is for those who append, and no concern of targets that are being closed. */
void Intake::write_behind() {
  LogPosition saved = 0;
  bool saved_gap = false;
  MutexLock lock(mutex_);
  while (!stop_) {
    stop_changed_.wait_for(lock, kWriteInterval);
    if (stop_) return;
    watch_clock_locked();
    (void)append_pending_gap_locked(Room::kWaitFor);
    const LogPosition end = log_->end();
    const bool gap = pending_gap_.has_value();
    if (end == saved && gap == saved_gap) continue;
    lock.unlock();
    const auto written = save();
    if (!written && save_error_ != written.error().text)
      say(Level::kError, options_.name, written.error().text);
    save_error_ = written ? "" : written.error().text;
    if (written) saved = end, saved_gap = gap;
    lock.lock();
  }
}

}  // namespace tarn
