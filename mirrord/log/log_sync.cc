// SPDX-License-Identifier: GPL-2.0
// What makes a log durable, and what removes its old segments.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/log/entry_cursor.h"
#include "mirrord/log/log.h"
#include "mirrord/log/segment.h"

namespace tarn {

/* A segment with data that is not on the disk, as it was at the beginning of a sync(). */
struct Log::Unsynced {
  std::shared_ptr<LogSegment> segment;
  std::shared_ptr<const UniqueFd> file;
  std::uint64_t bytes = 0;
  LogPosition end = 0;
  std::uint64_t synced_bytes = 0;
  LogPosition synced_end = 0;
  bool distrusted = false;
};

std::vector<Log::Unsynced> Log::unsynced() const {
  std::vector<Unsynced> found;
  const MutexLock lock(mutex_);
  for (const auto &segment : segments_) {
    const Unsynced unsynced{segment,
                            segment->file,
                            segment->bytes,
                            segment->end,
                            segment->synced_bytes,
                            segment->synced_end,
                            segment->distrusted};
    if (unsynced.file && unsynced.synced_end != unsynced.end) found.push_back(unsynced);
  }
  return found;
}

void Log::confirm(const Unsynced &synced) {
  const MutexLock lock(mutex_);
  LogSegment &segment = *synced.segment;
  segment.synced_bytes = synced.bytes;
  segment.synced_end = synced.end;
  durable_end_.store(synced.end, std::memory_order_release);
  if (segment.end == synced.end && segments_.back() != synced.segment) segment.file.reset();
}

Result<void> Log::sync() {
  const MutexLock lock(sync_mutex_);
  return sync_locked();
}

Result<void> Log::sync_locked() {
  if (lost_) return *lost_;
  const std::vector<Unsynced> segments = unsynced();
  if (const auto named = sync_names_locked(); !named) return named.error();
  for (const Unsynced &segment : segments) {
    if (segment.distrusted) {
      auto file = write_anew(segment);
      if (!file) return file.error();
      const MutexLock lock(mutex_);
      segment.segment->distrusted = false;
      segment.segment->file = std::make_shared<const UniqueFd>(std::move(*file));
    } else if (fdatasync(segment.file->get()) != 0) {
      const int err = errno;
      distrust(segment);
      return system_error(err, fmt::format("entries {} and later of the log {} are not on the disk",
                                           durable_end(), printable(name_)));
    }
    confirm(segment);
  }
  return {};
}

/* A file that is on the disk but has no name there is lost with its entries. */
Result<void> Log::sync_names_locked() {
  {
    const MutexLock lock(mutex_);
    if (!names_dirty_) return {};
    names_dirty_ = false;
  }
  if (fsync(directory_.get()) == 0) return {};
  const int err = errno;
  const MutexLock lock(mutex_);
  names_dirty_ = true;
  return system_error(err, "cannot sync the log " + printable(name_));
}

/* Nothing more is appended to the segment. */
void Log::distrust(const Unsynced &segment) {
  const MutexLock append_lock(append_mutex_);
  if (current_ == segment.segment) sealed_ = true;
  const MutexLock lock(mutex_);
  segment.segment->distrusted = true;
}

/* The new file, on the disk and in the place of the old one. */
Result<UniqueFd> Log::write_anew(const Unsynced &old) {
  const std::string what = "cannot write the log segment " + shown(old.segment->first) + " anew";
  auto file = make_segment_file(directory_.get(), kTemporaryName,
                                make_segment_header(epoch_, old.segment->first), what);
  if (!file) return file.error();
  auto done = copy_checked(old, file->get());
  if (done && fdatasync(file->get()) != 0) done = system_error(errno, what);
  if (done && renameat(directory_.get(), kTemporaryName, directory_.get(),
                       segment_name(old.segment->first).c_str()) != 0)
    done = system_error(errno, what);
  if (!done) {
    unlinkat(directory_.get(), kTemporaryName, 0);
    return done.error();
  }
  {
    const MutexLock lock(mutex_);
    names_dirty_ = true;
  }
  if (const auto named = sync_names_locked(); !named) return named.error();
  return file;
}

/* What was on the disk before is copied as it is, damage included; the rest must be intact. */
Result<void> Log::copy_checked(const Unsynced &old, int to) {
  const std::string what = "cannot copy the log segment " + shown(old.segment->first);
  const std::uint64_t begin = std::max<std::uint64_t>(old.synced_bytes, sizeof(SegmentHeader));
  std::vector<std::byte> block(64 << 10);
  for (std::uint64_t at = sizeof(SegmentHeader); at < begin;) {
    const std::uint64_t count = std::min<std::uint64_t>(block.size(), begin - at);
    const ssize_t got = pread(old.file->get(), block.data(), count, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return system_error(got < 0 ? errno : EIO, what);
    const Bytes bytes(block.data(), static_cast<std::size_t>(got));
    if (const int err = write_pieces(to, std::span(&bytes, 1), at); err != 0)
      return system_error(err, what);
    at += bytes.size();
  }
  EntryCursor cursor(old.file->get(), old.segment->seed, old.segment->first,
                     std::numeric_limits<LogPosition>::max(),
                     "the log segment " + shown(old.segment->first));
  cursor.go_to({begin, old.synced_end});
  LogEntry entry;
  while (cursor.place().expected < old.end) {
    const EntryCursor::Place place = cursor.place();
    const auto found = cursor.read(old.bytes, entry);
    if (!found) return found.error();
    if (*found != EntryCursor::Found::kEntry) {
      lost_ = Error{-EIO, fmt::format("the disk has lost entries of the log {} from {} on: open it "
                                      "again, then they are reported as damaged",
                                      printable(name_), place.expected)};
      return *lost_;
    }
    const Bytes raw = cursor.raw();
    if (const int err = write_pieces(to, std::span(&raw, 1), place.offset); err != 0)
      return system_error(err, what);
  }
  return {};
}

Result<void> Log::release(LogPosition before) {
  const MutexLock lock(sync_mutex_);
  for (;;) {
    std::shared_ptr<LogSegment> oldest;
    bool head_on_disk;
    {
      const MutexLock list_lock(mutex_);
      if (segments_.size() < 2 || segments_[1]->first > before) return {};
      oldest = segments_.front();
      head_on_disk = segments_.back()->synced_bytes != 0 && !names_dirty_;
    }
    // The epoch and the positions are to survive in the headers that stay.
    if (!head_on_disk) {
      if (const auto synced = sync_locked(); !synced) return synced.error();
    }
    // Before the file goes, so that a reader that misses it knows why.
    first_.store(oldest->end, std::memory_order_release);
    if (unlinkat(directory_.get(), segment_name(oldest->first).c_str(), 0) != 0 && errno != ENOENT)
      return system_error(errno, "cannot remove the log segment " + shown(oldest->first));
    const MutexLock list_lock(mutex_);
    segments_.pop_front();
    bytes_.fetch_sub(oldest->bytes, std::memory_order_relaxed);
  }
}

}  // namespace tarn
