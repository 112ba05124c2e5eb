/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the log of a source holds, and the one encoder and decoder of it. Integers are little
 * endian; a text is its length (4 bytes) and its bytes. A decoder accepts exactly what its encoder
 * writes, and trusts no length.
 *
 * kind        payload
 * record      the module's message as it came, for decode() of client/messages.h
 * gap         since (8), reason (text)
 * mark        number (8), until (8)
 * walk begin  walk (8), since (8), target (text)
 * look        walk (8), parts done of 1'000'000 or all bits set (4), directory (text)
 * walk end    walk (8), 1 if it saw everything (1)
 * join        epoch (16), position (8), 1 if changes are missing (1), reason (text)
 */
#ifndef TARN_MIRRORD_SERVICE_LOG_ENTRIES_H
#define TARN_MIRRORD_SERVICE_LOG_ENTRIES_H

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "client/messages.h"
#include "client/uuid.h"

namespace tarn {

enum class EntryKind : std::uint8_t {
  kRecord = 1,
  kGap = 2,
  kMark = 3,
  kWalkBegin = 4,
  kLook = 5,
  kWalkEnd = 6,
  kJoin = 7,
};

/* Times in entries are microseconds since the epoch. */
inline constexpr std::int64_t kSinceEver = std::numeric_limits<std::int64_t>::min();

/* A call may last, and its program or tarnd be stopped in it, so that the record of its change
 * comes into the log so long after the change. Then later changes are in the log already. */
inline constexpr std::chrono::microseconds kLateRecords = std::chrono::seconds(60);

/* Changes since then may be missing in the log. */
struct GapEntry {
  std::int64_t since = kSinceEver;
  std::string reason;
  bool operator==(const GapEntry &) const = default;
};

/* All changes made before `until` are in the log before this entry. Numbers only grow. */
struct MarkEntry {
  std::uint64_t number = 0;
  std::int64_t until = 0;
  bool operator==(const MarkEntry &) const = default;
};

/* The entries of a walk tell targets to compare directories with the source. */
struct WalkBeginEntry {
  std::uint64_t walk = 0;
  std::int64_t since = kSinceEver; /* only what changed since then was looked for */
  std::string target;              /* "": for all */
  bool operator==(const WalkBeginEntry &) const = default;
};
struct LookEntry {
  static constexpr std::uint32_t kWhole = 1'000'000;
  /* Instead of `done`: the walk could not read it, and it is not to be looked at. */
  static constexpr std::uint32_t kUnread = ~std::uint32_t{0};
  std::uint64_t walk = 0;
  std::uint32_t done = 0; /* of the walk, parts of kWhole */
  std::string directory;  /* relative to the source; "": the source itself */
  bool operator==(const LookEntry &) const = default;
};
struct WalkEndEntry {
  std::uint64_t walk = 0;
  bool complete = false; /* false: a part of the source could not be read */
  bool operator==(const WalkEndEntry &) const = default;
};

/*
 * In a replica's log: from here on it has the entries of a stream, one for one, beginning with this
 * one. `missing`: some of those before it are not there.
 */
struct JoinEntry {
  Uuid epoch = {};
  std::uint64_t position = 0;
  bool missing = false;
  std::string reason; /* why there is a joint */
  bool operator==(const JoinEntry &) const = default;
};

std::vector<std::byte> encode(const GapEntry &entry);
std::vector<std::byte> encode(const MarkEntry &entry);
std::vector<std::byte> encode(const WalkBeginEntry &entry);
std::vector<std::byte> encode(const LookEntry &entry);
std::vector<std::byte> encode(const WalkEndEntry &entry);
std::vector<std::byte> encode(const JoinEntry &entry);

/* Error code -EBADMSG. */
Result<GapEntry> decode_gap(Bytes payload);
Result<MarkEntry> decode_mark(Bytes payload);
Result<WalkBeginEntry> decode_walk_begin(Bytes payload);
Result<LookEntry> decode_look(Bytes payload);
Result<WalkEndEntry> decode_walk_end(Bytes payload);
Result<JoinEntry> decode_join(Bytes payload);

}  // namespace tarn

#endif
