// SPDX-License-Identifier: GPL-2.0
// Making the service from its configuration, and running it.
#include "mirrord/service/service.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/text.h"
#include "base/version.h"
#include "client/paths.h"
#include "client/workdir.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/manager.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kHousekeeping{1000};
constexpr steady_clock::duration kStopTime = std::chrono::seconds(20);

Result<std::string> own_program() {
  std::string path(4096, '\0');
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length < 0) return system_error(errno, "the path of this program");
  path.resize(static_cast<std::size_t>(length));
  return path;
}

Result<nlohmann::json> identity_of(const SourceConfig &source) {
  const auto there = identify_directory(source.directory);
  if (!there) return there.error();
  return nlohmann::json{{"object", there->object}, {"mount_point", there->mount_point}};
}

/* A source that is not mounted is an empty directory: all would be removed in the targets. False:
 * which one it was before is not known. */
Result<bool> check_source(const SourceConfig &source, const std::string &file) {
  const auto now = identity_of(source);
  if (!now) return now.error();
  const auto known = read_document(file);
  if (!known) return known.error();
  if (!*known) return false;
  if (**known == *now) return true;
  return Error{-ENODEV,
               fmt::format("source {}: {} is another directory than before: mount it; if it was "
                           "replaced on purpose, remove {}",
                           source.name, printable(source.directory), printable(file))};
}

/* From now on it is that one. What targets have of another one is compared as a whole. */
Result<void> accept_source(const SourceConfig &source, const std::string &file, Intake &intake) {
  const auto now = identity_of(source);
  if (!now) return now.error();
  if (intake.log().end() != 1) {
    intake.gap(Intake::Missing::kEverything,
               "it is not known whether the source's directory is the one of before");
    if (const auto saved = intake.save(); !saved) return saved;
  }
  return write_document(file, *now);
}

}  // namespace

Service::ReplicatedSource::ReplicatedSource(const SourceConfig &from)
    : config(from), lists{{from.directory}, from.exclude}, scope(lists) {}

bool Service::ReplicatedSource::includes(const std::string &path) const {
  return scope.includes((config.directory == "/" ? "" : config.directory) + "/" + path);
}

/* What every target has applied. */
void Service::ReplicatedSource::release() {
  LogPosition needed = intake->log().end();
  for (const auto &target : targets) needed = std::min(needed, target->needed());
  for (const auto &stream : streams) needed = std::min(needed, stream->needed());
  if (const auto released = intake->log().release(needed); !released)
    say(Level::kError, config.name, released.error().text);
}

/* Of targets that want a walk, the first one that follows the log; of replicas, their streams. One
 * that is far behind it costs room in the log, and is compared alone when there is none left. */
LogPosition Service::ReplicatedSource::followed(const std::set<std::string> &walked) const {
  std::vector<LogPosition> all;
  for (const auto &target : targets) {
    if (walked.count(target->name()) != 0) all.push_back(target->following());
  }
  const auto is_replica = [](const std::string &name) { return name.starts_with(kReplicaInWalks); };
  if (std::any_of(walked.begin(), walked.end(), is_replica)) {
    for (const auto &stream : streams) all.push_back(stream->following());
  }
  std::erase(all, Target::kNotFollowing);
  return all.empty() ? Target::kNotFollowing : *std::max_element(all.begin(), all.end());
}

/* The log is full: the target that is behind the others does without its entries. Called with the
 * intake locked. */
bool Service::ReplicatedSource::make_room() {
  const LogPosition first = intake->log().first();
  for (;;) {
    release();
    if (intake->log().first() != first) return true;
    Target *last = nullptr;
    for (const auto &target : targets) {
      const bool behind = target->needed() < intake->log().end();
      if (behind && (!last || target->needed() < last->needed())) last = target.get();
    }
    StreamTarget *stream = nullptr;
    for (const auto &other : streams) {
      if (other->needed() >= (last ? last->needed() : intake->log().end())) continue;
      if (!stream || other->needed() < stream->needed()) stream = other.get();
    }
    if (!last && !stream) return false;
    say(Level::kError, config.name + "/" + (stream ? stream->name() : last->name()),
        "the log is full: what it has not applied is dropped, and it is compared anew");
    if (stream)
      stream->drop_claim();
    else
      last->drop_claim();
  }
}

Result<std::unique_ptr<Service>> Service::open(Config config, const Site &site,
                                               Connection connection) {
  auto state = StateDirectory::open(config.state_directory);
  if (!state) return state.error();
  const auto program = own_program();
  if (!program) return program.error();
  // What a former channel holds is bounded: it is read while the logs are opened, which takes time.
  std::unique_ptr<DaemonChannel> channel;
  if (connection.store && connection.store->has_former()) {
    auto early = DaemonChannel::open(site, Claim::kRefuseIfTaken, connection.store.get());
    if (early)
      channel = std::move(*early);
    else
      say(Level::kWarning, "", "the former channel is lost: " + early.error().text);
  }
  const Claim claim = connection.claim;
  std::unique_ptr<Service> service(
      new Service(std::move(config), site, std::move(*state), std::move(connection)));
  for (const SourceConfig &source : service->config_.sources) {
    if (const auto opened = service->open_source(source); !opened) return opened.error();
  }
  std::vector<RuleKeeper::Wanted> wanted;
  std::vector<Receiver::FromSource> receivers;
  for (const auto &source : service->sources_) {
    RuleKeeper::Wanted rule{.uuid = source->intake->rule(),
                            .directory = source->config.directory,
                            .exclude = source->config.exclude};
    for (const auto &target : source->targets)
      rule.targets.push_back({target->uuid(), target->directory()});
    wanted.push_back(std::move(rule));
    receivers.push_back({source->config.name, source->intake.get()});
  }
  auto receiver = Receiver::open(site, RuleKeeper(site, *program, std::move(wanted)), receivers,
                                 {claim, service->store_.get(), std::move(channel)});
  if (!receiver) return receiver.error();
  service->receiver_ = std::move(*receiver);
  return service;
}

Result<void> Service::open_source(const SourceConfig &config) {
  const auto directory = state_.source(config.name);
  if (!directory) return directory.error();
  const std::string identity = *directory + "/source.json";
  const auto same = check_source(config, identity);
  if (!same) return same.error();
  auto source = std::make_unique<ReplicatedSource>(config);
  auto rule_text = make_workdir(source->lists);
  if (!rule_text) return rule_text.error();
  auto intake = Intake::open({.name = config.name,
                              .directory = *directory,
                              .log_limit = config.log_limit,
                              .rule_text = std::move(*rule_text)});
  if (!intake) return intake.error();
  source->intake = std::move(*intake);
  if (!*same) {
    if (const auto kept = accept_source(config, identity, *source->intake); !kept) return kept;
  }
  ReplicatedSource *raw = source.get();
  source->intake->set_make_room([raw] { return raw->make_room(); });
  source->walker = std::make_unique<Walker>(
      Walker::Options{.name = config.name,
                      .directory = config.directory,
                      .included = [raw](const std::string &path) { return raw->includes(path); },
                      .followed = [raw](const auto &walked) { return raw->followed(walked); },
                      .files_per_second = config.walk_files_per_second,
                      .walked = [this] { receiver_->request_mark(); }},
      *source->intake);
  for (const TargetConfig &target : config.targets) {
    if (const auto opened = open_target(*source, target, *directory); !opened) return opened;
  }
  for (const StreamTargetConfig &stream : config.streams) {
    if (const auto opened = open_stream(*source, stream, *directory); !opened) return opened;
  }
  sources_.push_back(std::move(source));
  return {};
}

Result<void> Service::open_stream(ReplicatedSource &source, const StreamTargetConfig &config,
                                  const std::string &directory) {
  auto stream = StreamTarget::open({.source = source.config.name,
                                    .name = config.name,
                                    .stream = config.stream,
                                    .state_file = directory + "/stream-" + config.name,
                                    .log_end = source.intake->found_end()},
                                   source.intake->log());
  if (!stream) return stream.error();
  source.streams.push_back(std::move(*stream));
  return {};
}

Result<void> Service::open_target(ReplicatedSource &source, const TargetConfig &config,
                                  const std::string &directory) {
  auto target = Target::open({.source = source.config.name,
                              .source_directory = source.config.directory,
                              .lists = source.lists,
                              .name = config.name,
                              .directory = config.directory,
                              .state_file = directory + "/target-" + config.name,
                              .log_end = source.intake->found_end(),
                              .copy_bytes_per_second = source.config.copy_bytes_per_second},
                             *source.intake, *source.walker);
  if (!target) return target.error();
  source.targets.push_back(std::move(*target));
  return {};
}

Result<void> Service::run(SignalPipe &signals) {
  std::unique_ptr<ControlServer> server;
  auto opened = ControlServer::open(config_.control_socket, *this);
  if (!opened) return opened.error();
  server = std::move(*opened);
  std::thread receiving([this] { receiver_->run(); });
  // A first copy that began before the rule is there would have to be made twice.
  receiver_->wait_for_attempt();
  if (const std::string problem = receiver_->problem(); connection_needed_ && !problem.empty()) {
    receiver_->stop();
    receiving.join();
    return Error{-ENOTCONN, problem};
  }
  for (const auto &source : sources_) {
    for (const auto &target : source->targets) target->start();
    for (const auto &stream : source->streams) stream->start();
    start_answering(*source);
  }
  tell_manager("READY=1");
  say_begun();
  for (int signal = 0; signal == 0;) {
    pollfd waits{signals.fd(), POLLIN, 0};
    if (poll(&waits, 1, static_cast<int>(kHousekeeping.count())) > 0) signal = signals.take();
    housekeeping();
  }
  tell_manager("STOPPING=1");
  // What the channel holds is bounded: with a store it is left alone as late as possible.
  const bool passes_on = store_ && store_->keeps();
  if (passes_on) stop();
  receiver_->stop();
  receiving.join();
  if (!passes_on) stop();
  server.reset();
  housekeeping();
  return {};
}

void Service::start_answering(ReplicatedSource &source) {
  ReplicatedSource *raw = &source;
  for (const auto &stream : source.streams) {
    source.answering.push_back(Answering::start(
        Answering::Options{
            .source = source.config.name,
            .directory = source.config.directory,
            .exclude = source.config.exclude,
            .included = [raw](const std::string &path) { return raw->includes(path); },
            .run = static_cast<std::uint64_t>(now_us()),
            .mark = [this] { return request_mark(); }},
        *stream, *source.walker, source.intake->log()));
  }
}

void Service::say_begun() const {
  std::string what = "with " + printable(config_.file);
  if (config_.file.empty()) {
    const SourceConfig &pair = config_.sources.front();
    what = fmt::format("replicates {} to {}", printable(pair.directory),
                       printable(pair.targets.front().directory));
  }
  say(Level::kNotice, "", version_line("mirrord") + " " + what);
}

void Service::stop() {
  const auto end = steady_clock::now() + kStopTime;
  std::vector<std::thread> stopping;
  for (const auto &source : sources_) {
    source->answering.clear();
    source->walker->stop();
    for (const auto &target : source->targets)
      stopping.emplace_back([&target, end] { target->stop(end); });
    for (const auto &stream : source->streams)
      stopping.emplace_back([&stream, end] { stream->stop(end); });
  }
  for (std::thread &thread : stopping) thread.join();
}

void Service::housekeeping() {
  tell_manager("WATCHDOG=1");
  for (const auto &source : sources_) {
    for (const auto &stream : source->streams) stream->tidy();
    source->release();
  }
  const ServiceReport now = report();
  tell_tarn(now);
  if (!config_.metrics_file.empty())
    say_once(metrics_error_, write_metrics(config_.metrics_file, now));
}

/* Only as the daemon: another one may have its own report there. */
void Service::tell_tarn(const ServiceReport &report) {
  if (!report.connected) return told_tarn_.reset();
  DaemonReport telling{.problems = problems(report).size(), .stopped = {}};
  for (const auto &source : sources_) {
    if (receiver_->stopped(source->intake->rule())) telling.stopped.insert(source->intake->rule());
  }
  if (told_tarn_ == telling) return;
  const auto written = write_daemon_report(site_, telling);
  say_once(report_error_, written);
  if (written) told_tarn_ = std::move(telling);
}

/* `error`: what was said last. */
void Service::say_once(std::string &error, const Result<void> &written) {
  const std::string now = written ? "" : written.error().text;
  if (!now.empty() && now != error) say(Level::kWarning, "", now);
  error = now;
}

}  // namespace tarn
