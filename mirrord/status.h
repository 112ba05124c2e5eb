/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a mirrord has done, and the file in which it says so: one JSON object, replaced in one step,
 * so that a reader never sees half of it. mirrord(8) lists the fields.
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
  std::uint32_t last_wseq = 0; /* of the last record that was dealt with */
  std::uint64_t messages = 0;  /* records; of a large write, each page */
  std::uint64_t bytes = 0;     /* written data */
  /* Messages about files without a name, which cannot be opened again: harmless. */
  std::uint64_t nameless = 0;
  std::uint64_t failures = 0; /* messages that could not be applied */
  std::uint64_t gaps = 0;     /* times that numbers were missing, at the beginning too */
  std::uint64_t duplicates = 0;
  bool stopped = false;   /* the module captures nothing more for it */
  bool unchecked = false; /* not known yet whether records since the last run are missing */
};

struct MirrorStatus {
  pid_t pid = 0;
  bool running = true;
  std::string source;
  std::string replica;
  std::uint64_t lost = 0;      /* times that the module could not deliver a message */
  std::uint64_t malformed = 0; /* packets that are no messages */
  std::uint64_t foreign = 0;   /* packets of other programs, not taken: they do no harm */
  /* Times that the module did not confirm that everything has come. */
  std::uint64_t unconfirmed = 0;
  /* Write-back errors: the replica's file system reported a failed write only after it had
   * returned. "unkept" in the file. */
  std::uint64_t write_back_errors = 0;
  /* Everything that programs had changed at this time of the monotonic clock is in the replica;
   * nanoseconds. */
  std::int64_t caught_up_to_ns = 0;
  std::map<Uuid, RuleStatus> rules;

  /* Things that went wrong and make the replica suspect. */
  std::uint64_t problems() const;
};

/* Whether one can be put there; an error if not, the one of write_status(). Leaves what is there as
 * it is. "": always. */
Result<void> check_status_file(const std::string &file);

Result<void> write_status(const std::string &file, const MirrorStatus &status);

/* What a waiting program needs of the file. */
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
