/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A durable, bounded, checksummed log of entries: what a source's changes go to before anything
 * else is done with them. A directory of segments (format.h); an entry is one system call.
 *
 * What it promises: an entry that sync() confirmed is there after kill -9 or a power cut at any
 * byte. Entries that were appended but not confirmed may be lost from the end on; their positions
 * are then given to other entries. So whoever keeps a position over a restart keeps none behind
 * durable_end(). A reader that is told to begin behind the end says so instead of waiting there.
 * A reader never gets an entry that differs from the appended one: damage on the disk is an error
 * at its place, and nothing intact behind it is lost.
 *
 * When sync() fails, the kernel may have dropped the data, and a later fdatasync of the same file
 * would succeed without it. So nothing more is appended to the segments that were not on the disk,
 * and the next sync() writes each of them anew, entry by entry and checked, to another file that
 * takes its place when it is on the disk. durable_end() does not move before that. If an entry
 * could not be read back intact, it is lost: every sync() fails from then on, until the log is
 * opened again, which reports the damage.
 *
 * Any thread may call anything. Appenders wait for each other, but never for the disk unless the
 * kernel makes a write wait; sync() and release() wait for each other only. The log must outlive
 * its readers. Nothing here retries or runs by itself.
 */
#ifndef TARN_MIRRORD_LOG_LOG_H
#define TARN_MIRRORD_LOG_LOG_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "base/unique_fd.h"
#include "client/messages.h"
#include "client/uuid.h"
#include "mirrord/log/position.h"

namespace tarn {

class EntryCursor;
struct LogSegment;

struct LogEntry {
  LogPosition position = 0;
  std::int64_t time_ns = 0; /* of the append, by Log::now_ns() */
  std::uint8_t kind = 0;    /* the caller's */
  Bytes payload;            /* valid until the next call of the reader */
};

class Log {
 public:
  struct Options {
    std::uint64_t limit = std::uint64_t{1} << 30; /* bytes on disk, at least 4096 */
    std::uint64_t segment = 16 << 20;             /* at most a quarter of the limit is used */
  };
  struct Recovery {
    bool created = false;
    std::uint64_t bytes_cut = 0; /* a torn tail, which was never confirmed */
    std::string damage;          /* one line; empty if there is none */
  };

  /*
   * Makes the directory (mode 0700), but not its parents, and the first segment if there is none.
   * Checks every entry that is kept. When it returns, all of them are on the disk.
   *
   * Errors, which change nothing: -EBUSY: open already; -EPERM: another user's; -EPROTO: made by
   * another version; -EINVAL: a limit too small, segments of several logs, a renamed segment;
   * -EBADMSG: no segment has an intact header; and I/O.
   */
  static Result<std::unique_ptr<Log>> open(const std::string &directory, Options options);
  ~Log();
  Log(const Log &) = delete;
  Log &operator=(const Log &) = delete;

  const Recovery &recovery() const { return recovery_; }
  /* Random, made with the log: positions of another epoch mean nothing here. */
  const Uuid &epoch() const { return epoch_; }

  /* Errors: -ENOSPC: the limit is reached or the disk is full; -EMSGSIZE: an entry of more than a
   * quarter of the limit or 64 MiB, which will never fit; I/O. Nothing was appended then, and a
   * later append works again. */
  Result<LogPosition> append(std::uint8_t kind, std::span<const Bytes> parts)
      EXCLUDES(append_mutex_);

  /* The log's clock, in nanoseconds: the wall clock when the log was opened, or the time of the
   * last entry if that is later, and what has passed since. It is never set, so a later entry never
   * has an earlier time. */
  std::int64_t now_ns() const;

  /* What was appended before the call is on the disk. May run beside append(). */
  Result<void> sync() EXCLUDES(sync_mutex_, append_mutex_, mutex_);

  LogPosition first() const { return first_.load(std::memory_order_acquire); }
  LogPosition end() const { return end_.load(std::memory_order_acquire); }
  LogPosition durable_end() const { return durable_end_.load(std::memory_order_acquire); }
  std::uint64_t bytes() const { return bytes_.load(std::memory_order_relaxed); }

  /* Waits until there is an entry at `end`. False at the time-out, or when wake() is called in the
   * meantime; a call before the wait is not remembered. */
  bool wait(LogPosition end, std::chrono::milliseconds timeout) EXCLUDES(mutex_);
  void wake() EXCLUDES(mutex_);

  /* Removes whole segments all of whose entries are before the position; the one that is being
   * written stays. Syncs before if the one that stays is not on the disk. */
  Result<void> release(LogPosition before) EXCLUDES(sync_mutex_, append_mutex_, mutex_);

  /* From the position on, estimated within its segment. */
  std::uint64_t bytes_after(LogPosition position) const EXCLUDES(mutex_);

 private:
  friend class LogReader;
  struct Unsynced;
  /* A segment as it is at one time, for a reader. */
  struct View {
    std::shared_ptr<const LogSegment> segment; /* none: the position is before all of them */
    LogPosition next = 0;                      /* the first one of the next segment; 0: none */
    LogPosition end = 0;
    std::uint64_t bytes = 0;
  };

  Log(UniqueFd directory, std::string name, const Uuid &epoch, Options options);
  View view(LogPosition position) const EXCLUDES(mutex_);
  bool must_roll(std::uint64_t need) const REQUIRES(append_mutex_);
  Result<std::shared_ptr<LogSegment>> make_segment() REQUIRES(append_mutex_);
  Result<void> write_entry(const LogSegment &segment, std::span<const Bytes> pieces)
      REQUIRES(append_mutex_);
  void publish(const std::shared_ptr<LogSegment> &segment, std::uint64_t need)
      REQUIRES(append_mutex_) EXCLUDES(mutex_);
  Result<void> sync_locked() REQUIRES(sync_mutex_) EXCLUDES(append_mutex_, mutex_);
  Result<void> sync_names_locked() REQUIRES(sync_mutex_) EXCLUDES(mutex_);
  std::vector<Unsynced> unsynced() const EXCLUDES(mutex_);
  void confirm(const Unsynced &synced) EXCLUDES(mutex_);
  void distrust(const Unsynced &segment) EXCLUDES(append_mutex_, mutex_);
  Result<UniqueFd> write_anew(const Unsynced &old) REQUIRES(sync_mutex_) EXCLUDES(mutex_);
  Result<void> copy_checked(const Unsynced &old, int to) REQUIRES(sync_mutex_);
  std::string shown(LogPosition first) const;

  const UniqueFd directory_; /* locked (flock) while the log is open */
  const std::string name_;
  const Uuid epoch_;
  const Options options_;
  Recovery recovery_;
  std::int64_t opened_ns_ = 0;
  const std::chrono::steady_clock::time_point opened_ = std::chrono::steady_clock::now();

  /* sync_mutex_, append_mutex_, mutex_: taken in this order. */
  Mutex sync_mutex_;
  std::optional<Error> lost_ GUARDED_BY(sync_mutex_); /* entries that no sync() can confirm */

  Mutex append_mutex_;
  bool sealed_ GUARDED_BY(append_mutex_) = false;     /* the next entry begins a segment */
  bool tail_dirty_ GUARDED_BY(append_mutex_) = false; /* a part of an entry is behind the end */
  std::shared_ptr<LogSegment> current_ GUARDED_BY(append_mutex_);

  mutable Mutex mutex_;
  Condition changed_;
  std::deque<std::shared_ptr<LogSegment>> segments_ GUARDED_BY(mutex_); /* never empty */
  bool names_dirty_ GUARDED_BY(mutex_) = false; /* a segment was made: the directory is unsynced */
  std::uint64_t wakes_ GUARDED_BY(mutex_) = 0;
  unsigned waiters_ GUARDED_BY(mutex_) = 0;

  std::atomic<LogPosition> first_{1};
  std::atomic<LogPosition> end_{1};
  std::atomic<LogPosition> durable_end_{1};
  std::atomic<std::uint64_t> bytes_{0};
};

/* Reads a log from a position on. Any thread, one each; sees an entry as soon as it is appended. */
class LogReader {
 public:
  LogReader(const Log &log, LogPosition from);
  ~LogReader();
  LogReader(LogReader &&) noexcept;

  /*
   * Nothing at the end. The position moves only when an entry is returned. Errors: -ESTALE:
   * released before it was read; -EBADMSG: damaged or missing, or the reader was told to begin
   * behind the end, which means that the log has lost entries; and I/O.
   */
  Result<std::optional<LogEntry>> next();

  /* Of the entry that next() returns. */
  LogPosition position() const { return position_; }

  /* After -EBADMSG or -ESTALE: goes to the next intact entry, or to the end, and returns its
   * position. */
  Result<LogPosition> skip_damage();

 private:
  struct Opened;
  enum class At { kHere, kDamage, kReleased };

  Result<At> seek();
  Result<bool> open_segment(const Log::View &view);
  Result<bool> intact_here();
  Error damaged() const;

  const Log &log_;
  LogPosition position_;
  bool beyond_; /* told to begin behind the end */
  std::unique_ptr<Opened> opened_;
};

}  // namespace tarn

#endif
