// SPDX-License-Identifier: GPL-2.0
#include "mirrord/log/format.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include <fmt/format.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tarn {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr char kMagic[sizeof(SegmentHeader::magic)] = {'t', 'a', 'r', 'n', 'l', 'o', 'g', '\n'};
constexpr char kEnding[] = ".log";
constexpr std::size_t kDigits = 20;

std::uint64_t header_checksum(const SegmentHeader &header) {
  return XXH3_64bits(&header, offsetof(SegmentHeader, checksum));
}

}  // namespace

SegmentHeader make_segment_header(const Uuid &epoch, LogPosition first) {
  SegmentHeader header = {};
  std::memcpy(header.magic, kMagic, sizeof(kMagic));
  header.version = kLogVersion;
  std::copy(epoch.bytes.begin(), epoch.bytes.end(), header.epoch);
  header.first = first;
  header.checksum = header_checksum(header);
  return header;
}

bool is_intact(const SegmentHeader &header) {
  return std::memcmp(header.magic, kMagic, sizeof(kMagic)) == 0 &&
         header.checksum == header_checksum(header);
}

void seal_entry(EntryHeader &header, std::uint64_t seed, std::span<const Bytes> parts) {
  static constexpr std::byte kZeros[kEntryAlignment] = {};
  XXH3_state_t state;
  XXH3_INITSTATE(&state);
  XXH3_64bits_reset_withSeed(&state, seed);
  XXH3_64bits_update(&state, &header.length, sizeof(header) - offsetof(EntryHeader, length));
  for (const Bytes part : parts) XXH3_64bits_update(&state, part.data(), part.size());
  XXH3_64bits_update(&state, kZeros, entry_padding(header.length));
  header.checksum = XXH3_64bits_digest(&state);
}

std::optional<EntryHeader> entry_header(Bytes bytes) {
  EntryHeader header;
  if (bytes.size() < sizeof(header)) return std::nullopt;
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (header.length > kPayloadMax) return std::nullopt;
  return header;
}

bool is_intact_entry(Bytes entry, std::uint64_t seed) {
  const auto header = entry_header(entry);
  if (!header || entry_bytes(header->length) != entry.size()) return false;
  const Bytes summed = entry.subspan(offsetof(EntryHeader, length));
  return header->checksum == XXH3_64bits_withSeed(summed.data(), summed.size(), seed);
}

std::string segment_name(LogPosition first) {
  return fmt::format("{:020}{}", first, kEnding);
}

std::optional<LogPosition> parse_segment_name(std::string_view name) {
  if (name.size() != kDigits + sizeof(kEnding) - 1 || !name.ends_with(kEnding)) return std::nullopt;
  LogPosition first = 0;
  const char *end = name.data() + kDigits;
  const auto [stop, error] = std::from_chars(name.data(), end, first);
  if (error != std::errc() || stop != end || first == 0) return std::nullopt;
  return first;
}

}  // namespace tarn
