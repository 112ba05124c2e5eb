/* SPDX-License-Identifier: GPL-2.0 */
/*
 * One target of a source: a directory in which a thread of its own replays the source's log. What
 * happens to a target concerns no other one and no writer.
 *
 * Its position is durable at marks, when all before it has been compared with the source and is on
 * the disk. A process that ended without that may have applied more: the records until its next
 * start are then not replayed, but the paths that they name are copied from the source.
 *
 * Errors of the machine (a full or read-only file system, I/O, memory) hold the target: the entry
 * is tried again with growing pauses, until it succeeds or is skipped. After any other error, the
 * record's paths are copied from the source at the next mark, and if that fails too, they are
 * missing. Changes that are missing are found by a walk (walker.h), which is repeated until all of
 * them are copied.
 *
 * The functions of the class may be called by any thread.
 */
#ifndef TARN_MIRRORD_SERVICE_TARGET_H
#define TARN_MIRRORD_SERVICE_TARGET_H

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "mirrord/applier.h"
#include "mirrord/control/control.h"
#include "mirrord/log/log.h"
#include "mirrord/replica.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/target_state.h"
#include "mirrord/service/walks.h"

namespace tarn {

class Target {
 public:
  struct Options {
    std::string source;           /* its name */
    std::string source_directory; /* absolute */
    RuleDirectories lists;        /* of the source's rule */
    std::string name;
    std::string directory;
    std::string state_file;
    LogPosition log_end = std::numeric_limits<LogPosition>::max(); /* when it was opened */
    std::uint64_t copy_bytes_per_second = 0;                       /* 0: no limit */
    /* Looks at a source of another host, at each attach; empty: the directory is on this one. */
    std::function<std::unique_ptr<Source>()> view = {};
    std::string walked_as = {}; /* its name in walks; "": `name` */
  };
  using Clock = std::chrono::steady_clock;

  /* Reads the state; changes nothing yet. */
  static Result<std::unique_ptr<Target>> open(Options options, Intake &intake, Walks &walks);
  ~Target();
  Target(const Target &) = delete;
  Target &operator=(const Target &) = delete;

  void start();
  /* Ends the thread: applies what the log holds if that takes no longer than until `end`. A copy
   * that takes longer is interrupted, and goes on at the next start. */
  void stop(Clock::time_point end);

  const std::string &name() const { return options_.name; }
  const std::string &directory() const { return options_.directory; }
  /* Of the replicated directory in the module. */
  const Uuid &uuid() const { return uuid_; }
  TargetReport report() const EXCLUDES(mutex_);
  /* Each of these is in the state file when it returns. Errors: -ETIMEDOUT: not yet, because the
   * entry that is being applied takes long; -EIO: the target does not run; those of writing the
   * file: done, but a restart forgets it. */
  Result<void> pause() EXCLUDES(mutex_);
  Result<void> resume() EXCLUDES(mutex_);
  /* Compares everything anew. Accepts the directory that is there now, whichever it is. */
  Result<void> resync() EXCLUDES(mutex_);
  /* Steps over the entry that holds the target, and returns what it was. */
  Result<std::string> skip() EXCLUDES(mutex_);
  /* Until the mark is applied and nothing is missing. Errors: -ETIMEDOUT; -EIO if it is paused,
   * held or away. */
  Result<void> wait(std::uint64_t mark, Clock::time_point end) EXCLUDES(mutex_);

  /* Runs `work`, which may change the directory, in the target's thread between two entries.
   * Errors: -EIO: the target is ending; -ENODEV: another directory is in its place. */
  Result<void> between_entries(const std::function<void()> &work) EXCLUDES(mutex_);

  /* The log's entries before it are not needed any more. */
  LogPosition needed() const { return needed_; }
  /* Where it reads the log at present; the largest position while it does not. */
  static constexpr LogPosition kNotFollowing = std::numeric_limits<LogPosition>::max();
  LogPosition following() const { return following_; }
  /* The log is full: the target does without the entries that it has not read and is compared with
   * the source instead. */
  void drop_claim();

 private:
  Target(Options options, Intake &intake, Walks &walks)
      : options_(std::move(options)), intake_(intake), walks_(walks) {}

  struct Engine {
    explicit Engine(Replica opened) : replica(std::move(opened)) {}
    Replica replica;
    std::optional<Applier> applier; /* refers to `replica` */
  };

  enum class Phase { kStarting, kAway, kHeld, kRunning };

  void run();
  bool take_requests() EXCLUDES(mutex_);
  void take_resync() EXCLUDES(mutex_);
  void take_work() EXCLUDES(mutex_);
  void take_pause() EXCLUDES(mutex_);
  Result<void> save_pause();
  void note_request_locked(const Result<void> &saved) REQUIRES(mutex_);
  Result<void> until_taken(bool Target::*request) EXCLUDES(mutex_);
  bool asked_locked() const REQUIRES(mutex_);
  Result<void> attach();
  Result<void> try_to_attach();
  Result<void> check_source() const;
  Result<void> check_identity(const DirectoryIdentity &there);
  Result<void> close_to_others();
  void note_lost_end();
  void begin_in_log();
  void note_walk_place();
  bool walk_goes_on() const;
  void go_on_with_walk();
  void ask_for_rest_of_walk();
  void walk_fails();
  LogPosition kept_from() const;
  LogPosition furthest_saved() const;
  void detach();
  bool still_there();
  void finish();
  bool at_rest() const;
  void step();
  void save_sometimes();
  void idle();
  void unreadable(const Error &error);
  void apply_held(const LogEntry &entry);
  Result<void> apply(const LogEntry &entry);
  Result<void> apply_record(const LogEntry &entry);
  Result<void> not_applied(const Record &record, LogPosition position, const Error &error);
  void look_for_unplaced(std::int64_t since, LogPosition position);
  Result<void> apply_mark(const MarkEntry &mark, std::int64_t appended);
  std::int64_t changed_before(const MarkEntry &mark, std::int64_t appended) const;
  Result<void> apply_look(const LookEntry &look);
  void apply_walk_begin(const WalkBeginEntry &walk, LogPosition position);
  void apply_walk_end(const WalkEndEntry &walk);
  void not_copied(const std::string &what, const Error &error);
  Result<void> after_mark(const MarkEntry &mark);
  Result<void> write_back();
  Result<std::int64_t> source_now() const;
  std::int64_t since_until() const;
  std::int64_t confirmed_until() const;
  void note_clock();
  void keep_names_outside();
  void watch_names_outside();
  void missing(std::int64_t since, LogPosition position, const std::string &why);
  void note_missing(std::int64_t since, LogPosition position);
  void note_progress(const LookEntry &look);
  void look_for_missing(LogPosition position);
  void failed(const std::string &what, const Error &error);
  Result<void> save(bool clean);
  void writes_lost(const Error &error);
  void set_phase(Phase phase, const std::string &error = "") EXCLUDES(mutex_);
  void publish(std::int64_t entry_time_ns) EXCLUDES(mutex_);
  bool sleep(Clock::duration time) EXCLUDES(mutex_);
  const std::string &walked_as() const {
    return options_.walked_as.empty() ? options_.name : options_.walked_as;
  }
  std::string about() const { return options_.source + "/" + options_.name; }
  std::string describe_entry(const LogEntry &entry) const;

  const Options options_;
  Intake &intake_;
  Walks &walks_;

  Uuid uuid_;

  /* The thread's own. */
  TargetState state_;
  std::unique_ptr<Engine> engine_;
  std::optional<LogReader> reader_;
  LogPosition position_ = 0;              /* of the next entry to apply */
  LogPosition missing_at_ = 0;            /* a walk that begins before it is too early */
  std::optional<WalkBeginEntry> walk_;    /* under way in the log, and of use here */
  std::optional<std::string> walk_after_; /* the last directory that it has looked at */
  bool walk_left_off_ = false;            /* by another process: perhaps the log has no end of it */
  Clock::time_point walk_noted_at_{};     /* state_.walk */
  std::optional<double> walk_from_;       /* the share that was done when it began here */
  std::uint64_t read_before_walk_ = 0;    /* bytes of the source */
  bool walk_failed_ = false;              /* what it found could not be copied */
  bool walked_ = false;                   /* it has ended: the next mark ends `missing_since` */
  std::optional<std::int64_t> unplaced_since_; /* changes that the present walk may not find */
  std::int64_t last_captured_ = 0;             /* the latest record before the next mark */
  std::optional<struct stat> source_;          /* of this host: its directory when it was opened */
  std::set<std::string> suspects_;             /* copied from the source at the next mark */
  DirectoryIdentity identity_;
  Clock::time_point published_at_{}, saved_at_{}, checked_at_{}, compare_again_{};
  Clock::duration saving_{}; /* what the last one has taken */
  Clock::time_point walk_retry_at_{}, walk_started_{};
  bool unsaved_ = false;
  bool writes_lost_ = false; /* the last sync of the directory has failed */
  bool end_lost_ = false;    /* of the log: the position was behind it */

  std::thread thread_;
  std::atomic<LogPosition> needed_ = 0;
  std::atomic<LogPosition> following_ = kNotFollowing;
  std::atomic<bool> claim_dropped_ = false;
  std::atomic<bool> stop_ = false, interrupt_ = false;
  std::atomic<Clock::time_point> stop_by_ = Clock::time_point{};

  mutable Mutex mutex_;
  Condition changed_;
  bool paused_ GUARDED_BY(mutex_) = false;
  bool pause_changed_ GUARDED_BY(mutex_) = false; /* not in the state file yet */
  bool resync_ GUARDED_BY(mutex_) = false;
  std::optional<Error> request_error_ GUARDED_BY(mutex_); /* the last one is not in the file */
  bool skip_ GUARDED_BY(mutex_) = false;
  struct Work {
    const std::function<void()> &run;
    bool done = false;
  };
  Work *work_ GUARDED_BY(mutex_) = nullptr;   /* between_entries() waits for it */
  bool ended_ GUARDED_BY(mutex_) = true;      /* the thread does not run */
  std::string held_entry_ GUARDED_BY(mutex_); /* "": not held */
  Phase phase_ GUARDED_BY(mutex_) = Phase::kStarting;
  std::string error_ GUARDED_BY(mutex_);
  TargetState shown_ GUARDED_BY(mutex_);      /* with the present position */
  std::uint64_t mark_ GUARDED_BY(mutex_) = 0; /* applied, with nothing missing */
  double progress_ GUARDED_BY(mutex_) = -1, seconds_left_ GUARDED_BY(mutex_) = -1;
  double bytes_per_second_ GUARDED_BY(mutex_) = -1;
  std::int64_t entry_time_ns_ GUARDED_BY(mutex_) = 0; /* of the last applied entry */
};

}  // namespace tarn

#endif
