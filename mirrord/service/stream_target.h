/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A target of a source that is on other hosts: a thread sends the source's log to a stream, from
 * which any number of replicas take it. What happens to it concerns no other target and no writer:
 * while the servers are away or the stream is full, the log keeps what was not sent.
 *
 * The servers acknowledge before they have synced, so the log keeps an entry until the stream has
 * it and every known replica has said that it has applied it. A replica is known from its first
 * report until it is retired. Beside the target's state file, nothing is kept: the stream itself
 * says how far it is.
 *
 * The functions of the class may be called by any thread.
 */
#ifndef TARN_MIRRORD_SERVICE_STREAM_TARGET_H
#define TARN_MIRRORD_SERVICE_STREAM_TARGET_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "mirrord/control/control.h"
#include "mirrord/log/log.h"
#include "mirrord/stream/assembler.h"
#include "mirrord/stream/publisher.h"

namespace tarn {

/* A log as its stream's publisher reads it: what is on the disk, as nothing else stays as it is.
 * Damage is skipped, so it is a hole in the stream. */
class DurableEntries : public EntryReader {
 public:
  DurableEntries(Log &log, std::string about) : log_(log), about_(std::move(about)) {}

  const Uuid &epoch() const override { return log_.epoch(); }
  LogPosition first() const override { return log_.first(); }
  LogPosition end() const override { return log_.durable_end(); }
  Result<std::optional<LogEntry>> read(LogPosition position) override;
  void wait(LogPosition end, std::chrono::milliseconds time) override;

 private:
  Log &log_;
  const std::string about_;
  std::optional<LogReader> reader_;
  std::optional<LogEntry> last_; /* what reader_ returned last */
};

/* The subject of what replicas ask the source's host: of its connection, subject(this). */
inline constexpr char kQuestions[] = "ask";

/* What a replica says of itself. */
struct ReplicaState {
  StreamPosition applied = {}; /* it needs nothing of the stream before it */
  std::string state, error;    /* as in TargetReport, like what follows */
  double lag_seconds = 0;
  std::uint64_t gaps = 0;
  bool operator==(const ReplicaState &) const = default;
};

class StreamTarget {
 public:
  struct Options {
    std::string source; /* its name */
    std::string name;
    StreamConfig stream;
    std::string state_file;
    LogPosition log_end = std::numeric_limits<LogPosition>::max(); /* when it was opened */
  };
  using Clock = std::chrono::steady_clock;

  /* Reads the state; connects to nothing yet. */
  static Result<std::unique_ptr<StreamTarget>> open(Options options, Log &log);
  ~StreamTarget();
  StreamTarget(const StreamTarget &) = delete;
  StreamTarget &operator=(const StreamTarget &) = delete;

  void start();
  /* Ends the thread, when the stream has what the log holds or at `end`. */
  void stop(Clock::time_point end);

  const std::string &name() const { return options_.name; }
  Connection &connection() { return connection_; }

  /* Of the target, and one for each known replica. */
  std::vector<TargetReport> reports() const EXCLUDES(mutex_);

  /* A replica has reported. The first time, it is on the disk when this returns. */
  Result<void> replica_reported(const std::string &name, const ReplicaState &state)
      EXCLUDES(mutex_);
  /* A replica lacks the entry, and has looked at the stream's messages up to the number `seen`. The
   * stream gets it again with all that follow, as long as the log has it; false: it does not.
   * -ESTALE: of another log or run, which the stream says by itself. */
  Result<bool> send_again(const StreamPosition &wanted, std::uint64_t seen) EXCLUDES(mutex_);
  /* Nothing is kept for it any more. -ENOENT: it is not known. */
  Result<void> retire(const std::string &name) EXCLUDES(mutex_);

  /* Until the stream has all entries before the position. Errors: -ETIMEDOUT; -EIO: the servers are
   * away, or the stream is full. */
  Result<void> wait(LogPosition position, Clock::time_point end) const;

  /* The log's entries before it are not needed any more. */
  LogPosition needed() const EXCLUDES(mutex_);
  /* Where it reads the log at present; the largest position while it does not. */
  LogPosition following() const;
  /* The log is full: whoever lacks what it holds does without. */
  void drop_claim() EXCLUDES(mutex_);
  /* Called from time to time: saves what replicas have reported, and lets the stream forget what
   * all of them have. */
  void tidy() EXCLUDES(mutex_);

 private:
  struct Replica {
    ReplicaState state;
    std::optional<Clock::time_point> contact; /* since the start */
  };

  StreamTarget(Options options, Log &log);
  Result<void> load() EXCLUDES(mutex_);
  void make_publisher() EXCLUDES(mutex_);
  Result<void> save() EXCLUDES(save_mutex_, mutex_);
  Uuid epoch_locked() const REQUIRES(mutex_);
  LogPosition applied_locked() const REQUIRES(mutex_);
  TargetReport report_of(const std::string &name, const Replica &replica) const REQUIRES(mutex_);
  std::string about() const { return options_.source + "/" + options_.name; }

  const Options options_;
  Log &log_;
  DurableEntries entries_;
  Connection connection_;
  std::unique_ptr<StreamPublisher> publisher_;
  std::thread thread_;

  Mutex save_mutex_; /* taken before mutex_ */
  mutable Mutex mutex_;
  std::uint32_t run_ GUARDED_BY(mutex_) = 0;
  std::map<std::string, Replica> replicas_ GUARDED_BY(mutex_);
  LogPosition dropped_ GUARDED_BY(mutex_) = 0; /* nothing before it is kept for anybody */
  bool unsaved_ GUARDED_BY(mutex_) = false;
};

}  // namespace tarn

#endif
