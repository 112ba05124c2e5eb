// SPDX-License-Identifier: GPL-2.0
#include "mirrord/log/log.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/log/recovery.h"
#include "mirrord/log/segment.h"

namespace tarn {
namespace {

constexpr std::uint64_t kLeastLimit = 4096;

std::int64_t wall_clock_ns() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

}  // namespace

Log::Log(UniqueFd directory, std::string name, const Uuid &epoch, Options options)
    : directory_(std::move(directory)),
      name_(std::move(name)),
      epoch_(epoch),
      options_{options.limit, std::min(options.segment, options.limit / 4)} {}

Log::~Log() = default;

Result<std::unique_ptr<Log>> Log::open(const std::string &directory, Options options) {
  if (options.limit < kLeastLimit)
    return Error{-EINVAL, fmt::format("the limit of the log {}, {} bytes, is too small: give it "
                                      "at least {}",
                                      printable(directory), options.limit, kLeastLimit)};
  auto locked = open_log_directory(directory);
  if (!locked) return locked.error();
  auto recovered = recover_log(*locked, directory);
  if (!recovered) return recovered.error();
  std::unique_ptr<Log> log(new Log(std::move(*locked), directory, recovered->epoch, options));
  log->recovery_ = std::move(recovered->report);
  log->opened_ns_ = std::max(wall_clock_ns(), recovered->last_ns);
  for (const auto &segment : recovered->segments) log->bytes_ += segment->bytes;
  log->first_ = recovered->segments.front()->first;
  log->end_ = log->durable_end_ = recovered->segments.back()->end.load();
  {
    const MutexLock append_lock(log->append_mutex_);
    log->current_ = recovered->segments.back();
    const MutexLock lock(log->mutex_);
    log->segments_ = std::move(recovered->segments);
  }
  return log;
}

std::int64_t Log::now_ns() const {
  const std::chrono::nanoseconds since = std::chrono::steady_clock::now() - opened_;
  return opened_ns_ + since.count();
}

std::string Log::shown(LogPosition first) const {
  return shown_segment(name_, first);
}

bool Log::must_roll(std::uint64_t need) const {
  return sealed_ ||
         (current_->bytes > sizeof(SegmentHeader) && current_->bytes + need > options_.segment);
}

Result<LogPosition> Log::append(std::uint8_t kind, std::span<const Bytes> parts) {
  std::uint64_t length = 0;
  for (const Bytes part : parts) length += part.size();
  const std::uint64_t need = entry_bytes(length);
  if (length > kPayloadMax || need + sizeof(SegmentHeader) > options_.limit / 4)
    return Error{-EMSGSIZE,
                 fmt::format("an entry of {} bytes is too large for the log {}: it takes up to {}",
                             length, printable(name_),
                             std::min<std::uint64_t>(kPayloadMax, options_.limit / 4 - 128))};
  const MutexLock lock(append_mutex_);
  const bool roll = must_roll(need);
  if (bytes() + need + (roll ? sizeof(SegmentHeader) : 0) > options_.limit)
    return Error{-ENOSPC, fmt::format("the log {} is full: it may have {} bytes", printable(name_),
                                      options_.limit)};
  auto segment = current_;
  if (roll) {
    auto made = make_segment();
    if (!made) return made.error();
    segment = std::move(*made);
  }

  EntryHeader header = {};
  header.length = static_cast<std::uint32_t>(length);
  header.kind = kind;
  header.position = end();
  header.time_ns = now_ns();
  seal_entry(header, segment->seed + segment->bytes, parts);
  static constexpr std::byte kZeros[kEntryAlignment] = {};
  std::array<Bytes, 8> few;
  std::vector<Bytes> many;
  std::span<Bytes> pieces(few.data(), std::min(few.size(), parts.size() + 2));
  if (parts.size() + 2 > few.size()) {
    many.resize(parts.size() + 2);
    pieces = many;
  }
  pieces.front() = std::as_bytes(std::span(&header, 1));
  std::copy(parts.begin(), parts.end(), pieces.begin() + 1);
  pieces.back() = Bytes(kZeros, entry_padding(length));

  if (auto written = write_entry(*segment, pieces); !written) {
    if (roll) unlinkat(directory_.get(), segment_name(segment->first).c_str(), 0);
    return written.error();
  }
  publish(segment, need);
  return header.position;
}

/* A segment that nobody knows yet. Until there is one that is published, every append tries to make
 * it: if the file of a failed attempt stays, nothing may be appended to the segment before it. */
Result<std::shared_ptr<LogSegment>> Log::make_segment() {
  sealed_ = true;
  const SegmentHeader header = make_segment_header(epoch_, end());
  auto file = make_segment_file(directory_.get(), segment_name(end()), header,
                                "cannot make the log segment " + shown(end()));
  if (!file) return file.error();
  auto segment = std::make_shared<LogSegment>();
  segment->first = segment->end = segment->synced_end = end();
  segment->seed = header.checksum;
  segment->file = std::make_shared<const UniqueFd>(std::move(*file));
  tail_dirty_ = false;
  return segment;
}

/* Nothing is behind the end of the segment if this fails, or the next call removes it. */
Result<void> Log::write_entry(const LogSegment &segment, std::span<const Bytes> pieces) {
  const std::string what = "cannot append to the log segment ";
  const std::uint64_t offset = segment.bytes;
  const int file = segment.file->get();
  if (tail_dirty_ && ftruncate(file, static_cast<off_t>(offset)) != 0)
    return system_error(errno, what + shown(segment.first));
  tail_dirty_ = false;
  if (const int err = write_pieces(file, pieces, offset); err != 0) {
    tail_dirty_ = ftruncate(file, static_cast<off_t>(offset)) != 0;
    return system_error(err, what + shown(segment.first));
  }
  return {};
}

/* The entry that was written is one of the log from here on. */
void Log::publish(const std::shared_ptr<LogSegment> &segment, std::uint64_t need) {
  const LogPosition next = end() + 1;
  bool wanted;
  {
    const MutexLock lock(mutex_);
    if (segment != current_) {
      // Nothing is written to the one before any more; without unsynced data its file can go.
      if (current_->synced_bytes == current_->bytes) current_->file.reset();
      segments_.push_back(segment);
      names_dirty_ = true;
      bytes_.fetch_add(sizeof(SegmentHeader), std::memory_order_relaxed);
    }
    segment->bytes.fetch_add(need, std::memory_order_release);
    segment->end.store(next, std::memory_order_release);
    bytes_.fetch_add(need, std::memory_order_relaxed);
    end_.store(next, std::memory_order_release);
    wanted = waiters_ > 0;
  }
  current_ = segment;
  sealed_ = false;
  if (wanted) changed_.notify_all();
}

bool Log::wait(LogPosition end, std::chrono::milliseconds timeout) {
  const auto until = Condition::Clock::now() + timeout;
  MutexLock lock(mutex_);
  const std::uint64_t wakes = wakes_;
  ++waiters_;
  bool in_time = true;
  while (this->end() <= end && wakes_ == wakes && in_time)
    in_time = changed_.wait_until(lock, until);
  --waiters_;
  return this->end() > end;
}

void Log::wake() {
  const MutexLock lock(mutex_);
  ++wakes_;
  changed_.notify_all();
}

Log::View Log::view(LogPosition position) const {
  const MutexLock lock(mutex_);
  auto after = std::upper_bound(
      segments_.begin(), segments_.end(), position,
      [](LogPosition wanted, const auto &segment) { return wanted < segment->first; });
  View view;
  if (after != segments_.end()) view.next = (*after)->first;
  if (after == segments_.begin()) return view;
  view.segment = *--after;
  view.end = view.segment->end;
  view.bytes = view.segment->bytes;
  return view;
}

std::uint64_t Log::bytes_after(LogPosition position) const {
  const MutexLock lock(mutex_);
  std::uint64_t sum = 0;
  for (auto at = segments_.rbegin(); at != segments_.rend(); ++at) {
    const LogSegment &segment = **at;
    const std::uint64_t bytes = segment.bytes - sizeof(SegmentHeader);
    const LogPosition end = segment.end;
    if (end <= position) break;
    if (segment.first >= position) {
      sum += bytes;
      continue;
    }
    const double part =
        static_cast<double>(end - position) / static_cast<double>(end - segment.first);
    sum += static_cast<std::uint64_t>(static_cast<double>(bytes) * part);
  }
  return sum;
}

}  // namespace tarn
