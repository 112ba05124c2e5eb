// SPDX-License-Identifier: GPL-2.0
// The thread of a target: reading the log, holding, saving.
#include "mirrord/service/target.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/failures.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr steady_clock::duration kAttachInterval = std::chrono::seconds(1);
constexpr steady_clock::duration kPausedInterval = std::chrono::seconds(1);
constexpr steady_clock::duration kSaveInterval = std::chrono::seconds(5);
/* During a walk: to be interrupted costs what was copied since, and to save a part of the time. */
constexpr steady_clock::duration kWalkSaveInterval = std::chrono::milliseconds(250);
constexpr int kSavePauses = 9;
constexpr steady_clock::duration kPublishInterval = std::chrono::milliseconds(20);
constexpr steady_clock::duration kFirstPause = std::chrono::milliseconds(100);
constexpr steady_clock::duration kLongestPause = std::chrono::seconds(30);
constexpr std::chrono::milliseconds kIdle{200};

}  // namespace

Result<std::unique_ptr<Target>> Target::open(Options options, Intake &intake, Walks &walks) {
  std::unique_ptr<Target> target(new Target(std::move(options), intake, walks));
  const auto state = read_target_state(target->options_.state_file);
  if (!state) return state.error();
  if (*state) {
    target->state_ = **state;
  } else {
    const auto made = make_uuid();
    if (!made) return made.error();
    target->state_.uuid = *made;
  }
  TargetState &kept = target->state_;
  target->end_lost_ = kept.log == to_string(intake.log().epoch()) &&
                      target->furthest_saved() > target->options_.log_end;
  if (target->end_lost_) {
    kept.position = std::min(kept.position, target->options_.log_end);
    kept.walk.reset();
  }
  struct stat source;
  if (!target->options_.view && stat(target->options_.source_directory.c_str(), &source) == 0)
    target->source_ = source;
  target->uuid_ = target->state_.uuid;
  target->needed_ = target->kept_from();
  MutexLock lock(target->mutex_);
  target->paused_ = target->state_.paused;
  target->shown_ = target->state_;
  lock.unlock();
  return target;
}

Target::~Target() {
  if (thread_.joinable()) stop(Clock::now());
}

void Target::start() {
  {
    MutexLock lock(mutex_);
    ended_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void Target::stop(Clock::time_point end) {
  stop_by_ = end;
  stop_ = true;
  {
    MutexLock lock(mutex_);
    changed_.notify_all();
  }
  intake_.log().wake();
  {
    MutexLock lock(mutex_);
    while (!ended_ && changed_.wait_until(lock, end)) {
    }
  }
  interrupt_ = true;  // a copy that takes longer
  thread_.join();
}

void Target::drop_claim() {
  needed_ = std::numeric_limits<LogPosition>::max();
  claim_dropped_ = true;
}

/* False: told to stop, or to do something else. */
bool Target::sleep(Clock::duration time) {
  const auto end = Clock::now() + time;
  MutexLock lock(mutex_);
  while (!asked_locked() && changed_.wait_until(lock, end)) {
  }
  return !asked_locked();
}

void Target::run() {
  if (end_lost_) note_lost_end();
  while (take_requests()) {
    if (!engine_) {
      if (const auto attached = attach(); !attached) {
        set_phase(Phase::kAway, attached.error().text);
        (void)sleep(kAttachInterval);
        continue;
      }
      set_phase(Phase::kRunning);
    }
    if (still_there()) step();
  }
  finish();
  MutexLock lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

/* Applies what the log holds by now, as long as there is time and nothing holds it. */
void Target::finish() {
  if (!engine_) return;
  const LogPosition end = intake_.log().end();
  while (!state_.paused && position_ < end && Clock::now() < stop_by_.load()) {
    const auto entry = reader_->next();
    if (!entry || !*entry || !apply(**entry)) break;
    position_ = (*entry)->position + 1;
  }
  if (const auto saved = save(at_rest()); !saved) {
    say(Level::kError, about(), "the position is not saved: " + saved.error().text);
    set_phase(Phase::kHeld, saved.error().text);
  }
  publish(0);
}

/* Has it all that the log has, with nothing in doubt? */
bool Target::at_rest() const {
  return position_ == intake_.log().end() && intake_.marked() && suspects_.empty() &&
         engine_->applier->changed_paths().empty() && !state_.missing_since;
}

bool Target::asked_locked() const {
  return stop_ || skip_ || resync_ || pause_changed_ || work_ != nullptr;
}

/* False: told to stop. */
bool Target::take_requests() {
  for (;;) {
    take_resync();
    take_work();
    take_pause();
    MutexLock lock(mutex_);
    if (stop_) return false;
    skip_ = false;  // nothing is held
    if (asked_locked()) continue;
    if (!paused_) return true;
    following_ = kNotFollowing;
    changed_.wait_for(lock, kPausedInterval);
  }
}

void Target::take_pause() {
  {
    MutexLock lock(mutex_);
    if (!pause_changed_) return;
    state_.paused = paused_;
  }
  const bool settled = state_.paused && engine_ && at_rest();
  Result<void> saved = settled ? save(true) : save_pause();
  if (settled && !saved) saved = save_pause();
  if (state_.paused) detach();  // its file system can be unmounted
  MutexLock lock(mutex_);
  note_request_locked(saved);
  pause_changed_ = state_.paused != paused_;
  changed_.notify_all();
}

void Target::take_resync() {
  {
    MutexLock lock(mutex_);
    if (!resync_) return;
  }
  detach();
  state_.identity.reset();
  state_.missing_since = kSinceEver;
  state_.compare_data = true;
  state_.walk.reset();
  state_.clean = false;
  state_.gaps = state_.skipped = 0;
  const auto written = write_target_state(options_.state_file, state_);
  MutexLock lock(mutex_);
  note_request_locked(written);
  resync_ = false;
  mark_ = 0;
  changed_.notify_all();
}

/* In what was saved last: a target that is held cannot be synced, which a new position needs. */
Result<void> Target::save_pause() {
  auto kept = read_target_state(options_.state_file);
  if (!kept) return kept.error();
  TargetState state = kept->value_or(state_);
  state.paused = state_.paused;
  return write_target_state(options_.state_file, state);
}

void Target::note_request_locked(const Result<void> &saved) {
  request_error_.reset();
  if (!saved) request_error_ = saved.error();
}

/* What the engine remembers of the directory is not true any more afterwards. */
void Target::take_work() {
  Work *work = nullptr;
  {
    MutexLock lock(mutex_);
    work = work_;
  }
  if (!work) return;
  detach();
  // The records behind the position are older than what it may copy.
  if (std::exchange(state_.clean, false)) {
    if (const auto written = write_target_state(options_.state_file, state_); !written)
      failed("the state", written.error());
  }
  const auto there = identify_directory(options_.directory);
  const bool ours = there && state_.identity && *there == *state_.identity;
  if (ours) work->run();
  MutexLock lock(mutex_);
  work->done = ours;
  work_ = nullptr;
  changed_.notify_all();
}

void Target::step() {
  ask_for_rest_of_walk();
  const auto entry = reader_->next();
  if (!entry) return unreadable(entry.error());
  if (!*entry) return idle();
  apply_held(**entry);
  save_sometimes();
}

/* Also while there is always more to read: the log keeps all from the saved position on. */
void Target::save_sometimes() {
  const auto interval =
      walk_ ? std::clamp(kSavePauses * saving_, kWalkSaveInterval, kSaveInterval) : kSaveInterval;
  if (!engine_ || !unsaved_ || Clock::now() - saved_at_ < interval) return;
  if (const auto saved = save(false); !saved) failed("the position", saved.error());
}

void Target::unreadable(const Error &error) {
  const auto next = reader_->skip_damage();
  missing(error.code == -ESTALE ? since_until() : kSinceEver, intake_.log().end(), error.text);
  if (!next) {
    failed("the log", next.error());
    (void)sleep(kAttachInterval);
    return;
  }
  position_ = *next;
}

void Target::idle() {
  save_sometimes();
  if (state_.missing_since && !walk_ && !walked_ && Clock::now() >= walk_retry_at_ &&
      walk_retry_at_ != Clock::time_point{}) {
    walk_retry_at_ = {};
    missing_at_ = intake_.log().end();
    walks_.request(walked_as(), *state_.missing_since, missing_at_);
  }
  publish(0);
  (void)intake_.log().wait(position_, kIdle);
}

/* Tries until the entry is applied, skipped, or the directory has gone. */
void Target::apply_held(const LogEntry &entry) {
  auto pause = kFirstPause;
  bool held = false;
  for (;;) {
    const auto applied = apply(entry);
    if (applied) break;
    if (applied.error().code == -ECANCELED) {
      if (engine_) reader_.emplace(intake_.log(), position_);
      return;
    }
    if (!holds_target(applied.error())) {
      failed(describe_entry(entry), applied.error());
      break;
    }
    const std::string what = describe_entry(entry);
    if (!held) say(Level::kWarning, about(), "held by " + what + ": " + applied.error().text);
    set_phase(Phase::kHeld, what + ": " + applied.error().text);
    publish(entry.time_ns);  // nothing does until the next entry is applied
    held = true;
    {
      MutexLock lock(mutex_);
      held_entry_ = what;
      skip_ = false;
      changed_.notify_all();
    }
    following_ = kNotFollowing;
    const bool again = sleep(pause);
    pause = std::min(2 * pause, kLongestPause);
    MutexLock lock(mutex_);
    held_entry_.clear();
    const bool skipped = std::exchange(skip_, false);
    lock.unlock();
    checked_at_ = {};
    if (skipped) {
      ++state_.skipped;
      ++state_.gaps;
      say(Level::kWarning, about(), "GAP: skipped " + what);
      break;
    }
    // The reader is behind the entry: the next attempt begins with the next attach or here.
    if (!again || !still_there()) {
      if (engine_) reader_.emplace(intake_.log(), position_);
      set_phase(Phase::kRunning);
      return;
    }
  }
  if (held) {
    say(Level::kNotice, about(), "goes on");
    set_phase(Phase::kRunning);
  }
  position_ = following_ = entry.position + 1;
  unsaved_ = true;
  if (Clock::now() - published_at_ >= kPublishInterval) publish(entry.time_ns);
}

/* The data that the files have now and the position that says so, in this order. */
Result<void> Target::save(bool clean) {
  const auto begun = saved_at_ = Clock::now();
  engine_->replica.close_files();
  if (const auto kept = write_back(); !kept) return kept;
  // Only a mark tells that nothing before it is in doubt.
  keep_names_outside();
  note_walk_place();
  state_.clean = clean;
  if (clean) state_.position = position_;
  if (const auto synced = engine_->replica.sync(); !synced) {
    writes_lost(synced.error());
    return synced;
  }
  if (std::exchange(writes_lost_, false)) look_for_missing(intake_.log().end());
  // A log that loses its end gives the positions to other entries.
  if (furthest_saved() > intake_.log().durable_end()) {
    if (const auto logged = intake_.log().sync(); !logged) return logged;
  }
  if (const auto written = write_target_state(options_.state_file, state_); !written)
    return written;
  if (!claim_dropped_) needed_ = kept_from();
  unsaved_ = false;
  saved_at_ = Clock::now();
  saving_ = saved_at_ - begun;
  return {};
}

/* The file system tells once that it has not kept something, and not what. It may be lost with what
 * is in memory, so the next process has to know it. */
void Target::writes_lost(const Error &error) {
  if (std::exchange(writes_lost_, true)) return;
  state_.compare_data = true;
  missing(kSinceEver, intake_.log().end(), "written data may be lost: " + error.text);
  auto kept = read_target_state(options_.state_file);
  if (!kept || !*kept) return;  // all is compared without a state
  (*kept)->missing_since = kSinceEver;
  (*kept)->compare_data = true;
  (*kept)->walk.reset();
  (*kept)->clean = false;
  ++(*kept)->gaps;
  if (const auto written = write_target_state(options_.state_file, **kept); !written)
    failed("the state", written.error());
}

/* The source's clock; of another host's, only while it is looked at. */
Result<std::int64_t> Target::source_now() const {
  if (engine_) return engine_->applier->source().now();
  if (options_.view) return Error{-EHOSTDOWN, "the source is not looked at"};
  return now_us();
}

/* Since when changes may not be in the target. If the clock was set back, times do not tell. */
std::int64_t Target::since_until() const {
  return source_now() ? confirmed_until() : kSinceEver;
}

/* The same, trusting a source's clock that cannot be asked. */
std::int64_t Target::confirmed_until() const {
  const auto now = source_now();
  const LogPosition set_back_at = intake_.clock_set_back_at();
  const bool our_log = state_.log == to_string(intake_.log().epoch());
  const bool set_back = our_log ? state_.position <= set_back_at : set_back_at != 0;
  if (set_back || (now && state_.until > *now)) return kSinceEver;
  return state_.until - kLateRecords.count();
}

void Target::missing(std::int64_t since, LogPosition position, const std::string &why) {
  say(Level::kWarning, about(), "GAP: " + why);
  ++state_.gaps;
  note_missing(since, position);
}

void Target::note_missing(std::int64_t since, LogPosition position) {
  if (position <= intake_.clock_set_back_at()) {
    since = kSinceEver;          // an entry's time of before the clock was set back
    state_.compare_data = true;  // times may have been copied ahead of the data
  }
  // In a first copy no time is here before the data, but behind its walk.
  if (state_.missing_since != kSinceEver || walked_) {
    std::int64_t read_since = confirmed_until();
    if (state_.missing_since != kSinceEver)
      read_since = std::min(read_since, state_.missing_since.value_or(read_since));
    state_.read_since = std::min(state_.read_since.value_or(read_since), read_since);
  }
  state_.missing_since = std::min(state_.missing_since.value_or(since), since);
  look_for_missing(position);
}

/* By a walk that begins there. */
void Target::look_for_missing(LogPosition position) {
  missing_at_ = position;
  walk_.reset();
  walked_ = false;
  state_.walk.reset();
  walks_.request(walked_as(), *state_.missing_since, missing_at_);
}

void Target::failed(const std::string &what, const Error &error) {
  ++state_.failures;
  const std::string text = what + ": " + error.text;
  MutexLock lock(mutex_);
  if (text == error_) return;  // it is tried again and again
  error_ = text;
  lock.unlock();
  say(Level::kWarning, about(), text);
}

std::string Target::describe_entry(const LogEntry &entry) const {
  std::string what;
  switch (static_cast<EntryKind>(entry.kind)) {
    case EntryKind::kRecord:
      if (const auto message = decode(entry.payload);
          message && std::holds_alternative<Record>(*message))
        what = describe(std::get<Record>(*message).change);
      break;
    case EntryKind::kLook:
      if (const auto look = decode_look(entry.payload))
        what = "copy of " + printable("./" + look->directory);
      break;
    case EntryKind::kMark:
      what = "the comparison with the source";
      break;
    default:
      break;
  }
  return fmt::format("entry {} ({})", entry.position, what.substr(0, 400));
}

}  // namespace tarn
