// SPDX-License-Identifier: GPL-2.0
// Making the service of a replica, and running it.
#include "mirrord/service/replica_service.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/text.h"
#include "base/version.h"
#include "client/base64.h"
#include "client/workdir.h"
#include "mirrord/service/answering.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/manager.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kHousekeeping{1000}, kAnswerTime{5000};
/* A mark comes about each second while there is something to mark. */
constexpr steady_clock::duration kMarkTime = std::chrono::seconds(10);
constexpr steady_clock::duration kStopTime = std::chrono::seconds(20);

bool same_source(const remote::AboutAnswer &one, const remote::AboutAnswer &other) {
  return one.directory == other.directory && one.exclude == other.exclude;
}

}  // namespace

StreamRequests::StreamRequests(Connection &connection)
    : sender_(connection, connection.subject(kQuestions)) {}

Result<std::vector<std::byte>> StreamRequests::ask(Bytes question) {
  return sender_.ask(question, kAnswerTime);
}

ReplicaService::Parts::Parts(const remote::AboutAnswer &about)
    : source(about), lists{{about.directory}, about.exclude}, scope(lists) {}

bool ReplicaService::Parts::includes(const std::string &path) const {
  return scope.includes((source.directory == "/" ? "" : source.directory) + "/" + path);
}

LogPosition ReplicaService::Parts::taken() const {
  return std::min(std::max(target->needed(), unmarked_.load()), intake->log().end());
}

/* The log is full of what the target has applied and no mark confirms, which may be what has no
 * room. Should the process be killed before that comes, the target is compared. Called with the
 * intake locked. */
bool ReplicaService::Parts::make_room() const {
  Log &log = intake->log();
  const LogPosition first = log.first(), end = log.end();
  if (target->following() != end) return false;
  if (const auto released = log.release(end); !released)
    say(Level::kError, target->name(), released.error().text);
  return log.first() != first;
}

/* The mark may have no room in a stream that is full of what waits for it here: this log keeps
 * that. */
void ReplicaService::Parts::look_for_mark() {
  const auto now = steady_clock::now();
  const LogPosition end = intake->log().end();
  const bool waits = target->needed() < end && target->following() == end;
  if (!waits || seen_end_ != end) {
    seen_end_ = end;
    seen_at_ = now;
  }
  if (now - seen_at_ < kMarkTime || unmarked_ >= end) return;
  if (const auto synced = intake->log().sync(); !synced)
    say(Level::kError, target->name(), synced.error().text);
  else
    unmarked_ = end;
}

ReplicaService::ReplicaService(const Config &config, StateDirectory state, std::string directory)
    : config_(config),
      replica_(*config_.replica),
      state_(std::move(state)),
      directory_(std::move(directory)),
      connection_(replica_.stream, "mirrord replica " + replica_.target.name),
      requests_(connection_),
      contact_({.about = replica_.target.name,
                .replica = replica_.target.name,
                .follows =
                    [this] {
                      const Parts *parts = ready_.load();
                      return parts && parts->receiver->follows();
                    },
                .report = [this] { return own_report(); }},
               requests_) {}

ReplicaService::~ReplicaService() {
  contact_.stop();  // it asks the parts
}

Result<std::unique_ptr<ReplicaService>> ReplicaService::open(const Config &config) {
  auto state = StateDirectory::open(config.state_directory);
  if (!state) return state.error();
  auto directory = state->source(config.replica->target.name);
  if (!directory) return directory.error();
  std::unique_ptr<ReplicaService> service(
      new ReplicaService(config, std::move(*state), std::move(*directory)));
  if (const auto read = service->read_source(); !read) return read.error();
  return service;
}

/* What the source's host has said before, as its answer was. */
Result<void> ReplicaService::read_source() {
  const std::string file = directory_ + "/source.json";
  const auto document = read_document(file);
  if (!document) return document.error();
  if (!*document) return {};
  const Error bad{-EBADMSG, printable(file) +
                                " cannot be used: remove it; the source's host is "
                                "asked again"};
  const auto text = (*document)->find("about");
  if (text == (*document)->end() || !text->is_string()) return bad;
  const auto bytes = base64_decode(text->get_ref<const std::string &>());
  if (!bytes) return bad;
  const auto answer = remote::decode_answer(std::as_bytes(std::span(*bytes)));
  if (!answer || !std::holds_alternative<remote::AboutAnswer>(answer->answer)) return bad;
  return open_parts(std::get<remote::AboutAnswer>(answer->answer));
}

Result<void> ReplicaService::keep_source(const remote::AboutAnswer &source) const {
  const auto bytes = remote::encode(remote::NumberedAnswer{0, 0, source});
  const std::string text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  return write_document(directory_ + "/source.json", {{"about", base64_encode(text)}});
}

Result<void> ReplicaService::open_parts(const remote::AboutAnswer &source) {
  auto parts = std::make_unique<Parts>(source);
  auto rule_text = make_workdir(parts->lists);
  if (!rule_text) return rule_text.error();
  const std::string &name = replica_.target.name;
  auto intake = Intake::open({.name = name,
                              .directory = directory_,
                              .log_limit = replica_.log_limit,
                              .rule_text = std::move(*rule_text)});
  if (!intake) return intake.error();
  parts->intake = std::move(*intake);
  auto target = Target::open({.source = replica_.stream.stream,
                              .source_directory = source.directory,
                              .lists = parts->lists,
                              .name = name,
                              .directory = replica_.target.directory,
                              .state_file = directory_ + "/target-" + name,
                              .log_end = parts->intake->found_end(),
                              .copy_bytes_per_second = replica_.copy_bytes_per_second,
                              .view = [this] { return std::make_unique<RemoteSource>(requests_); },
                              .walked_as = std::string(kReplicaInWalks) + name},
                             *parts->intake, contact_);
  if (!target) return target.error();
  parts->target = std::move(*target);
  auto receiver = StreamIntake::open(
      {.about = name,
       .replica = name,
       .file = directory_ + "/stream.json",
       .applied = [raw = parts.get()] { return raw->taken(); },
       .appended = [this](const LogEntry &entry,
                          LogPosition position) { contact_.came(entry, position); },
       .again = [this](const StreamPosition &wanted,
                       std::uint64_t seen) { return ask_again(wanted, seen); }},
      connection_, *parts->intake);
  if (!receiver) return receiver.error();
  parts->receiver = std::move(*receiver);
  parts->intake->set_make_room([raw = parts.get()] { return raw->make_room(); });
  parts_ = std::move(parts);
  return {};
}

/* By the receiver's thread. */
Result<bool> ReplicaService::ask_again(const StreamPosition &wanted, std::uint64_t seen) {
  Conversation conversation(requests_);
  std::vector<std::byte> message;
  const auto answer = conversation.ask<remote::AgainAnswer>(
      remote::AgainQuestion{to_string(wanted.epoch), wanted.position, seen}, message);
  if (!answer) return answer.error();
  return answer->coming;
}

void ReplicaService::start_parts() {
  parts_->receiver->start();
  parts_->target->start();
  ready_ = parts_.get();
}

/* False: the source is another one than that of the parts. */
Result<bool> ReplicaService::look_at_source() {
  const auto source = contact_.source();
  if (!source || (parts_ && same_source(*source, parts_->source))) return true;
  if (const auto kept = keep_source(*source); !kept) return kept.error();
  if (parts_) return false;
  if (const auto opened = open_parts(*source); !opened) return opened.error();
  start_parts();
  return true;
}

Result<ReplicaService::End> ReplicaService::run(SignalPipe &signals) {
  auto server = ControlServer::open(config_.control_socket, *this);
  if (!server) return server.error();
  if (parts_) start_parts();
  contact_.start();
  tell_manager("READY=1");
  say(Level::kNotice, "", version_line("mirrord") + " with " + printable(config_.file));
  End end = End::kSignal;
  Result<void> looked;
  for (int signal = 0; signal == 0;) {
    pollfd waits{signals.fd(), POLLIN, 0};
    if (poll(&waits, 1, static_cast<int>(kHousekeeping.count())) > 0) signal = signals.take();
    const auto same = look_at_source();
    if (!same) {
      looked = same.error();
      break;
    }
    if (!*same) {
      say(Level::kNotice, replica_.target.name,
          "the source is another directory, or excludes "
          "others: beginning anew");
      end = End::kOpenAnew;
      break;
    }
    housekeeping();
  }
  if (end == End::kSignal) tell_manager("STOPPING=1");
  if (parts_) {
    parts_->receiver->stop();
    parts_->target->stop(steady_clock::now() + kStopTime);
  }
  contact_.stop();
  server->reset();
  if (!looked) return looked.error();
  return end;
}

void ReplicaService::housekeeping() {
  tell_manager("WATCHDOG=1");
  if (parts_) {
    parts_->look_for_mark();
    const LogPosition needed = std::min(parts_->target->needed(), parts_->intake->log().end());
    if (const auto released = parts_->intake->log().release(needed); !released)
      say(Level::kError, replica_.target.name, released.error().text);
  }
  if (config_.metrics_file.empty()) return;
  const auto written = write_metrics(config_.metrics_file, report());
  const std::string error = written ? "" : written.error().text;
  if (!error.empty() && error != metrics_error_) say(Level::kWarning, "", error);
  metrics_error_ = error;
}

Result<void> run_replica(const Config &config, SignalPipe &signals) {
  for (;;) {
    auto service = ReplicaService::open(config);
    if (!service) return service.error();
    const auto ran = (*service)->run(signals);
    if (!ran) return ran.error();
    if (*ran == ReplicaService::End::kSignal) return {};
  }
}

}  // namespace tarn
