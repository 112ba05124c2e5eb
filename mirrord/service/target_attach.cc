// SPDX-License-Identifier: GPL-2.0
// A target's way to its directory and to its place in the log, and whether the directory is still
// the same one.
#include <sys/stat.h>

#include <cerrno>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/target.h"

namespace tarn {
namespace {

constexpr std::chrono::seconds kCheckInterval{1};

}  // namespace

Result<void> Target::attach() {
  auto attached = try_to_attach();
  if (!attached) engine_.reset();
  return attached;
}

Result<void> Target::try_to_attach() {
  if (const auto source = check_source(); !source) return source;
  const auto there = identify_directory(options_.directory);
  if (!there) return there.error();
  if (const auto checked = check_identity(*there); !checked) return checked;
  auto replica = Replica::open(options_.directory);
  if (!replica) return replica.error();
  identity_ = *there;
  engine_ = std::make_unique<Engine>(std::move(*replica));
  if (const auto closed = close_to_others(); !closed) return closed;
  auto &applier = engine_->applier.emplace(
      options_.source_directory,
      options_.view ? options_.view() : std::make_unique<LocalSource>(options_.source_directory),
      engine_->replica, [lists = options_.lists](const Uuid &) { return std::optional(lists); });
  applier.know_rule(intake_.rule());
  applier.set_log_clock(
      [&log = intake_.log()] { return static_cast<std::uint64_t>(log.now_ns() / 1000); });
  applier.fetcher().set_rate(options_.copy_bytes_per_second);
  applier.fetcher().set_stop(&interrupt_);
  if (const auto now = applier.source().now(); !now) return now.error();
  begin_in_log();
  // From now on something may have been applied that the position does not tell.
  return save(false);
}

/* To compare with another directory in the source's place would remove everything here. */
Result<void> Target::check_source() const {
  if (!source_) return {};
  struct stat now;
  if (stat(options_.source_directory.c_str(), &now) == 0 && same_object(now, *source_)) return {};
  return Error{-ENODEV, fmt::format("{} is not the directory any more that it was when mirrord was "
                                    "started: put it back, or restart mirrord",
                                    printable(options_.source_directory))};
}

/* Another directory than before is only taken if that is what somebody must have meant. */
Result<void> Target::check_identity(const DirectoryIdentity &there) {
  if (!state_.identity) {
    state_.missing_since = kSinceEver;
  } else if (state_.identity->mount_point != there.mount_point) {
    return Error{-ENODEV, fmt::format("{} is on the file system of {}, not of {}: mount the target",
                                      printable(options_.directory), there.mount_point,
                                      state_.identity->mount_point)};
  } else if (state_.identity->object != there.object) {
    const auto empty = directory_is_empty(options_.directory);
    if (!empty) return empty.error();
    if (!*empty)
      return Error{-ENODEV, fmt::format("{} is another directory than before, and not empty: "
                                        "'mirrord resync {}' takes it as the target",
                                        printable(options_.directory), about())};
    say(Level::kWarning, about(), "an empty directory is in the target's place: copying all");
    state_.missing_since = kSinceEver;
    ++state_.gaps;
  }
  if (state_.identity != there) state_.walk.reset();
  state_.identity = there;
  return {};
}

/* Set-user-id files in the replica must not be run by others. */
Result<void> Target::close_to_others() {
  const auto must = engine_->replica.must_close_to_others();
  if (!must) return must.error();
  if (!*must) return {};
  say(Level::kNotice, about(),
      "its directory has mode 0700 now: set-user-id files in it must not be run by others; mount "
      "its file system nosuid if they are to read it");
  return engine_->replica.close_to_others();
}

/* Kept at once: at the next start the log may be as long as it was. */
void Target::note_lost_end() {
  missing(since_until(), intake_.log().end(), "the log has lost its end");
  state_.clean = false;
  if (const auto written = write_target_state(options_.state_file, state_); !written)
    failed("the state", written.error());
}

void Target::begin_in_log() {
  const Log &log = intake_.log();
  const std::string epoch = to_string(log.epoch());
  claim_dropped_ = false;
  if (state_.log != epoch || state_.position == 0) {
    if (!state_.log.empty()) missing(kSinceEver, log.end(), "the log is another one");
    state_.log = epoch;
    state_.position = log.end();
    state_.missing_since = kSinceEver;
  } else if (state_.position < log.first()) {
    missing(since_until(), log.end(), "the log no longer has what was not applied");
    state_.position = log.first();
  }
  walk_.reset();
  walk_after_.reset();
  walk_left_off_ = false;
  unplaced_since_.reset();
  walked_ = false;
  suspects_.clear();
  if (!walk_goes_on()) state_.walk.reset();
  const bool replayed = !state_.clean;
  if (replayed) engine_->applier->distrust_records();
  note_clock();
  watch_names_outside();
  position_ = state_.walk ? state_.walk->position : state_.position;
  needed_ = kept_from();
  following_ = position_;
  reader_.emplace(log, position_);
  if (state_.walk) {
    go_on_with_walk();
  } else if (state_.missing_since) {
    missing_at_ = log.end();
    walks_.request(walked_as(), *state_.missing_since, missing_at_);
  }
  publish(0);
}

/* Its memory of what is in doubt goes too, so the records from the saved position on are not
 * trusted at the next attach. */
void Target::detach() {
  following_ = kNotFollowing;
  if (engine_) keep_names_outside();
  engine_.reset();
  reader_.reset();
}

/* Has another directory taken the target's place? */
bool Target::still_there() {
  if (claim_dropped_) {
    detach();
    return false;
  }
  if (Clock::now() - checked_at_ < kCheckInterval) return true;
  checked_at_ = Clock::now();
  const auto there = identify_directory(options_.directory);
  if (there && *there == identity_) return true;
  detach();
  return false;
}

}  // namespace tarn
