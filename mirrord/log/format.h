/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The bytes of a log on the disk. Everything that is read from it is checked here.
 *
 * A log is a directory of segments. The name of a segment is the position of its first entry, 20
 * decimal digits, and ".log"; other names are ignored, except kTemporaryName, which is what an
 * interrupted creation left. A segment is a SegmentHeader and then entries without a gap, in the
 * order of their positions, which have no holes either.
 *
 *   segment header, 48 bytes               entry, a multiple of 8 bytes
 *    0  8  magic "tarnlog\n"                 0  8  checksum of all that follows
 *    8  4  version, 1                        8  4  length of the payload
 *   12  4  zero                             12  1  kind, the writer's own
 *   16 16  epoch, the UUID of the log       13  3  zero
 *   32  8  position of the first entry      16  8  position
 *   40  8  checksum of the 40 bytes before  24  8  time in nanoseconds, Log::now_ns()
 *                                           32  n  payload, and zeros up to a multiple of 8
 *
 * Integers are little-endian. Both checksums are XXH3-64; the seed of an entry's is the checksum of
 * the segment's header plus the entry's offset in the file. So a copy of an entry, in the payload
 * of another one or in a file from elsewhere, is no entry. The header's form stays in every
 * version.
 *
 * The header of a segment follows from the epoch and the file's name, and a damaged one is made
 * anew. The epoch survives in the other segments; the first one is on the disk before its name is.
 */
#ifndef TARN_MIRRORD_LOG_FORMAT_H
#define TARN_MIRRORD_LOG_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "client/messages.h"
#include "client/uuid.h"
#include "mirrord/log/position.h"

namespace tarn {

inline constexpr std::uint32_t kLogVersion = 1;
inline constexpr std::size_t kEntryAlignment = 8;
inline constexpr char kTemporaryName[] = "segment.tmp";

/* An entry is held in memory as a whole, by its writer and by every reader. */
inline constexpr std::uint32_t kPayloadMax = 64 << 20;

struct SegmentHeader {
  char magic[8];
  std::uint32_t version;
  std::uint32_t zero;
  std::uint8_t epoch[16];
  std::uint64_t first;
  std::uint64_t checksum;
};
static_assert(sizeof(SegmentHeader) == 48);
static_assert(offsetof(SegmentHeader, magic) == 0);
static_assert(offsetof(SegmentHeader, version) == 8);
static_assert(offsetof(SegmentHeader, zero) == 12);
static_assert(offsetof(SegmentHeader, epoch) == 16);
static_assert(offsetof(SegmentHeader, first) == 32);
static_assert(offsetof(SegmentHeader, checksum) == 40);

struct EntryHeader {
  std::uint64_t checksum;
  std::uint32_t length;
  std::uint8_t kind;
  std::uint8_t zero[3];
  std::uint64_t position;
  std::int64_t time_ns;
};
static_assert(sizeof(EntryHeader) == 32);
static_assert(offsetof(EntryHeader, checksum) == 0);
static_assert(offsetof(EntryHeader, length) == 8);
static_assert(offsetof(EntryHeader, kind) == 12);
static_assert(offsetof(EntryHeader, zero) == 13);
static_assert(offsetof(EntryHeader, position) == 16);
static_assert(offsetof(EntryHeader, time_ns) == 24);

/* The zeros behind a payload, and the bytes of an entry on the disk. */
constexpr std::size_t entry_padding(std::uint64_t length) {
  return (kEntryAlignment - length % kEntryAlignment) % kEntryAlignment;
}
constexpr std::uint64_t entry_bytes(std::uint64_t length) {
  return sizeof(EntryHeader) + length + entry_padding(length);
}

SegmentHeader make_segment_header(const Uuid &epoch, LogPosition first);

/* Whether the checksum is right; the version may be another one. */
bool is_intact(const SegmentHeader &header);

/* Fills the checksum in. `parts` is the payload, and `seed` that of the entry's place. */
void seal_entry(EntryHeader &header, std::uint64_t seed, std::span<const Bytes> parts);

/* The header of the entry that `bytes` begins with, if its length can be one; the rest of it is
 * unchecked. */
std::optional<EntryHeader> entry_header(Bytes bytes);

/* Whether `entry`, all bytes of one, is as it was written. */
bool is_intact_entry(Bytes entry, std::uint64_t seed);

std::string segment_name(LogPosition first);
/* The position in a segment's name; nothing for another file's name. */
std::optional<LogPosition> parse_segment_name(std::string_view name);

}  // namespace tarn

#endif
