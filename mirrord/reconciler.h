/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Copies paths from the source's present state to the replica, and marks them as ahead of the
 * records (pending_paths.h). One thread.
 */
#ifndef TARN_MIRRORD_RECONCILER_H
#define TARN_MIRRORD_RECONCILER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "mirrord/changed_paths.h"
#include "mirrord/doubts.h"
#include "mirrord/fetcher.h"
#include "mirrord/pending_paths.h"

namespace tarn {

class Reconciler {
 public:
  /* Both must outlive this. */
  Reconciler(Source &source, Replica &replica, std::chrono::microseconds horizon)
      : replica_(replica),
        source_(source),
        fetcher_(source_, replica),
        pending_(horizon, [this] { return source_.now(); }) {}

  Source &source() { return source_; }
  Fetcher &fetcher() { return fetcher_; }

  /* The scope of the current record's rule, for fetched trees. */
  void set_included(Fetcher::Included included) { included_ = std::move(included); }
  /* A name of the current record's object, perhaps outside the source; "": none. */
  void set_other_name(std::string path) { other_name_ = std::move(path); }

  /* Is the path marked to be copied from the source, rather than changed by records? */
  bool follows_source(const std::string &path) const { return pending_.covers(path); }

  /* Is any path below it? */
  bool follows_source_below(const std::string &path) const { return pending_.covers_below(path); }

  /* Marks it. */
  void follow_source(const std::string &path) { pending_.mark(path).names = true; }

  /* Copies the path from the source and marks it to follow the source. kAlready: the source does
   * not have it, and now the replica does not either. */
  Result<Replica::Done> reconcile(const std::string &path);

  /* Marks the path as the right object whose owner, mode and bytes from `data_from` on may be
   * wrong. */
  void doubt(const std::string &path, std::uint64_t data_from);

  /* The record's object is missing; a later record must explain why. */
  void expect_explanation(const std::string &path, const Unexplained &missing);

  /* A record told that the object left the path: nothing about it is unexplained any more. */
  void explained(const std::string &path) { pending_.explained(path); }

  /* Recorded changes of names, after they were applied. */
  void removed(const std::string &path);
  void linked(const std::string &existing, const std::string &path);
  Result<void> moved(const std::string &from, const std::string &to);

  /* Restores the times of a directory that a fetch, not a record, changed. */
  Result<void> restore_times(const std::string &directory, const struct stat &before);

  /* Call it before the replica's name is removed or replaced. If its object is in doubt, watched or
   * was written since the last mark, and has another name, that passes to the other name. */
  Result<void> before_removal(const std::string &path);

  /* The object has, or may have, a name outside the rule, by which changes are not recorded;
   * check_links() finds them. `ts`: when the current record was captured. */
  void watch(const std::string &path, std::uint64_t ts);
  /* The paths whose objects have more names in the source than are known here: changes by these may
   * not be recorded, so a later Reconciler is told named_outside() of the paths. */
  std::vector<std::string> with_names_outside();
  /* Are those not all of them? */
  bool more_names_outside() const { return fetcher_.origins().has_forgotten(); }
  /* The object of the path has, or had, a name outside the rule: see CopyOrigins. */
  void named_outside(const std::string &path) {
    if (included_(path)) fetcher_.origins().named_outside(path);
  }
  /* Call it before a record changes the data of the path's file: a copy from the source, perhaps
   * under another name, may be ahead of the record. */
  void records_change(const std::string &path);
  /* Call it when all records have been applied. Compares files that have several names, so that
   * changes by a name that is outside the rule, or that the source had lost before its record was
   * applied, are found under the others. */
  Result<void> check_links();
  /* The paths that records named. */
  ChangedPaths &changed_paths() { return changed_paths_; }
  const ChangedPaths &changed_paths() const { return changed_paths_; }
  /* Call it when all records of changes before `until` (microseconds since the epoch) have been
   * applied: compares the changed paths, and copies differences and modification times from the
   * source. Paths that changed since `until` are left to the next call. Goes on after an error and
   * returns the worst one. */
  Result<void> compare_changed(std::int64_t until);
  /* The next compare_changed() copies again what could not be compared or copied. */
  void retry_failed();

  /* Compares one directory, as Applier::look() says. Each path that it copies or removes follows
   * the source from then on. Goes on after an error and returns the worst one. */
  Result<void> look(const std::string &directory, std::optional<std::int64_t> since,
                    std::optional<std::int64_t> read_since);
  /* Gives the directories that were looked at the times that later looks have changed. */
  Result<void> restore_looked();
  /* What a later Reconciler has to compare. Nothing: more than Doubts::kMost, or what cannot be
   * told. */
  std::optional<Doubts> doubts();
  void take(const Doubts &doubts);

  /* Both names are one object in the replica. If they are in the source too, notes it as the copy's
   * origin. */
  void assume_linked(const std::string &existing, const std::string &path);
  /* The record linked the names, but the replica did not. `existing` may change by the other name,
   * which follows the source and may be gone there. */
  void watch_if_apart(const std::string &existing, const std::string &path);
  /* Ends marks before a record of that time is applied. Returns those left unexplained. */
  std::vector<Unexplained> expire(const PendingPaths::Time &record);
  void set_log_clock(PendingPaths::Now now) { pending_.set_log_clock(std::move(now)); }
  /* The end of the marks that are made now. */
  PendingPaths::Time horizon() const { return pending_.horizon(); }

 private:
  Result<Replica::Done> try_to_reconcile(const std::string &path);
  Result<Replica::Done> take_from_source(const std::string &path,
                                         const std::optional<Source::Object> &found);
  Result<void> recheck(const std::string &path);
  Result<nlink_t> known_names(const struct stat &status);
  Result<void> reconcile_other_names();
  Result<bool> may_be_another(const std::string &directory, std::int64_t since);
  struct Look {
    const Source::Object &directory;
    std::optional<std::int64_t> since, read_since;
    bool another; /* times do not tell that an object is the replica's */
  };
  struct Sides {
    const DirectoryEntry *theirs = nullptr;
    bool mine = false;
  };
  Result<std::optional<Source::Object>> find_entry(const Look &look, const std::string &path,
                                                   const Sides &sides);
  Result<void> look_at(const Look &look, const std::string &path, const Sides &sides);
  struct Watched {
    std::vector<std::pair<std::string, struct stat>> found = {}; /* the source's */
    std::map<CopyOrigins::Object, nlink_t> names = {};           /* of those */
    std::vector<std::string> waiting = {};
  };
  Result<void> find_with_many_links(Watched &watched);
  bool knows_all_names(const struct stat &status, const Watched &watched);
  bool has_other_name_to_compare(const std::string &path, const struct stat &mine);
  Result<bool> compare(const std::string &path, std::int64_t until);
  Result<bool> copy_mtime(const std::string &path, std::int64_t until);
  Result<void> find_names(const Source::Object &directory, const std::string &path,
                          const Fetcher::Objects &wanted, std::vector<std::string> &found);

  Replica &replica_;
  Source &source_;
  Fetcher fetcher_;
  PendingPaths pending_;
  ChangedPaths changed_paths_;
  std::set<std::string> failed_; /* could not be compared or copied */
  std::set<std::string> looked_; /* directories whose times a look may have changed since theirs */
  struct Searched {
    timespec changed;
    nlink_t known;
  };
  std::map<CopyOrigins::Object, Searched> searched_; /* source's objects, for other names */
  bool reconciling_names_ = false;
  std::string other_name_;
  Fetcher::Included included_ = [](const std::string &) { return true; };
};

}  // namespace tarn

#endif
