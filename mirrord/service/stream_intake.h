/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The receiver of a replica: takes the entries of a stream, and appends each to the replica's own
 * log, once and in order. A thread of its own.
 *
 * The log has the stream's entries one for one, behind an entry that says which one is the first
 * (kJoin): at the log's beginning, behind a hole of the stream, and where the log has entries of
 * its own. So where the log ends says which entry is wanted next, after kill -9 too.
 *
 * At a hole it asks the source's host, and waits until the stream has again what it lacks. Only
 * what the source's log has no more is declared, in a joint: the target is compared with the
 * source.
 *
 * While the log has no room, nothing is taken: the stream keeps it, and the source's log if that is
 * full too. Beside the log lies a document with the joints, of which the log may forget the
 * entries.
 */
#ifndef TARN_MIRRORD_SERVICE_STREAM_INTAKE_H
#define TARN_MIRRORD_SERVICE_STREAM_INTAKE_H

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/connection_problem.h"
#include "mirrord/stream/consumer.h"

namespace tarn {

class StreamIntake {
 public:
  struct Options {
    std::string about;                    /* for messages */
    std::string replica;                  /* its name */
    std::string file;                     /* the document */
    std::function<LogPosition()> applied; /* what lies before it in the log is not needed */
    /* Called by the thread for each entry that was appended. */
    std::function<void(const LogEntry &entry, LogPosition position)> appended;
    /* Called by the thread. Asks the source's host whether it sends the entry again, which is
     * neither in the stream up to the message `seen` nor known to be behind it. */
    std::function<Result<bool>(const StreamPosition &wanted, std::uint64_t seen)> again;
  };
  /* Finds where the log goes on; connects to nothing yet. Errors: those of reading. */
  static Result<std::unique_ptr<StreamIntake>> open(Options options, Connection &connection,
                                                    Intake &intake);
  ~StreamIntake();
  StreamIntake(const StreamIntake &) = delete;
  StreamIntake &operator=(const StreamIntake &) = delete;

  void start();
  /* Ends the thread; any number of times. */
  void stop();

  /* Any thread. Does what is sent to the stream now come here? */
  bool follows() const { return follows_; }
  /* Any thread. Why nothing comes at present; "": it does. */
  std::string problem() const { return problem_.text(); }
  /* Any thread. The place in the stream of a place in the log; nothing: it is not known. */
  std::optional<StreamPosition> in_stream(LogPosition position) const EXCLUDES(mutex_);
  /* Any thread. The first entry of the stream that is needed while those of the log before
   * `applied` are not. What lies in the log before the stream's present epoch is not in the stream
   * any more: then it is the epoch's first one here. Nothing: no entry has come yet. */
  std::optional<StreamPosition> needed(LogPosition applied) const EXCLUDES(mutex_);

 private:
  /* The entry at `at` is a joint, and `first` the one in the stream that follows. */
  struct Joint {
    LogPosition at = 0;
    StreamPosition first = {};
  };

  StreamIntake(Options options, Connection &connection, Intake &intake)
      : options_(std::move(options)), connection_(connection), intake_(intake) {}
  Result<void> load();
  Result<void> find_joints(LogPosition from) EXCLUDES(mutex_);
  Result<void> save() EXCLUDES(mutex_);
  void run();
  void step();
  void stop_at_hole();
  void ask_again();
  void declare_hole();
  void append(const std::vector<LogEntry> &entries);
  Result<void> append_one(const LogEntry &entry);
  Result<void> join(const StreamPosition &first);
  void acknowledge();
  void pause();

  const Options options_;
  Connection &connection_;
  Intake &intake_;

  /* The thread's own. */
  std::optional<StreamConsumer> consumer_;
  std::optional<JoinEntry> joint_; /* to be appended before the next entry */
  bool unsaved_ = false;
  LogPosition acknowledged_ = 0;
  std::chrono::steady_clock::time_point ask_at_{}; /* while it waits at a hole */
  std::chrono::steady_clock::duration ask_pause_{};

  ConnectionProblem problem_{options_.about, "follows the stream"};

  std::thread thread_;
  std::atomic<bool> stop_ = false, follows_ = false;
  mutable Mutex mutex_;
  std::deque<Joint> joints_ GUARDED_BY(mutex_); /* ascending */
};

}  // namespace tarn

#endif
