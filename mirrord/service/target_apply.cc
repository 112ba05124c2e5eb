// SPDX-License-Identifier: GPL-2.0
// How a target applies each kind of entry.
#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/failures.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/target.h"

namespace tarn {
namespace {

/* A walk that could not read a part of the source is repeated. */
constexpr std::chrono::seconds kWalkAgain{60};
/* Between two comparisons while more marks are to come, in seconds and in times of the last one. */
constexpr std::chrono::seconds kComparePause{1};
constexpr int kComparePauses = 4;
/* A change time that every file's is behind: each is compared byte by byte. */
constexpr std::int64_t kBeforeAll = kSinceEver / 2;

}  // namespace

/* Entries that cannot be decoded are gaps: the log's own checksums had accepted them. */
Result<void> Target::apply(const LogEntry &entry) {
  const auto as_gap = [&](const Error &error) {
    missing(kSinceEver, entry.position, error.text);
    return Result<void>();
  };
  switch (static_cast<EntryKind>(entry.kind)) {
    case EntryKind::kRecord:
      return apply_record(entry);
    case EntryKind::kGap: {
      const auto gap = decode_gap(entry.payload);
      if (!gap) return as_gap(gap.error());
      missing(gap->since, entry.position, gap->reason);
      return {};
    }
    case EntryKind::kMark: {
      const auto mark = decode_mark(entry.payload);
      return mark ? apply_mark(*mark, entry.time_ns / 1000) : as_gap(mark.error());
    }
    case EntryKind::kWalkBegin: {
      const auto walk = decode_walk_begin(entry.payload);
      if (!walk) return as_gap(walk.error());
      apply_walk_begin(*walk, entry.position);
      return {};
    }
    case EntryKind::kLook: {
      const auto look = decode_look(entry.payload);
      return look ? apply_look(*look) : as_gap(look.error());
    }
    case EntryKind::kWalkEnd: {
      const auto walk = decode_walk_end(entry.payload);
      if (!walk) return as_gap(walk.error());
      apply_walk_end(*walk);
      return {};
    }
    case EntryKind::kJoin: {
      const auto join = decode_join(entry.payload);
      if (!join) return as_gap(join.error());
      if (join->missing) missing(kSinceEver, entry.position, join->reason);
      return {};
    }
  }
  return as_gap(Error{-EBADMSG, "the log has an entry of an unknown kind"});
}

Result<void> Target::apply_record(const LogEntry &entry) {
  const auto message = decode(entry.payload);
  if (!message || !std::holds_alternative<Record>(*message)) {
    missing(kSinceEver, entry.position, "the log has a record that is none");
    return {};
  }
  const Record &record = std::get<Record>(*message);
  Applier &applier = *engine_->applier;
  last_captured_ = std::max(last_captured_, static_cast<std::int64_t>(record.ts));
  // What a walk has not come by yet may get to where it has been already.
  if (state_.missing_since) {
    if (auto path = applier.may_be_stale(record)) suspects_.insert(std::move(*path));
  }
  const auto applied = applier.apply(record, static_cast<std::uint64_t>(entry.time_ns / 1000));
  ++state_.applied;
  if (const auto kept = write_back(); !kept) return kept;
  return applied ? Result<void>() : not_applied(record, entry.position, applied.error());
}

/* Returns an error that holds the target. */
Result<void> Target::not_applied(const Record &record, LogPosition position, const Error &error) {
  const auto ts = static_cast<std::int64_t>(record.ts);
  // No other record and no comparison tells what was meant.
  if (error.code == -EXDEV) {
    missing(ts, position, "a record names no path");
    return {};
  }
  const std::vector<std::string> paths = engine_->applier->changed_by(record);
  if (error.code == -ESTALE && record.naming == Naming::kUnplaced) {
    look_for_unplaced(ts, position);
    suspects_.insert(paths.begin(), paths.end());
    return {};
  }
  if (holds_target(error)) return error;
  // The walk of a first copy comes by all that is not there yet.
  const bool copying = state_.missing_since == kSinceEver;
  if (copying && is_absent(error)) return {};
  // The others without paths, attributes and directories, are compared at the next mark.
  const bool unnamed = std::holds_alternative<WritePage>(record.change);
  // A target that begins in the middle of a write knows no file for the rest of it.
  const bool walk_to_come = copying && !walk_ && !walked_;
  if (paths.empty() && unnamed && !walk_to_come)
    missing(ts, position, "an unnamed file was changed");
  suspects_.insert(paths.begin(), paths.end());
  return {};
}

/* Nothing is lost, and nothing said: the file has the change, and a walk finds it. One that has
 * begun may have come by already, and is not made anew for this: another one follows it. */
void Target::look_for_unplaced(std::int64_t since, LogPosition position) {
  if (!state_.missing_since) return note_missing(since, position);
  const bool earlier = since < *state_.missing_since;
  if (earlier) state_.missing_since = since;
  if (walk_ || walked_) {
    unplaced_since_ = std::min(unplaced_since_.value_or(since), since);
    state_.walk.reset();
  } else if (earlier)
    note_missing(since, position);
}

/* The replica's file system told only now that a write had failed. */
Result<void> Target::write_back() {
  Result<void> first;
  for (const auto &[path, error] : engine_->replica.take_write_back_errors()) {
    suspects_.insert(path);
    failed("write-back of " + printable(path), error);
    if (first.ok()) first = error;
  }
  return first;
}

/* Before this, everything was changed whose records are before the mark. If the clock was set while
 * the mark was on its way, some of them have later times than it; no entry before it has a later
 * one than its own. */
std::int64_t Target::changed_before(const MarkEntry &mark, std::int64_t appended) const {
  constexpr std::int64_t kOnItsWay = 1'000'000;
  const std::int64_t known = std::max(mark.until, last_captured_ + 1);
  const bool our_clock = !options_.view;
  return our_clock && appended - mark.until > kOnItsWay ? std::max(known, appended) : known;
}

Result<void> Target::apply_mark(const MarkEntry &mark, std::int64_t appended) {
  if (const auto source = check_source(); !source) return source;
  Applier &applier = *engine_->applier;
  // A target that is behind compares at one mark for many.
  const bool behind = mark.number < intake_.last_mark();
  if (behind && Clock::now() < compare_again_ && !applier.changed_paths().full()) return {};
  const auto begun = Clock::now();
  // During a first copy all is compared by the walk.
  const bool copying = state_.missing_since == kSinceEver && !walked_;
  if (copying && !applier.changed_paths().full()) {
    state_.until = mark.until;
    state_.position = position_ + 1;
    unsaved_ = true;
    return {};
  }
  if (copying)
    state_.compare_data = true;  // times are copied now, of files whose data may be missing too
  for (auto path = suspects_.begin(); path != suspects_.end();) {
    const auto looked = applier.look_at(*path);
    if (!looked && holds_target(looked.error())) return looked;
    if (!looked) not_copied(printable(*path), looked.error());
    path = suspects_.erase(path);
  }
  const auto compared = applier.caught_up(changed_before(mark, appended));
  if (!compared && holds_target(compared.error())) return compared;
  engine_->replica.close_files();
  if (const auto kept = write_back(); !kept) return kept;
  if (!compared) not_copied("the comparison with the source", compared.error());
  for (const Unexplained &missing : applier.take_unexplained())
    say(Level::kNotice, about(),
        fmt::format("record {} ({}): its object was gone on both sides", missing.wseq,
                    missing.what));
  const auto compared_at = Clock::now();
  compare_again_ = compared_at +
                   std::max<Clock::duration>(kComparePause, kComparePauses * (compared_at - begun));
  return after_mark(mark);
}

/* Nothing is left to try at once: what is missing is looked for from time to time. */
void Target::not_copied(const std::string &what, const Error &error) {
  failed(what, error);
  if (is_absent(error)) return;
  const std::int64_t since = since_until();
  if (!state_.missing_since) return missing(since, intake_.log().end(), what + ": " + error.text);
  walk_fails();
  if (std::exchange(walked_, false)) walk_retry_at_ = Clock::now() + kWalkAgain;
  if (since >= *state_.missing_since) return;
  state_.missing_since = since;
  // One that was asked for and has not begun yet may not look back so far.
  if (!walk_) walks_.request(walked_as(), since, missing_at_);
}

Result<void> Target::after_mark(const MarkEntry &mark) {
  if (!suspects_.empty()) return {};
  // One that has taken the directory's place has none of what was applied.
  checked_at_ = {};
  if (!still_there()) return Error{-ECANCELED, "another directory is in the target's place"};
  last_captured_ = 0;
  if (walked_) note_clock();
  if (walked_ && !writes_lost_) {
    const bool told = state_.missing_since == kSinceEver || state_.gaps != state_.skipped;
    state_.missing_since = unplaced_since_;
    state_.walk.reset();
    state_.read_since.reset();
    state_.compare_data = false;
    state_.gaps = state_.skipped;
    walked_ = false;
    walk_.reset();
    saved_at_ = {};  // at once: a process that is killed would make the walk again
    if (told) say(Level::kNotice, about(), "nothing is missing any more");
    if (unplaced_since_) note_missing(*unplaced_since_, position_);
  }
  state_.until = mark.until;
  state_.position = position_ + 1;
  unsaved_ = true;
  if (!state_.missing_since) {
    MutexLock lock(mutex_);
    mark_ = mark.number;
    shown_ = state_;  // whoever waits for the mark asks then
    progress_ = seconds_left_ = bytes_per_second_ = -1;
    error_.clear();
    changed_.notify_all();
  }
  return {};
}

/* The change times that a walk was to look for may be earlier now: a directory from which something
 * was removed has been changed again since. */
void Target::note_clock() {
  const std::uint64_t set_backs = intake_.clock_set_backs();
  if (std::exchange(state_.clock_set_backs, set_backs) == set_backs) return;
  state_.compare_data = state_.compare_data || state_.missing_since;
  if (state_.missing_since && *state_.missing_since != kSinceEver)
    missing(kSinceEver, intake_.log().end(), "the clock was set back before the gap was healed");
}

/* What is changed by a name outside the rule no record tells. */
void Target::keep_names_outside() {
  auto paths = engine_->applier->with_names_outside();
  state_.more_names_outside =
      paths.size() > TargetState::kMostNamesOutside || engine_->applier->more_names_outside();
  if (state_.more_names_outside) paths.clear();
  state_.names_outside = std::move(paths);
}

void Target::watch_names_outside() {
  engine_->applier->named_outside(state_.names_outside);
  if (std::exchange(state_.more_names_outside, false))
    missing(since_until(), intake_.log().end(), "too many files have names outside the rule");
}

/* Only a walk that began behind what is missing, and looks back far enough. */
void Target::apply_walk_begin(const WalkBeginEntry &walk, LogPosition position) {
  const bool ours = walk.target.empty() || walk.target == walked_as();
  if (!ours || !state_.missing_since || position < missing_at_ ||
      walk.since > *state_.missing_since)
    return;
  walk_ = walk;
  walk_after_.reset();
  walk_left_off_ = false;
  walk_from_ = 0;
  state_.walk.reset();
  unplaced_since_.reset();
  walked_ = walk_failed_ = false;
  walk_started_ = Clock::now();
  read_before_walk_ = engine_->applier->fetcher().data().bytes_read();
}

Result<void> Target::apply_look(const LookEntry &look) {
  if (!walk_ || walk_->walk != look.walk) return {};
  if (look.done == LookEntry::kUnread) {
    walk_fails();
    return {};
  }
  if (const auto source = check_source(); !source) return source;
  std::optional<std::int64_t> since = walk_->since;
  if (since == kSinceEver) since.reset();
  if (state_.compare_data) since = kBeforeAll;
  auto read_since = since ? since : state_.read_since;
  if (read_since) read_since = std::max(*read_since, kBeforeAll);
  engine_->applier->fetcher().set_from_disk(state_.compare_data);
  auto looked = engine_->applier->look(look.directory, since, read_since);
  engine_->applier->fetcher().set_from_disk(false);
  if (const auto kept = write_back(); !kept) return kept;
  if (!looked && !holds_target(looked.error())) {
    failed("copy of " + printable("./" + look.directory), looked.error());
    if (!is_absent(looked.error())) walk_fails();
    looked = {};
  }
  if (looked) walk_after_ = look.directory;
  note_progress(look);
  return looked;
}

void Target::note_progress(const LookEntry &look) {
  const double done = static_cast<double>(look.done) / LookEntry::kWhole;
  const double here = done - *(walk_from_ = walk_from_.value_or(done)); /* done by this process */
  const double seconds = std::chrono::duration<double>(Clock::now() - walk_started_).count();
  const std::uint64_t read = engine_->applier->fetcher().data().bytes_read() - read_before_walk_;
  MutexLock lock(mutex_);
  progress_ = done;
  seconds_left_ = here > 0 ? seconds / here * (1 - done) : -1;
  bytes_per_second_ = seconds > 0 ? static_cast<double>(read) / seconds : -1;
}

void Target::apply_walk_end(const WalkEndEntry &walk) {
  if (!walk_ || walk_->walk != walk.walk) return;
  walk_.reset();
  walked_ = walk.complete && !walk_failed_;
  if (!walked_) {
    walk_retry_at_ = Clock::now() + kWalkAgain;
    state_.walk.reset();
  }
  if (!walk.complete)
    failed("the walk over the source", Error{-EACCES, "a part of the source cannot be read"});
}

}  // namespace tarn
