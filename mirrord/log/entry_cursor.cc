// SPDX-License-Identifier: GPL-2.0
#include "mirrord/log/entry_cursor.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tarn {
namespace {

constexpr std::uint64_t kBlock = 256 << 10;

}  // namespace

/* `count` bytes at `offset`, of which the caller knows that they are within `size`. What a file
 * lacks that somebody has truncated is zeros, which are no entry. */
Result<Bytes> EntryCursor::bytes(std::uint64_t offset, std::uint64_t count, std::uint64_t size) {
  const bool held = offset >= buffer_offset_ && offset - buffer_offset_ <= buffer_.size() &&
                    buffer_.size() - (offset - buffer_offset_) >= count;
  if (!held) {
    buffer_.clear();
    buffer_.resize(std::min(size - offset, std::max(count, kBlock)));
    buffer_offset_ = offset;
    for (std::size_t done = 0; done < buffer_.size();) {
      const ssize_t got = pread(file_, buffer_.data() + done, buffer_.size() - done,
                                static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        const int err = errno;
        buffer_.clear();
        return system_error(err, "cannot read " + what_);
      }
      if (got == 0) break;
      done += static_cast<std::size_t>(got);
    }
  }
  return Bytes(buffer_).subspan(offset - buffer_offset_, count);
}

/* The entry that begins with this header; no bytes if it is not one. */
Result<Bytes> EntryCursor::intact_entry(std::uint64_t offset, const EntryHeader &header,
                                        std::uint64_t size) {
  const std::uint64_t count = entry_bytes(header.length);
  if (count > size - offset) return Bytes();
  auto entry = bytes(offset, count, size);
  if (entry && !is_intact_entry(*entry, seed_ + offset)) return Bytes();
  return entry;
}

Result<EntryCursor::Found> EntryCursor::read(std::uint64_t size, LogEntry &entry) {
  if (place_.offset >= size) return Found::kEnd;
  if (size - place_.offset < sizeof(EntryHeader)) return Found::kDamage;
  const auto head = bytes(place_.offset, sizeof(EntryHeader), size);
  if (!head) return head.error();
  const auto header = entry_header(*head);
  if (!header || header->position != place_.expected || header->position >= limit_)
    return Found::kDamage;
  const auto whole = intact_entry(place_.offset, *header, size);
  if (!whole) return whole.error();
  if (whole->empty()) return Found::kDamage;
  raw_ = *whole;
  entry = {header->position, header->time_ns, header->kind,
           whole->subspan(sizeof(EntryHeader), header->length)};
  place_ = {place_.offset + whole->size(), place_.expected + 1};
  return Found::kEntry;
}

Result<bool> EntryCursor::skip(std::uint64_t size) {
  std::uint64_t offset = place_.offset + kEntryAlignment;
  for (; offset < size && size - offset >= sizeof(EntryHeader); offset += kEntryAlignment) {
    const auto head = bytes(offset, sizeof(EntryHeader), size);
    if (!head) return head.error();
    const auto header = entry_header(*head);
    // Each entry in between has at least a header, which bounds what can be missing.
    const std::uint64_t most = (offset - place_.offset) / sizeof(EntryHeader);
    if (!header || header->position <= place_.expected || header->position >= limit_ ||
        header->position - place_.expected > most)
      continue;
    const auto whole = intact_entry(offset, *header, size);
    if (!whole) return whole.error();
    if (whole->empty()) continue;
    place_ = {offset, header->position};
    return true;
  }
  return false;
}

}  // namespace tarn
