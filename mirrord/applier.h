/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Replays one change record on the replica: the source directory at the head of its paths is
 * replaced by the replica.
 *
 * What a record says is done, but where it does not tell enough, or may not have happened, the
 * source is looked at:
 *  - A file that comes into the rule, by rename or link from a place that the rule excludes, is
 *    fetched; one that goes out is removed.
 *  - The removal of a directory is recorded even if it was refused: while the source has a
 * directory of that name, the replica's stays.
 *  - A change of attributes is recorded even if the file system below refused it: what the source
 *    does not have that way is taken as the source has it, and no file is cut while the source's is
 *    longer.
 *  - Special files, and regular files that were made by mknod(2), are captured by no record: they
 *    are fetched when a change of them is. So is the owner of a symbolic link.
 * The source may be further than the record then. pending_paths.h says why the replica becomes like
 * the source all the same.
 *
 * "Is not there" is taken for "was removed already" only where a repeated removal says so and the
 * directory is there. An object that is missing in both places must be explained by a later record:
 * take_unexplained() tells of those that were not. One thread.
 */
#ifndef TARN_MIRRORD_APPLIER_H
#define TARN_MIRRORD_APPLIER_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/messages.h"
#include "client/pages.h"
#include "mirrord/replica.h"
#include "mirrord/scope.h"
#include "mirrord/reconciler.h"

namespace tarn {

class Applier {
 public:
  /* `source` is absolute, without a slash at its end (but "/" itself). */
  Applier(std::string source, Replica &replica, RuleLists rules = {},
          std::chrono::microseconds horizon = PendingPaths::kHorizon)
      : source_(std::move(source)),
        replica_(replica),
        scopes_(std::move(rules)),
        reconciler_(source_, replica, horizon) {}

  enum class Outcome {
    kApplied,
    kAlready,  /* the replica was that way before */
    kOutside,  /* the change is about another directory than the source */
    kNameless, /* the change is about a file without a name any more: nobody can open it again */
  };

  Result<Outcome> apply(const Record &record);

  /* Records from `ts` on (microseconds since the epoch) are missing: what they may have told of is
   * looked for when all others have been applied. */
  void lost(std::uint64_t ts) { reconciler_.note_unrecorded(ts); }

  /* Of the last write page that was applied: the file, which a later page's record does not name.
   */
  const std::string &page_path() const { return page_path_; }

  /* All records of what was done until `asked` (microseconds since the epoch) have been applied:
   * the last looks at the source. */
  Result<void> caught_up(std::int64_t asked);
  /* The same for the paths that records named; without the files that have several names. */
  Result<void> compare_changed(std::int64_t asked);
  const ChangedPaths &changed_paths() const { return reconciler_.changed_paths(); }

  /* Records whose object was missing, and which no later record explained in time; with an age,
   * also those that are older and not explained yet, because all records have come. */
  std::vector<Unexplained> take_unexplained(
      std::optional<std::chrono::microseconds> older_than = {});

 private:
  struct Visitor;

  void look_for_any_rule();
  /* The record is of a file of the rule, nobody knows which: it is looked for when all has come. */
  Error unplaced(const Record &record);
  void touch(const Record &record);

  std::string absolute(std::string_view path) const {
    return (source_ == "/" ? "" : source_) + "/" + std::string(path);
  }

  std::string source_;
  Replica &replica_;
  Scopes scopes_;
  Reconciler reconciler_;
  PageFollower pages_;
  std::string page_path_;
  std::vector<Unexplained> unexplained_;
};

}  // namespace tarn

#endif
