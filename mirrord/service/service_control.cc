// SPDX-License-Identifier: GPL-2.0
// What the control socket asks of the service.
#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/file_status.h"
#include "mirrord/service/service.h"
#include "mirrord/service/service_report.h"
#include "mirrord/service/target_verify.h"
#include "mirrord/verify/local_tree.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr steady_clock::duration kSlice = std::chrono::milliseconds(200);

}  // namespace

SourceReport Service::report_of(const ReplicatedSource &source) const {
  SourceReport report = log_report(*source.intake, source.config.log_limit);
  report.name = source.config.name;
  report.directory = source.config.directory;
  report.stopped = receiver_->stopped(source.intake->rule());
  for (const auto &target : source.targets) report.targets.push_back(target->report());
  for (const auto &stream : source.streams) {
    for (TargetReport &own : stream->reports()) report.targets.push_back(std::move(own));
  }
  return report;
}

ServiceReport Service::report() {
  ServiceReport report = process_report(started_);
  report.connection_error = receiver_->problem();
  report.connected = report.connection_error.empty();
  for (const auto &source : sources_) report.sources.push_back(report_of(*source));
  return report;
}

std::vector<std::string> Service::incomplete() {
  std::vector<std::string> lines;
  for (const SourceReport &source : report().sources) {
    for (const TargetReport &target : source.targets) {
      if (target.state == "equal") continue;
      const std::string why = target.last_error.empty() ? "" : ": " + target.last_error;
      lines.push_back(fmt::format("{} may differ from {}: it ends in the state \"{}\"{}",
                                  printable(target.directory), printable(source.directory),
                                  target.state, why));
    }
  }
  return lines;
}

Result<std::vector<Target *>> Service::named(const TargetName &name) {
  std::vector<Target *> found;
  for (const auto &source : sources_) {
    if (!name.source.empty() && name.source != source->config.name) continue;
    for (const auto &target : source->targets) {
      if (name.target.empty() || name.target == target->name()) found.push_back(target.get());
    }
  }
  if (!found.empty()) return found;
  const std::string text = name.target.empty() ? name.source : name.source + "/" + name.target;
  const std::string stream = name.target.substr(0, name.target.find(':'));  // of a replica too
  if (!streams_to_wait_for({name.source, stream}).empty())
    return Error{-EINVAL, fmt::format("{} is a stream: ask mirrord on the hosts of its replicas",
                                      printable(text))};
  return Error{-ENOENT,
               fmt::format("there is no target {}: 'mirrord targets' lists them", printable(text))};
}

Result<std::uint64_t> Service::request_mark() {
  const auto mark = receiver_->request_mark();
  if (mark) return *mark;
  return Error{-EIO, receiver_->problem()};
}

/* In slices, so that a caller who has gone is noticed. */
Result<void> Service::wait_slice(const std::vector<Target *> &targets, std::uint64_t mark,
                                 steady_clock::time_point end, const Progress &progress) {
  for (Target *target : targets) {
    for (;;) {
      const auto slice = std::min(end, steady_clock::now() + kSlice);
      auto waited = target->wait(mark, slice);
      if (waited) break;
      if (waited.error().code != -ETIMEDOUT || slice == end) return waited;
      if (!progress(-1, "waiting for " + target->name()))
        return Error{-ECANCELED, "nobody waits any more"};
      if (const std::string problem = receiver_->problem(); !problem.empty())
        return Error{-EIO, problem};
    }
  }
  return {};
}

/* The streams, and where their logs end. */
std::vector<std::pair<StreamTarget *, LogPosition>> Service::streams_to_wait_for(
    const TargetName &name) {
  std::vector<std::pair<StreamTarget *, LogPosition>> found;
  for (const auto &source : sources_) {
    if (!name.source.empty() && name.source != source->config.name) continue;
    for (const auto &stream : source->streams) {
      if (name.target.empty() || name.target == stream->name())
        found.emplace_back(stream.get(), source->intake->log().end());
    }
  }
  return found;
}

/* Until the mark is in the logs, and all before it in the streams. */
Result<void> Service::wait_for_streams(const TargetName &name, std::uint64_t mark,
                                       steady_clock::time_point end, const Progress &progress) {
  const auto marked = [&] {
    return std::all_of(sources_.begin(), sources_.end(), [&](const auto &source) {
      return source->streams.empty() || source->intake->last_mark() >= mark;
    });
  };
  while (!marked()) {
    if (steady_clock::now() >= end) return Error{-ETIMEDOUT, "the module has not answered yet"};
    if (!progress(-1, "waiting for the module")) return Error{-ECANCELED, "nobody waits any more"};
    if (const std::string problem = receiver_->problem(); !problem.empty())
      return Error{-EIO, problem};
    std::this_thread::sleep_for(kSlice / 10);
  }
  for (const auto &[stream, position] : streams_to_wait_for(name)) {
    for (;;) {
      const auto slice = std::min(end, steady_clock::now() + kSlice);
      auto waited = stream->wait(position, slice);
      if (waited) break;
      if (waited.error().code != -ETIMEDOUT || slice == end) return waited;
      if (!progress(-1, "waiting for " + stream->name()))
        return Error{-ECANCELED, "nobody waits any more"};
    }
  }
  return {};
}

Result<void> Service::wait(const TargetName &name, std::chrono::milliseconds timeout,
                           const Progress &progress) {
  const bool has_streams = !streams_to_wait_for(name).empty();
  auto targets = named(name);
  if (!targets && !has_streams) return targets.error();
  const auto end = steady_clock::now() + timeout;
  const auto mark = request_mark();
  if (!mark) return mark.error();
  if (targets) {
    if (const auto waited = wait_slice(*targets, *mark, end, progress); !waited) return waited;
  }
  if (!has_streams) return {};
  return wait_for_streams(name, *mark, end, progress);
}

Result<void> Service::pause(const TargetName &name) {
  const auto targets = named(name);
  if (!targets) return targets.error();
  for (Target *target : *targets) {
    if (const auto paused = target->pause(); !paused) return paused;
  }
  return {};
}

Result<void> Service::resume(const TargetName &name) {
  const auto targets = named(name);
  if (!targets) return targets.error();
  for (Target *target : *targets) {
    if (const auto resumed = target->resume(); !resumed) return resumed;
  }
  return {};
}

Result<void> Service::resync(const TargetName &name) {
  const auto targets = named(name);
  if (!targets) return targets.error();
  for (Target *target : *targets) {
    if (const auto begun = target->resync(); !begun) return begun;
  }
  return {};
}

Result<std::string> Service::skip(const TargetName &name) {
  const auto targets = named(name);
  if (!targets) return targets.error();
  if (targets->size() != 1)
    return Error{-EINVAL, "only one target's entry is skipped at a time: name SOURCE/TARGET"};
  return targets->front()->skip();
}

Result<void> Service::retire(const TargetName &name) {
  const std::size_t colon = name.target.find(':');
  for (const auto &source : sources_) {
    if (name.source != source->config.name) continue;
    for (const auto &stream : source->streams) {
      if (colon != std::string::npos && name.target.substr(0, colon) == stream->name())
        return stream->retire(name.target.substr(colon + 1));
    }
  }
  return Error{-ENOENT, fmt::format("there is no replica {}/{}: 'mirrord targets' lists them as "
                                    "SOURCE/TARGET:REPLICA",
                                    printable(name.source), printable(name.target))};
}

Result<std::vector<Difference>> Service::verify(const TargetName &name, bool repair,
                                                const Progress &progress) {
  const auto targets = named(name);
  if (!targets) return targets.error();
  if (targets->size() != 1)
    return Error{-EINVAL, "one target is compared at a time: name SOURCE/TARGET"};
  Target &target = *targets->front();
  const auto source = std::find_if(sources_.begin(), sources_.end(), [&](const auto &candidate) {
    return std::any_of(candidate->targets.begin(), candidate->targets.end(),
                       [&](const auto &of_it) { return of_it.get() == &target; });
  });
  VerifyOptions options;
  options.included = [&](const std::string &path) { return (*source)->includes(path); };
  options.settle = [&]() -> Result<void> {
    const auto mark = request_mark();
    if (!mark) return mark.error();
    return wait_slice(*targets, *mark, steady_clock::now() + kSettleTime, progress);
  };
  options.progress = progress;
  auto tree = LocalTree::open((*source)->config.directory);
  if (!tree) return tree.error();
  return verify_target(target, *tree, std::move(options), repair);
}

}  // namespace tarn
