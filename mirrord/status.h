/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A mirrord's status and the status file: one JSON object, replaced atomically. mirrord(8) lists
 * the fields.
 */
#ifndef TARN_MIRRORD_STATUS_H
#define TARN_MIRRORD_STATUS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

#include "base/result.h"
#include "client/uuid.h"

namespace tarn {

struct RuleStatus {
  std::uint32_t last_wseq = 0; /* of the last record that was handled */
  std::uint64_t messages = 0;  /* records; each page of a large write counts */
  std::uint64_t bytes = 0;     /* written data */
  /* Messages about files without a name, which cannot be opened again: harmless. */
  std::uint64_t nameless = 0;
  std::uint64_t failures = 0; /* messages that could not be applied */
  std::uint64_t gaps = 0;     /* ranges of missing numbers, at the beginning too */
  std::uint64_t duplicates = 0;
  bool stopped = false;   /* the module has stopped capturing for the rule */
  bool unchecked = false; /* unknown yet whether records since the last run are missing */
};

struct MirrorStatus {
  pid_t pid = 0;
  bool running = true;
  std::string source;
  std::string replica;
  std::uint64_t lost = 0;      /* times that the module could not deliver a message */
  std::uint64_t malformed = 0; /* packets that are no messages */
  std::uint64_t foreign = 0;   /* packets of other programs, ignored: harmless */
  /* Times that it stayed unknown whether the replica is complete: the module did not answer, the
   * state file was unreadable, or a comparison with the source failed. */
  std::uint64_t unconfirmed = 0;
  /* The replica's file system reported the failure of a write only after the write had returned. */
  std::uint64_t write_back_errors = 0;
  /* All changes that programs made before this time of the monotonic clock are in the replica;
   * nanoseconds. */
  std::int64_t caught_up_to_ns = 0;
  std::map<Uuid, RuleStatus> rules;

  /* The number of problems that may make the replica differ from the source. */
  std::uint64_t problems() const;
};

/* Checks that a status file can be written there, with write_status()'s error if not; does not
 * change an existing one. "": succeeds. */
Result<void> check_status_file(const std::string &file);

Result<void> write_status(const std::string &file, const MirrorStatus &status);

/* The fields of the status file that a waiting program needs. */
struct CatchUpState {
  pid_t pid = 0;
  bool running = false;
  std::int64_t caught_up_to_ns = 0;
  std::uint64_t problems = 0;
};
Result<CatchUpState> read_status(const std::string &file);

std::int64_t monotonic_ns();

}  // namespace tarn

#endif
