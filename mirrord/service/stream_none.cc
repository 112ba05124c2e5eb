// SPDX-License-Identifier: GPL-2.0
// Where there is no library to reach streams with: each is refused, so there is no object of these
// classes.
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/service/answering.h"
#include "mirrord/service/replica_service.h"
#include "mirrord/service/stream_target.h"

namespace tarn {

Result<std::unique_ptr<StreamTarget>> StreamTarget::open(Options options, Log & /*log*/) {
  const std::string name = std::move(options.source) + "/" + options.name;
  return Error{-ENOTSUP, fmt::format("{}: this mirrord is built without streams; use one that has "
                                     "them, or a target of kind \"directory\"",
                                     printable(name))};
}

StreamTarget::~StreamTarget() {
  std::abort();
}

void StreamTarget::start() {
  std::abort();
}

void StreamTarget::stop(Clock::time_point /*end*/) {
  std::abort();
}

std::vector<TargetReport> StreamTarget::reports() const {
  std::abort();
}

Result<void> StreamTarget::wait(LogPosition /*position*/, Clock::time_point /*end*/) const {
  std::abort();
}

LogPosition StreamTarget::needed() const {
  std::abort();
}

LogPosition StreamTarget::following() const {
  std::abort();
}

Result<void> StreamTarget::retire(const std::string & /*name*/) {
  std::abort();
}

void StreamTarget::drop_claim() {
  std::abort();
}

void StreamTarget::tidy() {
  std::abort();
}

std::unique_ptr<Answering> Answering::start(const Options & /*options*/, StreamTarget & /*stream*/,
                                            Walker & /*walker*/, const Log & /*log*/) {
  std::abort();
}

Answering::~Answering() {
  std::abort();
}

Result<void> run_replica(const Config & /*config*/, SignalPipe & /*signals*/) {
  return Error{-ENOTSUP,
               "this mirrord is built without streams, which a replica needs; use one "
               "that has them"};
}

}  // namespace tarn
