/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The replication service: for each source of the configuration a log with a walker and its
 * targets, and one receiver for all. Owns their threads, and answers the control socket.
 *
 * One thread makes it, runs it and destroys it; the functions of ServiceControl may be called by
 * any thread in between.
 */
#ifndef TARN_MIRRORD_SERVICE_SERVICE_H
#define TARN_MIRRORD_SERVICE_SERVICE_H

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "client/channel_store.h"
#include "client/daemon_report.h"
#include "client/rule_scope.h"
#include "client/signal_pipe.h"
#include "client/site.h"
#include "mirrord/config/config.h"
#include "mirrord/config/state_directory.h"
#include "mirrord/control/control.h"
#include "mirrord/service/answering.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/receiver.h"
#include "mirrord/service/stream_target.h"
#include "mirrord/service/target.h"
#include "mirrord/service/walker.h"

namespace tarn {

class Service : public ServiceControl {
 public:
  /* How the channel to the module is opened. */
  struct Connection {
    Claim claim = Claim::kRefuseIfTaken;           /* at the first attempt */
    bool needed = false;                           /* run() fails if the first attempt does */
    std::unique_ptr<ChannelStore> store = nullptr; /* or null */
  };

  /* Opens the logs and the targets' states; starts nothing. Errors: the state directory is in use,
   * another user's or of another version; a source is another directory than before. */
  static Result<std::unique_ptr<Service>> open(Config config, const Site &site,
                                               Connection connection);

  /* Until one of the signals. Then takes what the module has sent, and lets the targets apply what
   * is logged for a while; with a store it goes on taking meanwhile. Errors: those of the control
   * socket; -ENOTCONN: the connection is needed and there is none. */
  Result<void> run(SignalPipe &signals);

  /* After run(): the targets that may differ from their source, a line each. */
  std::vector<std::string> incomplete();

  ServiceReport report() override;
  Result<void> wait(const TargetName &name, std::chrono::milliseconds timeout,
                    const Progress &progress) override;
  Result<void> pause(const TargetName &name) override;
  Result<void> resume(const TargetName &name) override;
  Result<void> resync(const TargetName &name) override;
  Result<std::string> skip(const TargetName &name) override;
  Result<void> retire(const TargetName &name) override;
  Result<std::vector<Difference>> verify(const TargetName &name, bool repair,
                                         const Progress &progress) override;

 private:
  struct ReplicatedSource {
    SourceConfig config;
    RuleDirectories lists;
    RuleScope scope;
    std::unique_ptr<Intake> intake;
    std::unique_ptr<Walker> walker;
    std::vector<std::unique_ptr<Target>> targets;
    std::vector<std::unique_ptr<StreamTarget>> streams;
    std::vector<std::unique_ptr<Answering>> answering; /* while it runs: one for each stream */

    explicit ReplicatedSource(const SourceConfig &from);
    bool includes(const std::string &path) const; /* relative to the source */
    LogPosition followed(const std::set<std::string> &walked) const;
    void release();
    bool make_room();
  };
  Service(Config config, Site site, StateDirectory state, Connection connection)
      : config_(std::move(config)),
        site_(std::move(site)),
        state_(std::move(state)),
        store_(std::move(connection.store)),
        connection_needed_(connection.needed) {}

  Result<void> open_source(const SourceConfig &config);
  Result<void> open_target(ReplicatedSource &source, const TargetConfig &config,
                           const std::string &directory);
  Result<void> open_stream(ReplicatedSource &source, const StreamTargetConfig &config,
                           const std::string &directory);
  Result<std::vector<Target *>> named(const TargetName &name);
  std::vector<std::pair<StreamTarget *, LogPosition>> streams_to_wait_for(const TargetName &name);
  Result<void> wait_slice(const std::vector<Target *> &targets, std::uint64_t mark,
                          std::chrono::steady_clock::time_point end, const Progress &progress);
  Result<void> wait_for_streams(const TargetName &name, std::uint64_t mark,
                                std::chrono::steady_clock::time_point end,
                                const Progress &progress);
  Result<std::uint64_t> request_mark();
  SourceReport report_of(const ReplicatedSource &source) const;
  void start_answering(ReplicatedSource &source);
  void say_begun() const;
  void housekeeping();
  void tell_tarn(const ServiceReport &report);
  static void say_once(std::string &error, const Result<void> &written);
  void stop();

  const Config config_;
  const Site site_;
  const StateDirectory state_;
  const std::unique_ptr<ChannelStore> store_; /* or null */
  const bool connection_needed_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<ReplicatedSource>> sources_;
  std::unique_ptr<Receiver> receiver_;
  std::optional<DaemonReport> told_tarn_;
  std::string metrics_error_, report_error_; /* said already */
};

}  // namespace tarn

#endif
