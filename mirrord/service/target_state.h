/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What is kept of a target over a restart, and which directory it is: a path may lead to another
 * one, because nothing is mounted there or something else is.
 */
#ifndef TARN_MIRRORD_SERVICE_TARGET_STATE_H
#define TARN_MIRRORD_SERVICE_TARGET_STATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/uuid.h"
#include "mirrord/doubts.h"
#include "mirrord/service/log_entries.h"

namespace tarn {

/* Device numbers change between boots, and inode numbers are reused. */
struct DirectoryIdentity {
  std::string object;      /* inode number and birth time */
  std::string mount_point; /* of the file system that it lies on, printable */
  bool operator==(const DirectoryIdentity &) const = default;
};
/* Errors: -ENOENT, -ENOTDIR and others of the look-up. */
Result<DirectoryIdentity> identify_directory(const std::string &path);
/* Errors: those of reading it. */
Result<bool> directory_is_empty(const std::string &path);

/* How far a walk is that is under way. */
struct WalkPlace {
  WalkBeginEntry begin = {};
  std::uint64_t position = 0; /* all entries before it are in the target, but for what follows */
  std::string after = {};     /* the last directory that was looked at */
  std::vector<std::string> suspects = {}; /* paths to be copied from the source at a mark */
  Doubts doubts = {};
  std::int64_t last_captured = 0; /* the latest record before the next mark */
  DirectoryIdentity source = {};  /* what is walked over */
  bool operator==(const WalkPlace &) const = default;
};

struct TargetState {
  Uuid uuid = {};                                 /* of the replicated directory, made once */
  std::optional<DirectoryIdentity> identity = {}; /* nothing: never used, or to be compared anew */
  std::string log = {};                           /* the epoch of the log that the position is of */
  std::uint64_t position = 0;                     /* all entries before it are in the target */
  bool clean = false;                             /* and none behind it, nor is anything in doubt */
  std::int64_t until = 0;                         /* of the last mark that was applied */
  std::optional<std::int64_t> missing_since = {}; /* not healed yet */
  /* The data of files that changed since then may be missing though their times are here: they are
   * read whatever their size and time say. */
  std::optional<std::int64_t> read_since = {};
  bool compare_data = false;          /* of all files, and from the disk */
  std::optional<WalkPlace> walk = {}; /* where the next process goes on, if nothing comes between */
  bool paused = false;
  std::vector<std::string> names_outside = {}; /* paths whose files have names outside the rule */
  bool more_names_outside = false;             /* than kMostNamesOutside */
  static constexpr std::size_t kMostNamesOutside = 16384;
  std::uint64_t clock_set_backs = 0; /* Intake::clock_set_backs() when `missing_since` was right */
  std::uint64_t applied = 0, failures = 0, gaps = 0, skipped = 0;
};

/* Nothing: there is no file. Error -EBADMSG: it cannot be used; the text says what to do. */
Result<std::optional<TargetState>> read_target_state(const std::string &file);
Result<void> write_target_state(const std::string &file, const TargetState &state);

}  // namespace tarn

#endif
