// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/answering.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/config/names.h"
#include "mirrord/service/journal.h"

namespace tarn {

std::unique_ptr<Answering> Answering::start(const Options &options, StreamTarget &stream,
                                            Walker &walker, const Log &log) {
  return std::unique_ptr<Answering>(new Answering(options, stream, walker, log));
}

Answering::Answering(Options options, StreamTarget &stream, Walker &walker, const Log &log)
    : options_(std::move(options)),
      stream_(stream),
      walker_(walker),
      log_(log),
      server_(serving()),
      requests_(stream.connection(), stream.connection().subject(kQuestions),
                [this](Bytes question) { return server_.answer(question); }) {}

Answering::~Answering() = default;

SourceServer::Options Answering::serving() {
  return {.directory = options_.directory,
          .exclude = options_.exclude,
          .run = options_.run,
          .included = options_.included,
          .walk = [this](const remote::WalkQuestion &question) { return walk(question); },
          .mark = options_.mark,
          .report = [this](const remote::ReportQuestion &question) { report(question); },
          .again = [this](const remote::AgainQuestion &question) { return again(question); }};
}

/* A walk that is under way does not serve it: how much of it the replica gets is not known here. */
Result<void> Answering::walk(const remote::WalkQuestion &question) {
  if (!good_config_name(question.replica))
    return Error{-EINVAL, fmt::format("{} is no name of a replica; expected {}",
                                      printable(question.replica), kConfigNameForm)};
  walker_.request(std::string(kReplicaInWalks) + question.replica, question.since, log_.end());
  return {};
}

void Answering::report(const remote::ReportQuestion &report) {
  const auto epoch = parse_uuid(report.epoch);
  Result<void> taken =
      Error{-EINVAL, fmt::format("a report of {} names no log", printable(report.replica))};
  if (epoch)
    taken = stream_.replica_reported(report.replica,
                                     {.applied = {*epoch, report.position},
                                      .state = report.state,
                                      .error = report.error,
                                      .lag_seconds = static_cast<double>(report.lag_us) / 1e6,
                                      .gaps = report.gaps});
  const std::string text = taken ? "" : taken.error().text;
  if (!text.empty() && text != said_)
    say(Level::kWarning, options_.source + "/" + stream_.name(), text);
  said_ = text;
}

Result<bool> Answering::again(const remote::AgainQuestion &question) {
  const auto epoch = parse_uuid(question.epoch);
  if (!epoch) return Error{-EINVAL, "a replica that lacks an entry names no log"};
  return stream_.send_again({*epoch, question.position}, question.seen);
}

}  // namespace tarn
