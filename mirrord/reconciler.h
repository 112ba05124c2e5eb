/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes paths of the replica as the source has them now, and keeps the marks of those that are
 * therefore further than the records: pending_paths.h says how the two are brought together again.
 * One thread.
 */
#ifndef TARN_MIRRORD_RECONCILER_H
#define TARN_MIRRORD_RECONCILER_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "mirrord/fetcher.h"
#include "mirrord/changed_paths.h"
#include "mirrord/pending_paths.h"

namespace tarn {

class Reconciler {
 public:
  Reconciler(std::string source, Replica &replica, std::chrono::microseconds horizon)
      : replica_(replica),
        source_(std::move(source)),
        fetcher_(source_, replica),
        pending_(horizon) {}

  Source &source() { return source_; }
  Fetcher &fetcher() { return fetcher_; }

  /* What the rule of the present record replicates, for fetched trees. */
  void set_included(Fetcher::Included included) { included_ = std::move(included); }
  /* A name of the object that the present record tells of, wherever it is; "": none. */
  void set_other_name(std::string path) { other_name_ = std::move(path); }

  /* Does the path follow the source, not the records? */
  bool follows_source(const std::string &path) const { return pending_.covers(path); }

  /* Does anything below it? */
  bool follows_source_below(const std::string &path) const { return pending_.covers_below(path); }

  /* From now on it does. */
  void follow_source(const std::string &path) { pending_.mark(path).names = true; }

  /* Makes the path as it is in the source; from now on it follows the source. kAlready: the source
   * has nothing there, and now the replica has not either. */
  Result<Replica::Done> reconcile(const std::string &path);

  /* The object is the right one, but its owner, mode and bytes from `data_from` on may not be. */
  void doubt(const std::string &path, std::uint64_t data_from);

  /* The record finds nothing to be applied to; a later one must tell why. */
  void expect(const std::string &path, const Unexplained &missing);

  /* The object's leaving was recorded: nothing about it needs an explanation any more. */
  void explained(const std::string &path) { pending_.explained(path); }

  /* What records did to names. */
  void removed(const std::string &path);
  void linked(const std::string &existing, const std::string &path);
  Result<void> moved(const std::string &from, const std::string &to);

  /* Undoes the time change of a directory whose contents were fetched: no record tells of it. */
  Result<void> restore_times(const std::string &directory, const struct stat &before);

  /* The name is about to go. If its contents are in doubt, or it is watched, and it has another
   * name, that is looked at from now on. */
  Result<void> leaving(const std::string &path);

  /* The object has, or may have, a name that the rule does not include: what is changed by that one
   * no record tells. check_links() sees it. `ts`: when the present record was captured. */
  void watch(const std::string &path, std::uint64_t ts);
  /* A record is about to change the data of the path's file. What was taken from the source for it,
   * perhaps under another name, may be further than the record. */
  void records_change(const std::string &path);
  /* All records have come. What was changed by a name that the source did not have any more when
   * the record was applied, or by one that went out of the rule, is seen at the file's other names.
   */
  Result<void> check_links();
  /* From `ts` on (microseconds since the epoch) something was changed that no record tells of. */
  void note_unrecorded(std::uint64_t ts) { unrecorded_since_ = std::min(unrecorded_since_, ts); }
  /* All records of what was done until `asked` have been applied: takes over what such a change may
   * have been of, as far as change times in the source tell. All its names are read for that. */
  Result<void> find_unrecorded(std::int64_t asked);
  /* A record names the path. */
  ChangedPaths &changed_paths() { return changed_paths_; }
  const ChangedPaths &changed_paths() const { return changed_paths_; }
  /* All records of what was done until `asked` (microseconds since the epoch) have been applied:
   * compares the paths that were changed, and takes from the source what differs, and all
   * modification times. What has been changed since is left to the next time. The error is the
   * first one; everything is tried. */
  Result<void> compare_changed(std::int64_t asked);

  /* The replica's object has both names. If the source's has, too, it is a copy of that. */
  void assume_linked(const std::string &existing, const std::string &path);
  /* A record has linked them, but not in the replica: `existing` may be changed by the other name,
   * which follows the source and may have gone there. */
  void watch_if_apart(const std::string &existing, const std::string &path);
  /* A record captured at `ts` comes: ends marks. Gives what was not explained. */
  std::vector<Unexplained> expire(std::uint64_t ts);
  std::vector<Unexplained> take_missing(std::chrono::microseconds age) {
    return pending_.take_missing(age);
  }

 private:
  Result<Replica::Done> take_over(const std::string &path,
                                  const std::optional<Source::Object> &found);
  Result<void> recheck(const std::string &path);
  Result<void> reconcile_other_names();
  Result<void> find_unrecorded_below(const std::string &directory, std::int64_t since,
                                     std::int64_t asked);
  Result<void> take_names(const std::string &directory);
  Result<void> take_if_changed(const std::string &path, std::int64_t since, std::int64_t asked);
  Result<bool> compare(const std::string &path, std::int64_t asked);
  Result<void> take_time(const std::string &path, std::int64_t asked);
  void find_names(const std::string &directory, const Fetcher::Objects &wanted,
                  std::vector<std::string> &found);

  static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

  Replica &replica_;
  Source source_;
  Fetcher fetcher_;
  PendingPaths pending_;
  ChangedPaths changed_paths_;
  std::uint64_t unrecorded_since_ = kNever;
  std::vector<std::string> recheck_later_; /* found, but being changed when they were */
  bool reconciling_names_ = false;
  std::string other_name_;
  Fetcher::Included included_ = [](const std::string &) { return true; };
};

}  // namespace tarn

#endif
