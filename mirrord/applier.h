/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Replays one change record on the replica: in its paths, the replica takes the place of the source
 * directory.
 *
 * The source is read where a record does not say enough, or where the recorded change may have
 * failed:
 *  - A file that is renamed or linked into the rule from an excluded directory is fetched; one that
 *    is renamed out of the rule is removed.
 *  - A refused removal of a directory is recorded too: the replica's directory stays while the
 *    source has one of that name.
 *  - A refused change of attributes is recorded too: an attribute that the source does not have is
 *    taken from the source, and no file is truncated while the source's is longer.
 *  - The creation of special files, and of regular files by mknod(2), is not recorded: they are
 *    fetched at their first recorded change. The owner of a symbolic link is not recorded either
 *    and is fetched.
 *
 * The source may already be ahead of the record. pending_paths.h says why the replica converges all
 * the same.
 *
 * A missing object counts as removed before only if a removal is repeated and the parent directory
 * exists. An object that both source and replica lack must be explained by a later record:
 * take_unexplained() returns those that were not. One thread.
 */
#ifndef TARN_MIRRORD_APPLIER_H
#define TARN_MIRRORD_APPLIER_H

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/messages.h"
#include "client/pages.h"
#include "mirrord/local_source.h"
#include "mirrord/replica.h"
#include "mirrord/scope.h"
#include "mirrord/reconciler.h"

namespace tarn {

class Applier {
 public:
  /* `source` is where records have it: absolute, without a trailing slash (except "/" itself).
   * `view` looks at it. */
  Applier(std::string source, std::unique_ptr<Source> view, Replica &replica, RuleLists rules = {},
          std::chrono::microseconds horizon = PendingPaths::kHorizon)
      : source_(std::move(source)),
        view_(std::move(view)),
        replica_(replica),
        scopes_(std::move(rules)),
        reconciler_(*view_, replica, horizon) {}
  /* A source of this host. */
  Applier(const std::string &source, Replica &replica, RuleLists rules = {},
          std::chrono::microseconds horizon = PendingPaths::kHorizon)
      : Applier(source, std::make_unique<LocalSource>(source), replica, std::move(rules), horizon) {
  }

  Source &source() { return *view_; }

  enum class Outcome {
    kApplied,
    kAlready,  /* the replica had the change before */
    kOutside,  /* nothing of it is in the replica's scope */
    kNameless, /* the file has no name any more and cannot be opened again */
  };

  /* After an error, the same record may be applied again. -EXDEV: it names no path that an object
   * can have; nothing was done. `logged`: when the record was logged, by
   * the clock that is set with set_log_clock(); by default when it was captured. */
  Result<Outcome> apply(const Record &record, std::optional<std::uint64_t> logged = {});
  /* Before the first record. The clock is never set; microseconds. */
  void set_log_clock(PendingPaths::Now now) { reconciler_.set_log_clock(std::move(now)); }

  /* Records until a while from now may have been applied already, or the replica may have left
   * their state behind: the paths that they change are copied from the source instead. */
  void distrust_records() { distrusted_until_ = reconciler_.horizon(); }

  /* For copies from the source: the limit of their rate, and what interrupts them (fetcher.h). */
  Fetcher &fetcher() { return reconciler_.fetcher(); }

  /* The rule's lists hold for what is copied without a record too, from now on. */
  void know_rule(const Uuid &rule) { scopes_.includes(Scopes::Instance(rule, 0), source_); }

  /* Compares one directory of the replica with the source: its names, and what has changed there
   * since `since` (microseconds since the epoch; nothing: compares everything). Files of equal size
   * and time are taken for equal, but those that changed since `read_since`. Directories in it are
   * made, but not filled. */
  Result<void> look(const std::string &directory, std::optional<std::int64_t> since,
                    std::optional<std::int64_t> read_since) {
    use_all_rules();
    return reconciler_.look(directory, since, read_since);
  }
  /* The paths in the replica whose object, name or data the record changes, as far as it names
   * them and no rule excludes them; not the replica itself. */
  std::vector<std::string> changed_by(const Record &record) const;
  /* Call it before the record is applied: the path that it gives to an object, if the replica may
   * have another state of that than the records tell. It has the path already, or the object had
   * another one. */
  std::optional<std::string> may_be_stale(const Record &record) const;
  /* Copies the path, which no rule excludes, from the source again. */
  Result<void> look_at(const std::string &path) {
    use_all_rules();
    const auto reconciled = reconciler_.reconcile(path);
    return reconciled ? Result<void>() : Result<void>(reconciled.error());
  }

  /* Call it when all records of changes before `until` (microseconds since the epoch) have been
   * applied. Compares the replica with the source where records cannot tell the difference. */
  Result<void> caught_up(std::int64_t until);
  /* What a later Applier of the same replica has to watch: changes by names outside the rule are
   * not recorded. */
  std::vector<std::string> with_names_outside() { return reconciler_.with_names_outside(); }
  bool more_names_outside() const { return reconciler_.more_names_outside(); }
  void named_outside(const std::vector<std::string> &paths) {
    use_all_rules();
    for (const std::string &path : paths) reconciler_.named_outside(path);
  }
  const ChangedPaths &changed_paths() const { return reconciler_.changed_paths(); }
  /* Call restore_looked() before doubts(), which returns what a later Applier of the same replica
   * has to take() when it goes on with the next record. Nothing: not at this record. */
  Result<void> restore_looked() {
    use_all_rules();
    return reconciler_.restore_looked();
  }
  std::optional<Doubts> doubts() {
    return pages_.unfinished() == 0 ? reconciler_.doubts() : std::nullopt;
  }
  void take(const Doubts &doubts) { reconciler_.take(doubts); }

  /* Records whose object was missing and that no later record explained in time. */
  std::vector<Unexplained> take_unexplained() { return std::exchange(unexplained_, {}); }

 private:
  struct Visitor;

  /* As the record has them; one without a path is "". */
  std::array<std::string_view, 2> named_paths(const Record &record) const;
  /* Relative to the source, of an object that is to be in the replica. Nothing if it is outside,
   * the source itself, excluded or impossible. */
  std::optional<std::string> object_path(std::string_view path) const;
  void use_all_rules();
  /* The changed file is of the rule, but its name is unknown: the caller has it looked for. */
  Error unplaced(const Record &record);
  void note_changed_paths(const Record &record);
  Result<void> follow_page(const Record &record);

  std::string absolute(std::string_view path) const {
    return (source_ == "/" ? "" : source_) + "/" + std::string(path);
  }

  std::string source_;
  std::unique_ptr<Source> view_;
  Replica &replica_;
  Scopes scopes_;
  Reconciler reconciler_;
  PageFollower pages_;
  std::string page_path_; /* of the last write page; only page 0 names it in its record */
  /* The last page that was followed: a record that failed may be applied again. */
  struct Page {
    Uuid rule;
    std::uint32_t wseq, page;
    bool operator==(const Page &) const = default;
  };
  std::optional<Page> followed_;
  std::vector<Unexplained> unexplained_;
  std::optional<PendingPaths::Time> distrusted_until_;
};

}  // namespace tarn

#endif
