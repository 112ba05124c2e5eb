// SPDX-License-Identifier: GPL-2.0
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/log/entry_cursor.h"
#include "mirrord/log/log.h"
#include "mirrord/log/segment.h"

namespace tarn {

/* The segment that the reader is in. */
struct LogReader::Opened {
  std::shared_ptr<const LogSegment> segment;
  UniqueFd file;
  LogPosition next; /* the first one of the next segment, when this one was opened; 0: none */
  EntryCursor cursor;
};

LogReader::LogReader(const Log &log, LogPosition from)
    : log_(log), position_(std::max<LogPosition>(from, 1)), beyond_(position_ > log.end()) {}

LogReader::~LogReader() = default;
LogReader::LogReader(LogReader &&) noexcept = default;

/* False if the file has gone, as it was released. */
Result<bool> LogReader::open_segment(const Log::View &view) {
  const std::string what = "the log segment " + log_.shown(view.segment->first);
  auto file = open_segment_file(log_.directory_.get(), view.segment->first, O_RDONLY,
                                "cannot read " + what);
  if (!file && file.error().code == -ENOENT) return false;
  if (!file) return file.error();
  const int fd = file->get();
  opened_.reset(new Opened{
      view.segment, std::move(*file), view.next,
      EntryCursor(fd, view.segment->seed, view.segment->first,
                  view.next != 0 ? view.next : std::numeric_limits<LogPosition>::max(), what)});
  return true;
}

/* To the entry at position(), which is before the log's end. */
Result<LogReader::At> LogReader::seek() {
  if (position_ < log_.first()) return At::kReleased;
  const bool here = opened_ && opened_->segment->first <= position_ &&
                    (opened_->next == 0 || position_ < opened_->next) &&
                    opened_->cursor.place().expected <= position_;
  if (!here) {
    const Log::View view = log_.view(position_);
    if (!view.segment) return At::kReleased;
    const auto open = open_segment(view);
    if (!open) return open.error();
    if (!*open) return position_ < log_.first() ? At::kReleased : At::kDamage;
  }
  EntryCursor &cursor = opened_->cursor;
  const std::uint64_t bytes = opened_->segment->bytes.load(std::memory_order_acquire);
  LogEntry passed;
  while (cursor.place().expected < position_) {
    const auto found = cursor.read(bytes, passed);
    if (!found) return found.error();
    if (*found == EntryCursor::Found::kEntry) continue;
    if (*found == EntryCursor::Found::kEnd) return At::kDamage;
    const auto more = cursor.skip(bytes);
    if (!more) return more.error();
    if (!*more) return At::kDamage;
  }
  return cursor.place().expected == position_ ? At::kHere : At::kDamage;
}

Error LogReader::damaged() const {
  if (beyond_)
    return {-EBADMSG, fmt::format("entry {} was read, and the log {} ends before {}: it has lost "
                                  "entries",
                                  position_ - 1, printable(log_.name_), log_.end())};
  const Log::View view = log_.view(position_);
  return {-EBADMSG,
          fmt::format("entry {} is damaged or missing in {}", position_,
                      view.segment ? log_.shown(view.segment->first) : printable(log_.name_))};
}

Result<std::optional<LogEntry>> LogReader::next() {
  if (beyond_) return damaged();
  // Looks a second time, as the file may have been followed by a new segment or replaced.
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (position_ >= log_.end()) return std::optional<LogEntry>();
    const auto at = seek();
    if (!at) return at.error();
    if (*at == At::kReleased)
      return Error{-ESTALE, fmt::format("entry {} of the log {} was removed before it was read",
                                        position_, printable(log_.name_))};
    if (*at == At::kHere) {
      LogEntry entry;
      const auto found =
          opened_->cursor.read(opened_->segment->bytes.load(std::memory_order_acquire), entry);
      if (!found) return found.error();
      if (*found == EntryCursor::Found::kEntry) {
        ++position_;
        return std::optional<LogEntry>(entry);
      }
    }
    opened_.reset();
  }
  return damaged();
}

/* Whether the entry at position() is intact; the next call of next() returns it then. */
Result<bool> LogReader::intact_here() {
  const auto at = seek();
  if (!at) return at.error();
  if (*at != At::kHere) return false;
  EntryCursor &cursor = opened_->cursor;
  const EntryCursor::Place place = cursor.place();
  LogEntry entry;
  const auto found = cursor.read(opened_->segment->bytes.load(std::memory_order_acquire), entry);
  if (!found) return found.error();
  cursor.go_to(place);
  return *found == EntryCursor::Found::kEntry;
}

Result<LogPosition> LogReader::skip_damage() {
  if (beyond_) position_ = std::min(position_, log_.end());
  beyond_ = false;
  opened_.reset();
  for (;;) {
    position_ = std::max(position_, log_.first());
    if (position_ >= log_.end()) return position_;
    const auto intact = intact_here();
    if (!intact) return intact.error();
    if (*intact) return position_;
    const Log::View view = log_.view(position_);
    if (!view.segment || (opened_ && opened_->segment != view.segment)) {
      opened_.reset(); /* released in the meantime */
      continue;
    }
    if (opened_) {
      EntryCursor &cursor = opened_->cursor;
      bool more = cursor.place().expected > position_;
      if (!more) {
        const auto skipped = cursor.skip(view.bytes);
        if (!skipped) return skipped.error();
        more = *skipped;
      }
      if (more) {
        position_ = std::max(position_, cursor.place().expected);
        continue;
      }
      if (view.next == 0) cursor.go_to({view.bytes, view.end});
    }
    position_ = view.next != 0 ? view.next : view.end;
    if (view.next == 0) return position_;
  }
}

}  // namespace tarn
