/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Walks over the entries of one segment file and passes on only what is as it was written. It knows
 * the position that it expects next, and behind damage it finds the next intact entry. Reads large
 * blocks with pread; one thread each. Does not own the file.
 */
#ifndef TARN_MIRRORD_LOG_ENTRY_CURSOR_H
#define TARN_MIRRORD_LOG_ENTRY_CURSOR_H

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "mirrord/log/format.h"
#include "mirrord/log/log.h"

namespace tarn {

class EntryCursor {
 public:
  /* Behind the entry that was read before, before the first one at the beginning. */
  struct Place {
    std::uint64_t offset = sizeof(SegmentHeader);
    LogPosition expected = 0;
  };
  enum class Found { kEntry, kEnd, kDamage };

  /* `seed` is the checksum that the segment's header ought to have. Entries from `limit` on are
   * those of the next segment. `what` names the file in error texts. */
  EntryCursor(int file, std::uint64_t seed, LogPosition first, LogPosition limit, std::string what)
      : file_(file), seed_(seed), limit_(limit), what_(std::move(what)) {
    place_.expected = first;
  }

  const Place &place() const { return place_; }
  void go_to(const Place &place) { place_ = place; }

  /* Reads the entry at place() and goes behind it; stays there at the end, which is the end of the
   * file's first `size` bytes, and at damage. `entry` is valid until the next call. Errors: I/O. */
  Result<Found> read(std::uint64_t size, LogEntry &entry);

  /* All bytes of the entry that read() returned last. */
  Bytes raw() const { return raw_; }

  /* From damage to the next intact entry. False, and stays there, if there is none. Errors: I/O. */
  Result<bool> skip(std::uint64_t size);

 private:
  Result<Bytes> bytes(std::uint64_t offset, std::uint64_t count, std::uint64_t size);
  Result<Bytes> intact_entry(std::uint64_t offset, const EntryHeader &header, std::uint64_t size);

  int file_;
  std::uint64_t seed_;
  LogPosition limit_;
  std::string what_;
  Place place_;
  Bytes raw_;
  std::vector<std::byte> buffer_;
  std::uint64_t buffer_offset_ = 0;
};

}  // namespace tarn

#endif
