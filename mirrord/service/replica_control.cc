// SPDX-License-Identifier: GPL-2.0
// What the control socket asks of the service of a replica, and what it reports of itself.
#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/remote/remote_tree.h"
#include "mirrord/service/replica_service.h"
#include "mirrord/service/service_report.h"
#include "mirrord/service/target_verify.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr steady_clock::duration kSlice = std::chrono::milliseconds(200);

}  // namespace

std::string ReplicaService::why_not_ready() const {
  return "what the source is was not heard yet: " + contact_.problem();
}

TargetReport ReplicaService::target_report() const {
  TargetReport report;
  report.name = replica_.target.name;
  report.directory = replica_.target.directory;
  const Parts *parts = ready_.load();
  if (!parts) {
    report.state = "away";
    report.last_error = why_not_ready();
    return report;
  }
  report = parts->target->report();
  const std::string stream = parts->receiver->problem(), source = contact_.problem();
  const std::string &problem = stream.empty() ? source : stream;
  // Without the stream it may be as old as the last entry.
  if (!problem.empty() && (report.state == "equal" || report.state == "following")) {
    report.state = "away";
    report.last_error = problem;
  }
  return report;
}

SourceReport ReplicaService::source_report() const {
  const Parts *parts = ready_.load();
  SourceReport report = parts ? log_report(*parts->intake, replica_.log_limit) : SourceReport();
  report.name = replica_.stream.stream;
  if (parts) report.directory = parts->source.directory;
  report.targets.push_back(target_report());
  return report;
}

ServiceReport ReplicaService::report() {
  ServiceReport report = process_report(started_);
  report.connected = true;  // to no module: what is missing is said of the target
  report.sources.push_back(source_report());
  return report;
}

/* For the source's host. */
std::optional<remote::ReportQuestion> ReplicaService::own_report() const {
  const Parts *parts = ready_.load();
  if (!parts) return std::nullopt;
  const auto applied = parts->receiver->needed(parts->taken());
  if (!applied) return std::nullopt;
  const TargetReport report = parts->target->report();
  return remote::ReportQuestion{
      .replica = replica_.target.name,
      .epoch = to_string(applied->epoch),
      .state = report.state,
      .error = report.last_error,
      .position = applied->position,
      .lag_entries = report.lag_entries,
      .lag_bytes = report.lag_bytes,
      .lag_us = static_cast<std::uint64_t>(std::max(0.0, report.lag_seconds) * 1e6),
      .gaps = report.gaps};
}

Result<Target *> ReplicaService::named(const TargetName &name) {
  const bool meant = (name.source.empty() || name.source == replica_.stream.stream) &&
                     (name.target.empty() || name.target == replica_.target.name);
  if (!meant)
    return Error{-ENOENT, fmt::format("there is no target {}/{}: 'mirrord targets' lists them",
                                      printable(name.source), printable(name.target))};
  Parts *parts = ready_.load();
  if (!parts) return Error{-EIO, why_not_ready()};
  return parts->target.get();
}

/* Until everything that was changed before the call is in the target. In slices, so that a caller
 * who has gone is noticed. */
Result<void> ReplicaService::settle(Target &target, steady_clock::time_point end,
                                    const Progress &progress) {
  Conversation conversation(requests_);
  std::vector<std::byte> message;
  const auto mark = conversation.ask<remote::MarkAnswer>(remote::MarkQuestion{}, message);
  if (!mark) return Error{-EIO, mark.error().text};
  for (;;) {
    const auto slice = std::min(end, steady_clock::now() + kSlice);
    auto waited = target.wait(mark->number, slice);
    if (waited || waited.error().code != -ETIMEDOUT || slice == end) return waited;
    if (!progress(-1, "waiting for " + target.name()))
      return Error{-ECANCELED, "nobody waits any more"};
  }
}

Result<void> ReplicaService::wait(const TargetName &name, std::chrono::milliseconds timeout,
                                  const Progress &progress) {
  const auto end = steady_clock::now() + timeout;
  const auto target = named(name);
  if (!target) return target.error();
  return settle(**target, end, progress);
}

Result<void> ReplicaService::pause(const TargetName &name) {
  const auto target = named(name);
  return target ? (*target)->pause() : target.error();
}

Result<void> ReplicaService::resume(const TargetName &name) {
  const auto target = named(name);
  return target ? (*target)->resume() : target.error();
}

Result<void> ReplicaService::resync(const TargetName &name) {
  const auto target = named(name);
  return target ? (*target)->resync() : target.error();
}

Result<std::string> ReplicaService::skip(const TargetName &name) {
  const auto target = named(name);
  if (!target) return target.error();
  return (*target)->skip();
}

Result<void> ReplicaService::retire(const TargetName &) {
  return Error{-EINVAL, "this is a replica itself: ask mirrord on the source's host to retire it"};
}

Result<std::vector<Difference>> ReplicaService::verify(const TargetName &name, bool repair,
                                                       const Progress &progress) {
  const auto target = named(name);
  if (!target) return target.error();
  const Parts &parts = *ready_.load();
  VerifyOptions options;
  options.included = [&](const std::string &path) { return parts.includes(path); };
  options.settle = [&] { return settle(**target, steady_clock::now() + kSettleTime, progress); };
  options.progress = progress;
  RemoteTree source(requests_);
  return verify_target(**target, source, std::move(options), repair);
}

}  // namespace tarn
