/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The log of one source and what is appended to it: the module's records, gaps and marks by the
 * receiver's thread, walks by the walker's. A record that cannot be appended, because the disk is
 * full, becomes a gap that is appended as soon as there is room again; nothing is dropped in
 * silence. A thread of its own writes the log to the disk, so that nobody waits for it.
 *
 * Beside the log lies a document that says up to where each rule's records are in it, and the gap
 * that waits for room. It may be older than the log, never newer: open() reads on from there, and
 * a log that ends before has lost entries, which is a gap.
 */
#ifndef TARN_MIRRORD_SERVICE_INTAKE_H
#define TARN_MIRRORD_SERVICE_INTAKE_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <nlohmann/json_fwd.hpp>

#include "base/mutex.h"
#include "client/sequence.h"
#include "mirrord/log/log.h"
#include "mirrord/service/log_entries.h"
#include "mirrord/service/wall_clock.h"

namespace tarn {

class Intake {
 public:
  struct Options {
    std::string name;      /* of the source, for messages */
    std::string directory; /* where the log and the document lie */
    std::uint64_t log_limit = 0;
    std::string rule_text =
        {}; /* what the source's rule includes: with another one all is compared */
  };
  /* Makes a log if there is none. */
  static Result<std::unique_ptr<Intake>> open(Options options);
  ~Intake();
  Intake(const Intake &) = delete;
  Intake &operator=(const Intake &) = delete;

  Log &log() { return *log_; }
  const Log &log() const { return *log_; }
  /* The source's rule: made with the log, kept as long. */
  const Uuid &rule() const { return rule_; }

  /* Called when the log is at its limit: releases entries, and returns whether it did. Set it
   * before the first append. */
  void set_make_room(std::function<bool()> make_room) { make_room_ = std::move(make_room); }

  /* Where the records of the rule end in the log; nothing if there were none. */
  std::optional<Sequencer::Position> received() const EXCLUDES(mutex_);

  void record(const Record &record, Bytes packet) EXCLUDES(mutex_);
  /* Changes since the last record are missing; `everything`: perhaps older ones too. */
  enum class Missing { kSinceLastRecord, kEverything };
  void gap(Missing missing, const std::string &reason) EXCLUDES(mutex_);
  /* False: it could not be appended. */
  bool mark(const MarkEntry &entry) EXCLUDES(mutex_);
  /* For the walker. An error means that nothing was appended. */
  Result<LogPosition> append(EntryKind kind, Bytes payload) EXCLUDES(mutex_);
  /* An entry of another host's log, as it came from there. As append(). */
  Result<LogPosition> copy(const LogEntry &entry) EXCLUDES(mutex_);

  /* Where the log ended when it was opened. What was read behind it once is lost, and its positions
   * are given to other entries. */
  LogPosition found_end() const { return found_end_; }
  /* Was something wrong with the log then, so that there is a gap, or one waits for room? */
  bool found_whole() const EXCLUDES(mutex_);
  /* Is nothing behind the last mark, nor a gap waiting for room? */
  bool marked() const EXCLUDES(mutex_);
  /* The number of the last mark in the log; 0: none. */
  std::uint64_t last_mark() const EXCLUDES(mutex_);
  /* Times in entries before it are not to be compared with later ones: the clock was set back. */
  LogPosition clock_set_back_at() const EXCLUDES(mutex_);
  /* How often it was, as far as was noticed; looks now. */
  std::uint64_t clock_set_backs() EXCLUDES(mutex_);

  struct Counts {
    std::uint64_t captured = 0; /* the highest record number */
    std::uint64_t logged = 0;   /* records since the log was made */
    std::uint64_t gaps = 0;
    std::string last_gap;
  };
  Counts counts() const EXCLUDES(mutex_);

  /* Writes all to the disk. */
  Result<void> save() EXCLUDES(save_mutex_, mutex_);

 private:
  explicit Intake(Options options) : options_(std::move(options)) {}

  struct Received {
    std::optional<Sequencer::Position> position;
    std::int64_t last_record = 0; /* when it was captured, microseconds; 0: never */
    LogPosition last_record_at = 0;
    LogPosition set_back_at = 0; /* clock_set_back_at() */
    std::uint64_t set_backs = 0;
    std::uint64_t last_mark = 0;
    Counts counts;
  };

  Result<void> load();
  LogPosition read_document_fields(const nlohmann::json &json);
  void read_gap(Bytes payload) REQUIRES(mutex_);
  Result<void> read_on(LogPosition from);
  void note_locked(const LogEntry &entry, LogPosition position) REQUIRES(mutex_);
  void take_locked(const Record &record, LogPosition position) REQUIRES(mutex_);
  void watch_clock_locked() REQUIRES(mutex_);
  std::int64_t missing_since_locked(Missing missing) const REQUIRES(mutex_);
  Result<LogPosition> append_locked(EntryKind kind, Bytes payload) REQUIRES(mutex_);
  enum class Room { kMake, kWaitFor };
  bool append_pending_gap_locked(Room room = Room::kMake) REQUIRES(mutex_);
  void declare(std::int64_t since, const std::string &reason) EXCLUDES(mutex_);
  void write_behind();

  const Options options_;
  std::unique_ptr<Log> log_;
  LogPosition found_end_ = 0;
  Uuid rule_;
  std::function<bool()> make_room_;
  Mutex save_mutex_; /* one thread at a time writes the document; taken before mutex_ */
  std::string written_ GUARDED_BY(save_mutex_); /* what the document has, but for the clock */
  mutable Mutex mutex_;
  Received received_ GUARDED_BY(mutex_);
  std::optional<GapEntry> pending_gap_
      GUARDED_BY(mutex_);                 /* could not be appended yet; the document has it too */
  ClockReading clock_ GUARDED_BY(mutex_); /* the one that was furthest ahead */
  std::chrono::steady_clock::time_point set_back_ GUARDED_BY(mutex_){}; /* noticed */
  bool marked_ GUARDED_BY(mutex_) = true;
  Condition stop_changed_;
  bool stop_ GUARDED_BY(mutex_) = false;
  std::string save_error_; /* said already */
  std::thread writer_;
};

}  // namespace tarn

#endif
