// SPDX-License-Identifier: GPL-2.0
// How a target keeps its place in a walk, and goes on from there after a restart.
#include <algorithm>
#include <utility>

#include "mirrord/service/target.h"

namespace tarn {
namespace {

/* The log keeps what lies behind the place, so one that cannot be renewed is given up. */
constexpr std::chrono::seconds kPlaceKept{60};

}  // namespace

/* With all that only this process knows, so that nothing is in doubt there that is not in the
 * state. What was noted before remains right: the entries behind it are in the log. */
void Target::note_walk_place() {
  if (state_.walk && Clock::now() - walk_noted_at_ > kPlaceKept) state_.walk.reset();
  const bool whole = !walk_failed_ && !unplaced_since_ && !writes_lost_;
  if (!walk_ || !walk_after_ || !whole || options_.view || state_.more_names_outside) return;
  if (state_.clock_set_backs != intake_.clock_set_backs()) return;
  Applier &applier = *engine_->applier;
  if (!applier.restore_looked()) return;  // the next comparison tells why
  auto doubts = applier.doubts();
  const auto source = identify_directory(options_.source_directory);
  if (!doubts || suspects_.size() > Doubts::kMost || !source) return;
  state_.walk = WalkPlace{.begin = *walk_,
                          .position = position_,
                          .after = *walk_after_,
                          .suspects = {suspects_.begin(), suspects_.end()},
                          .doubts = std::move(*doubts),
                          .last_captured = last_captured_,
                          .source = *source};
  walk_noted_at_ = Clock::now();
}

/* Only if all that happened since is in the log, of this source, by one clock. */
bool Target::walk_goes_on() const {
  if (!state_.walk || !state_.missing_since || options_.view) return false;
  const WalkPlace &place = *state_.walk;
  const Log &log = intake_.log();
  const auto source = identify_directory(options_.source_directory);
  return source && *source == place.source && place.position >= log.first() &&
         place.position <= log.end() && place.begin.since <= *state_.missing_since &&
         state_.clock_set_backs == intake_.clock_set_backs();
}

void Target::go_on_with_walk() {
  const WalkPlace &place = *state_.walk;
  walk_ = place.begin;
  walk_after_ = place.after;
  walk_left_off_ = true;
  walk_failed_ = false;
  missing_at_ = place.begin.walk;
  suspects_.insert(place.suspects.begin(), place.suspects.end());
  last_captured_ = std::max(last_captured_, place.last_captured);
  engine_->applier->take(place.doubts);
  walk_noted_at_ = walk_started_ = Clock::now();
  walk_from_.reset();
  read_before_walk_ = engine_->applier->fetcher().data().bytes_read();
}

/* The log may have the rest of the walk, or a part of it. */
void Target::ask_for_rest_of_walk() {
  if (!walk_ || !walk_left_off_ || position_ < options_.log_end) return;
  walk_left_off_ = false;
  walks_.go_on(walked_as(), *walk_, *walk_after_);
}

/* Something was not copied, so this walk does not heal all. */
void Target::walk_fails() {
  walk_failed_ = true;
  state_.walk.reset();
}

/* The first of the entries that are not needed any more once the state is on the disk. */
LogPosition Target::kept_from() const {
  return state_.walk ? std::min(state_.position, state_.walk->position) : state_.position;
}

/* The log must have all that the state says is in the target. */
LogPosition Target::furthest_saved() const {
  return state_.walk ? std::max(state_.position, state_.walk->position) : state_.position;
}

}  // namespace tarn
