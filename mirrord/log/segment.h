/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A segment file of a log, and what is done with files of its directory. Files are named relative
 * to the directory's descriptor; symbolic links are never followed. Functions are safe in any
 * thread.
 */
#ifndef TARN_MIRRORD_LOG_SEGMENT_H
#define TARN_MIRRORD_LOG_SEGMENT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"
#include "mirrord/log/format.h"

namespace tarn {

/* Made by whoever appends or recovers; the first two fields never change. */
struct LogSegment {
  LogPosition first = 0;
  std::uint64_t seed = 0; /* the checksum of its header */

  /* What readers may read. Changed together under Log::mutex_. */
  std::atomic<std::uint64_t> bytes{sizeof(SegmentHeader)};
  std::atomic<LogPosition> end{0};

  /* Under Log::mutex_. */
  std::shared_ptr<const UniqueFd> file; /* while something may still be written or synced */
  std::uint64_t synced_bytes = 0;       /* 0: not even the header */
  LogPosition synced_end = 0;
  bool distrusted = false; /* a sync has failed: to be written anew */
};

/* Where error texts say that a segment is. */
std::string shown_segment(const std::string &directory, LogPosition first);

/* Errors: those of openat(2). */
Result<UniqueFd> open_segment_file(int directory, LogPosition first, int flags,
                                   const std::string &what);

/* A new file with a header and nothing else, in place of one of that name. Removes it on errors. */
Result<UniqueFd> make_segment_file(int directory, const std::string &name,
                                   const SegmentHeader &header, const std::string &what);

/* Writes all of it, with one system call unless the kernel takes a part. Returns 0 or the error
 * number, after which a part may have been written. */
int write_pieces(int file, std::span<const Bytes> pieces, std::uint64_t offset);

}  // namespace tarn

#endif
