/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Marks the paths of the replica that may be ahead of the records.
 *
 * A record describes the source when it was captured; reading the source gives its present state. A
 * copy from the source therefore contains changes whose records are still to be applied, and these
 * refer to the names of the time in between. Applying them to such a path would do harm: a write
 * could hit another file that has got the name since.
 *
 * So a path that was copied from the source is marked. While the mark lasts, a record that names
 * the path, or a path below it, or changes a directory above it, only causes the path to be copied
 * from the source again; the record's other path is marked as well. This converges: the last record
 * of a path comes after the last change of the path, and the copy comes after the record. An object
 * that leaves a marked path before the copy is found by the record of its leaving.
 *
 * A mark ends with the first record that was captured a while (kHorizon) after the copy: changes
 * made before the copy have been captured by then, and later records find the replica in the state
 * of their capture. When the wall clock is set back, records of before the copy seem to be captured
 * after it, and those of after the copy before it. So a record must have been logged that long
 * after the copy, too, and one that was logged much longer after it (kLongest) ends the mark in any
 * case.
 *
 * Marks of the second kind are about contents, not names: the path has the right object, but its
 * owner, mode, or bytes from some offset on were copied from the present object of that name in the
 * source, which may already be another one. They move with the object, whose contents are copied
 * again under its new name.
 */
#ifndef TARN_MIRRORD_PENDING_PATHS_H
#define TARN_MIRRORD_PENDING_PATHS_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "client/uuid.h"

namespace tarn {

/* A record whose object neither the source nor the replica had any more. It is no loss if a later
 * record tells where the object went. */
struct Unexplained {
  Uuid rule = {};
  std::uint32_t wseq = 0; /* 0: none */
  std::string what = {};
};

class PendingPaths {
 public:
  static constexpr std::chrono::microseconds kHorizon = std::chrono::seconds(5);
  /* Between the capture of a record and its place in the log. */
  static constexpr std::chrono::microseconds kLongest = std::chrono::seconds(60);
  static constexpr std::uint64_t kNoData = std::numeric_limits<std::uint64_t>::max();
  static constexpr std::uint64_t kUnknown = std::numeric_limits<std::uint64_t>::max();

  /* The clock that records are captured by. While it is unknown, no mark ends. */
  using Clock = std::function<Result<std::int64_t>()>;
  PendingPaths(std::chrono::microseconds horizon, Clock clock)
      : horizon_(horizon), clock_(std::move(clock)) {}

  /* When a record was captured, by the wall clock, and when it was logged, by a clock that is never
   * set; in microseconds. Where there is no log both are one. */
  struct Time {
    std::uint64_t captured = 0, logged = 0;
  };
  using Now = std::function<std::uint64_t()>;
  /* The clock of logged times. */
  void set_log_clock(Now now) { log_clock_ = std::move(now); }
  /* The end of a mark that is made now; kUnknown, both, while the captured records' clock is. */
  Time horizon() const;
  /* Is a record of that time behind the end? */
  static bool is_behind(const Time &record, const Time &until);

  struct Mark {
    bool names = false;                /* the first kind; covers the paths below too */
    std::uint64_t data_from = kNoData; /* the second kind: bytes from here on are in doubt */
    Time until = {};                   /* ends with a record that is later by both clocks */
    Unexplained missing = {};
  };

  /* Returns the path's mark, made if there is none. Its time starts anew. */
  Mark &mark(const std::string &path);
  Mark *find(const std::string &path);

  /* Is a mark of the first kind on the path or on a directory above it? */
  bool covers(const std::string &path) const;

  /* Is one on a path below it? */
  bool covers_below(const std::string &path) const;

  /* The object was removed, with all below it: nothing about it is unexplained. Marks of the second
   * kind end; those of the first kind belong to the names and stay. */
  void removed(const std::string &path);
  /* A record removed or renamed the object: missing objects at the path and below it are
   * explained. */
  void explained(const std::string &path);
  /* The object was renamed: its marks move, and those of the first kind also stay at the old names.
   * Returns the new paths of the moved marks. */
  std::vector<std::string> moved(const std::string &from, const std::string &to);

  struct Expired {
    std::string path;
    Mark mark;
  };
  /* Ends the marks whose time is before that of a record. */
  std::vector<Expired> expire(const Time &record);

 private:
  struct Age {
    Time until;
    std::string path;
  };
  using Marks = std::map<std::string, Mark>;

  std::chrono::microseconds horizon_;
  Clock clock_;
  Now log_clock_; /* or none */
  Marks marks_;
  std::deque<Age> ages_; /* holds each mark with its present `until`, perhaps older ones too */
};

}  // namespace tarn

#endif
