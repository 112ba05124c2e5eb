// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/stream_target.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/text.h"
#include "mirrord/config/names.h"
#include "mirrord/config/state_directory.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

/* A replica that has not reported for so long is shown as away. */
constexpr std::chrono::seconds kSilence{60};
constexpr milliseconds kWaitSlice{20};
/* Reports come from other hosts: no list without an end. */
constexpr std::size_t kReplicasMax = 1000;

/* Nothing: it is no position. */
std::optional<StreamPosition> parse_position(const json &replica) {
  const auto epoch = replica.find("epoch"), position = replica.find("position");
  if (epoch == replica.end() || !epoch->is_string()) return std::nullopt;
  if (position == replica.end() || !position->is_number_unsigned()) return std::nullopt;
  const auto uuid = parse_uuid(epoch->get_ref<const std::string &>());
  if (!uuid) return std::nullopt;
  return StreamPosition{*uuid, position->get<LogPosition>()};
}

}  // namespace

Result<std::optional<LogEntry>> DurableEntries::read(LogPosition position) {
  position = std::max(position, log_.first());
  if (last_ && last_->position == position) return last_;
  if (position >= log_.durable_end()) {
    if (position >= log_.end()) return std::optional<LogEntry>();
    if (const auto synced = log_.sync(); !synced) return synced.error();
  }
  last_.reset();
  if (!reader_ || reader_->position() != position) reader_.emplace(log_, position);
  for (;;) {
    const auto entry = reader_->next();
    if (entry) {
      if (!*entry || (*entry)->position >= log_.durable_end()) {
        reader_.reset();
        return std::optional<LogEntry>();
      }
      last_ = *entry;
      return last_;
    }
    if (entry.error().code != -EBADMSG && entry.error().code != -ESTALE) return entry.error();
    say(Level::kError, about_, entry.error().text);
    if (const auto next = reader_->skip_damage(); !next) return next.error();
  }
}

void DurableEntries::wait(LogPosition end, milliseconds time) {
  (void)log_.wait(end, time);
}

StreamTarget::StreamTarget(Options options, Log &log)
    : options_(std::move(options)),
      log_(log),
      entries_(log, about()),
      connection_(options_.stream, "mirrord " + options_.source) {}

StreamTarget::~StreamTarget() {
  stop(Clock::now());
}

Result<std::unique_ptr<StreamTarget>> StreamTarget::open(Options options, Log &log) {
  std::unique_ptr<StreamTarget> target(new StreamTarget(std::move(options), log));
  if (const auto loaded = target->load(); !loaded) return loaded.error();
  target->make_publisher();
  return target;
}

Result<void> StreamTarget::load() {
  const auto document = read_document(options_.state_file);
  if (!document) return document.error();
  if (!*document) return {};
  const Error bad{-EBADMSG, fmt::format("{} cannot be used: remove it; replicas are known again "
                                        "when they report",
                                        printable(options_.state_file))};
  const json &state = **document;
  if (!state.is_object() || !state.contains("run") || !state.contains("replicas")) return bad;
  const json &run = state["run"], &replicas = state["replicas"];
  if (!run.is_number_unsigned() || !replicas.is_object()) return bad;
  if (run.get<std::uint64_t>() > std::numeric_limits<std::uint32_t>::max()) return bad;
  MutexLock lock(mutex_);
  run_ = run.get<std::uint32_t>();
  for (const auto &[name, replica] : replicas.items()) {
    const auto position = parse_position(replica);
    if (!position || !good_config_name(name)) return bad;
    replicas_[name].state = {.applied = *position,
                             .state = "away",
                             .error = "it has not reported since mirrord started"};
  }
  return {};
}

Result<void> StreamTarget::save() {
  const MutexLock saving(save_mutex_);
  json state;
  {
    MutexLock lock(mutex_);
    state = {{"run", run_}, {"replicas", json::object()}};
    for (const auto &[name, replica] : replicas_)
      state["replicas"][name] = {{"epoch", to_string(replica.state.applied.epoch)},
                                 {"position", replica.state.applied.position}};
    unsaved_ = false;
  }
  auto written = write_document(options_.state_file, state);
  if (written) return {};
  MutexLock lock(mutex_);
  unsaved_ = true;
  return written;
}

void StreamTarget::make_publisher() {
  StreamPublisher::Options options;
  {
    MutexLock lock(mutex_);
    options.run = run_;
  }
  options.log_end = options_.log_end;
  options.keep_run = [this](std::uint32_t run) {
    {
      MutexLock lock(mutex_);
      run_ = run;
    }
    return save();
  };
  options.say = [this](const std::string &text) { say(Level::kWarning, about(), text); };
  publisher_ = std::make_unique<StreamPublisher>(connection_, entries_, std::move(options));
}

void StreamTarget::start() {
  tidy();
  thread_ = std::thread([this] { publisher_->run(); });
}

void StreamTarget::stop(Clock::time_point end) {
  if (!thread_.joinable()) return;
  (void)wait(log_.end(), end);
  publisher_->stop();
  log_.wake();
  thread_.join();
  tidy();
}

Result<void> StreamTarget::wait(LogPosition position, Clock::time_point end) const {
  for (;;) {
    const StreamPublisher::Status status = publisher_->status();
    if (status.position >= position) return {};
    if (status.state == StreamPublisher::State::kAway ||
        status.state == StreamPublisher::State::kFull)
      return Error{-EIO, about() + ": " + status.error};
    if (Clock::now() >= end)
      return Error{-ETIMEDOUT, about() +
                                   " has not sent all yet: 'mirrord status' shows how far "
                                   "it is"};
    std::this_thread::sleep_for(kWaitSlice);
  }
}

Uuid StreamTarget::epoch_locked() const {
  return stream_epoch(log_.epoch(), run_);
}

/* By every replica that goes on with this log. One that has another log's position compares all. */
LogPosition StreamTarget::applied_locked() const {
  LogPosition applied = std::numeric_limits<LogPosition>::max();
  for (const auto &[name, replica] : replicas_) {
    if (replica.state.applied.epoch == epoch_locked())
      applied = std::min(applied, replica.state.applied.position);
  }
  return applied;
}

LogPosition StreamTarget::needed() const {
  const LogPosition sent = publisher_->status().position;
  MutexLock lock(mutex_);
  return std::max(dropped_, std::min(sent, applied_locked()));
}

LogPosition StreamTarget::following() const {
  const StreamPublisher::Status status = publisher_->status();
  return status.state == StreamPublisher::State::kFollowing
             ? status.position
             : std::numeric_limits<LogPosition>::max();
}

void StreamTarget::drop_claim() {
  MutexLock lock(mutex_);
  dropped_ = log_.end();
}

void StreamTarget::tidy() {
  LogPosition applied = 0;
  bool unsaved = false;
  {
    MutexLock lock(mutex_);
    // Without a replica the stream keeps all, for the first one that comes.
    if (!replicas_.empty()) applied = applied_locked();
    unsaved = unsaved_;
  }
  publisher_->release(applied);
  if (!unsaved) return;
  if (const auto saved = save(); !saved) say(Level::kError, about(), saved.error().text);
}

Result<void> StreamTarget::replica_reported(const std::string &name, const ReplicaState &state) {
  if (!good_config_name(name))
    return Error{-EINVAL, fmt::format("a report of {}, which is no name of a replica; expected {}",
                                      printable(name), kConfigNameForm)};
  bool known = false;
  {
    MutexLock lock(mutex_);
    known = replicas_.count(name) != 0;
    if (!known && replicas_.size() >= kReplicasMax)
      return Error{-EMFILE, fmt::format("{} replicas are known: retire those that are gone",
                                        replicas_.size())};
    Replica &replica = replicas_[name];
    unsaved_ = unsaved_ || replica.state.applied != state.applied;
    // What comes from elsewhere is shown in a line.
    replica = {state, Clock::now()};
    replica.state.state = escape_controls(state.state);
    replica.state.error = escape_controls(state.error);
  }
  return known ? Result<void>() : save();
}

Result<bool> StreamTarget::send_again(const StreamPosition &wanted, std::uint64_t seen) {
  {
    MutexLock lock(mutex_);
    if (wanted.epoch != epoch_locked())
      return Error{-ESTALE, fmt::format("{} does not send the log {} now", about(),
                                        to_string(wanted.epoch))};
  }
  LogReader reader(log_, wanted.position);
  const auto entry = reader.next();
  if (!entry && entry.error().code != -EBADMSG && entry.error().code != -ESTALE)
    return entry.error();
  if (!entry || !*entry || (*entry)->position != wanted.position) return false;
  publisher_->send_again(wanted.position, seen);
  return true;
}

Result<void> StreamTarget::retire(const std::string &name) {
  {
    MutexLock lock(mutex_);
    if (replicas_.erase(name) == 0)
      return Error{-ENOENT, fmt::format("{} has no replica {}: 'mirrord status' lists them",
                                        about(), printable(name))};
  }
  return save();
}

TargetReport StreamTarget::report_of(const std::string &name, const Replica &replica) const {
  TargetReport report;
  report.name = options_.name + ":" + name;
  report.directory = fmt::format("replica {} of stream {}", name, options_.stream.stream);
  report.kind = kReplicaKind;
  report.state = replica.state.state;
  report.last_error = replica.state.error;
  report.lag_seconds = replica.state.lag_seconds;
  report.gaps = replica.state.gaps;
  const LogPosition end = log_.end();
  if (replica.state.applied.epoch == epoch_locked()) {
    report.position = replica.state.applied.position;
    report.lag_entries = end > report.position ? end - report.position : 0;
    report.lag_bytes = report.lag_entries != 0 ? log_.bytes_after(report.position) : 0;
  }
  if (!replica.contact) return report;
  const auto silence = Clock::now() - *replica.contact;
  report.contact_seconds = std::chrono::duration<double>(silence).count();
  if (silence < kSilence) return report;
  report.state = "away";
  report.last_error =
      fmt::format("its last report came {} seconds ago",
                  std::chrono::duration_cast<std::chrono::seconds>(silence).count());
  return report;
}

std::vector<TargetReport> StreamTarget::reports() const {
  const StreamPublisher::Status status = publisher_->status();
  TargetReport own;
  own.name = options_.name;
  own.directory = "stream " + options_.stream.stream;
  own.kind = kStreamKind;
  own.last_error = status.error;
  own.position = status.position;
  own.applied = status.entries;
  const LogPosition end = log_.end();
  if (status.position != 0 && end > status.position) {
    own.lag_entries = end - status.position;
    own.lag_bytes = log_.bytes_after(status.position);
  }
  switch (status.state) {
    case StreamPublisher::State::kStarting:
      own.state = "starting";
      break;
    case StreamPublisher::State::kAway:
      own.state = "away";
      break;
    case StreamPublisher::State::kFull:
      own.state = "held";
      break;
    case StreamPublisher::State::kFollowing:
      own.state = own.lag_entries == 0 ? "equal" : "following";
      break;
  }
  std::vector<TargetReport> all{std::move(own)};
  MutexLock lock(mutex_);
  for (const auto &[name, replica] : replicas_) all.push_back(report_of(name, replica));
  return all;
}

}  // namespace tarn
