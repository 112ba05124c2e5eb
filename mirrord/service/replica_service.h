/* SPDX-License-Identifier: GPL-2.0 */
/*
 * `mirrord replica`: the service on a host that has no source, but a replica of one. Its log comes
 * from a stream (stream_intake.h) and not from the module, what it has to see of the source it asks
 * the source's host (mirrord/remote), and so it does for walks and marks; the target, the control
 * socket and the state are those of the service.
 *
 * What the source is, the source's host says, and a document keeps it: until it has answered for
 * the first time, there is nothing but the control socket.
 *
 * One thread makes it, runs it and destroys it; the functions of ServiceControl may be called by
 * any thread in between.
 */
#ifndef TARN_MIRRORD_SERVICE_REPLICA_SERVICE_H
#define TARN_MIRRORD_SERVICE_REPLICA_SERVICE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/rule_scope.h"
#include "client/signal_pipe.h"
#include "mirrord/config/config.h"
#include "mirrord/config/state_directory.h"
#include "mirrord/control/control.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/source_contact.h"
#include "mirrord/service/stream_intake.h"
#include "mirrord/service/target.h"
#include "mirrord/stream/requests.h"

namespace tarn {

/* Questions through the servers of a stream. */
class StreamRequests final : public Requests {
 public:
  explicit StreamRequests(Connection &connection);
  Result<std::vector<std::byte>> ask(Bytes question) override;

 private:
  RequestSender sender_;
};

class ReplicaService final : public ServiceControl {
 public:
  /* Opens the log and the target's state; starts nothing. Errors: the state directory is in use,
   * another user's or of another version. */
  static Result<std::unique_ptr<ReplicaService>> open(const Config &config);
  ~ReplicaService() override;

  /* Until one of the signals, or until the source's host says that the source is another directory
   * or excludes others: then it has to be opened anew. Errors: those of the control socket, and of
   * opening what was not there before. */
  enum class End { kSignal, kOpenAnew };
  Result<End> run(SignalPipe &signals);

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
  /* What there is once the source is known. */
  struct Parts {
    remote::AboutAnswer source;
    RuleDirectories lists;
    RuleScope scope;
    std::unique_ptr<Intake> intake;
    std::unique_ptr<Target> target;
    std::unique_ptr<StreamIntake> receiver; /* ends before the target */

    explicit Parts(const remote::AboutAnswer &about);
    bool includes(const std::string &path) const; /* relative to the source */
    /* What lies before it in the log, nobody else has to keep. */
    LogPosition taken() const;
    bool make_room() const;
    void look_for_mark();

   private:
    std::atomic<LogPosition> unmarked_ = 0; /* applied for long and on the disk, without a mark */
    LogPosition seen_end_ = 0;              /* the log ends there since ... */
    std::chrono::steady_clock::time_point seen_at_{};
  };

  ReplicaService(const Config &config, StateDirectory state, std::string directory);
  Result<void> read_source();
  Result<void> keep_source(const remote::AboutAnswer &source) const;
  Result<void> open_parts(const remote::AboutAnswer &source);
  Result<bool> ask_again(const StreamPosition &wanted, std::uint64_t seen);
  void start_parts();
  Result<bool> look_at_source();
  Result<Target *> named(const TargetName &name);
  Result<void> settle(Target &target, std::chrono::steady_clock::time_point end,
                      const Progress &progress);
  std::optional<remote::ReportQuestion> own_report() const;
  TargetReport target_report() const;
  SourceReport source_report() const;
  std::string why_not_ready() const;
  void housekeeping();

  const Config config_;
  const ReplicaConfig &replica_; /* config_'s */
  const StateDirectory state_;
  const std::string directory_; /* the replica's, in state_ */
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  Connection connection_;
  StreamRequests requests_;
  SourceContact contact_;
  std::unique_ptr<Parts> parts_;
  std::atomic<Parts *> ready_ = nullptr; /* parts_ when it is started */
  std::string metrics_error_;            /* said already */
};

/* Opens it, and runs it until one of the signals. Errors: those of open() and run(). */
Result<void> run_replica(const Config &config, SignalPipe &signals);

}  // namespace tarn

#endif
