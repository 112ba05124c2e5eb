/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Answers what the replicas of a stream ask the host of their source: about the source's files, for
 * walks, marks and what the stream has lost; and takes their reports. A thread of its own, as long
 * as the object exists; all that is given to it must outlive it.
 */
#ifndef TARN_MIRRORD_SERVICE_ANSWERING_H
#define TARN_MIRRORD_SERVICE_ANSWERING_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "mirrord/remote/source_server.h"
#include "mirrord/service/stream_target.h"
#include "mirrord/service/walker.h"
#include "mirrord/stream/requests.h"

namespace tarn {

class Answering {
 public:
  struct Options {
    std::string source; /* its name */
    std::string directory;
    std::vector<std::string> exclude;
    std::function<bool(const std::string &path)> included;
    std::uint64_t run = 0; /* another one for each process */
    /* A mark of the module, which will be in the log. */
    std::function<Result<std::uint64_t>()> mark;
  };
  static std::unique_ptr<Answering> start(const Options &options, StreamTarget &stream,
                                          Walker &walker, const Log &log);
  ~Answering();
  Answering(const Answering &) = delete;
  Answering &operator=(const Answering &) = delete;

 private:
  Answering(Options options, StreamTarget &stream, Walker &walker, const Log &log);
  SourceServer::Options serving();
  Result<void> walk(const remote::WalkQuestion &question);
  void report(const remote::ReportQuestion &report);
  Result<bool> again(const remote::AgainQuestion &question);

  const Options options_;
  StreamTarget &stream_;
  Walker &walker_;
  const Log &log_;
  std::string said_; /* of a report; the thread's own */
  SourceServer server_;
  RequestServer requests_; /* ends first */
};

}  // namespace tarn

#endif
