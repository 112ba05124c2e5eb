/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which paths of the replica may be further than the records.
 *
 * A record says how the source was when it was captured; a look at the source says how it is now.
 * What was taken from the source contains changes whose records have not been applied yet, and
 * these say under which names things were in between. To replay them one by one on such a path
 * would do harm: a write that belongs to the former bearer of a name would land in the present one.
 *
 * So a path that was made by a look is marked, and as long as the mark stands, a record that names
 * the path, or something below it, or changes a directory above it, says no more than "look here
 * again". This ends as the source is: the last record that has to do with a path comes after the
 * last change of it, and the look comes after the record. The other path of such a record is marked
 * as well. An object that has left the path before the look is found by the record of its leaving.
 *
 * A mark ends with the first record that was captured a while (kHorizon) after the look: what a
 * program changed before the look has been captured by then. The records from there on find the
 * replica as it was when they were captured.
 *
 * Marks of the second kind are about contents, not names: the path leads to the right object, but
 * its owner, mode, or bytes from some offset on were taken from what the source had there, which
 * may have been another object already. They travel with the object, and its contents are taken
 * again where it comes to rest.
 */
#ifndef TARN_MIRRORD_PENDING_PATHS_H
#define TARN_MIRRORD_PENDING_PATHS_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "client/uuid.h"

namespace tarn {

/* A record about an object that neither the source nor the replica had any more: right if a later
 * record tells where it went. */
struct Unexplained {
  Uuid rule = {};
  std::uint32_t wseq = 0; /* 0: none */
  std::string what = {};
};

class PendingPaths {
 public:
  static constexpr std::chrono::microseconds kHorizon = std::chrono::seconds(5);
  static constexpr std::uint64_t kNoData = std::numeric_limits<std::uint64_t>::max();

  explicit PendingPaths(std::chrono::microseconds horizon) : horizon_(horizon) {}

  struct Mark {
    bool names = false;                /* the first kind, for everything below as well */
    std::uint64_t data_from = kNoData; /* the second kind: bytes from here on are in doubt */
    std::uint64_t until = 0;           /* records captured later find it as it was then */
    Unexplained missing = {};
  };

  /* The path's mark, made if there is none; it stands from now on for the horizon. */
  Mark &mark(const std::string &path);
  Mark *find(const std::string &path);

  /* Is a mark of the first kind on the path or on a directory above it? */
  bool covers(const std::string &path) const;

  /* Is there one on something below the path? */
  bool covers_below(const std::string &path) const;

  /* The object, with all below it, has gone: its marks are explained. Those of the first kind are
   * the names', and stay. */
  void removed(const std::string &path);
  /* A record told that it has gone: no record about it, or what was below it, is missing. */
  void explained(const std::string &path);
  /* It goes by another name: the marks travel, and those of the first kind stay as well. Gives the
   * new paths of those that did. */
  std::vector<std::string> moved(const std::string &from, const std::string &to);

  struct Expired {
    std::string path;
    Mark mark;
  };
  /* Ends the marks that a record captured at `ts` is beyond. */
  std::vector<Expired> expire(std::uint64_t ts);

  /* The records that no later one has explained and that are older than `age`. Each is given once.
   */
  std::vector<Unexplained> take_missing(std::chrono::microseconds age);

 private:
  struct Age {
    std::uint64_t until;
    std::string path;
  };
  using Marks = std::map<std::string, Mark>;

  std::chrono::microseconds horizon_;
  Marks marks_;
  std::deque<Age> ages_; /* every mark is in here with its own time, at least once */
};

}  // namespace tarn

#endif
