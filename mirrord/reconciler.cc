// SPDX-License-Identifier: GPL-2.0
#include "mirrord/reconciler.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>

#include "client/paths.h"
#include "mirrord/failures.h"
#include "mirrord/file_status.h"
#include "mirrord/path_map.h"

namespace tarn {

using Done = Replica::Done;

namespace {

/* Are the two equal in type, mode, owner and size? */
bool same_but_times(const struct stat &mine, const struct stat &other) {
  if (!same_type(mine, other)) return false;
  if (!S_ISLNK(other.st_mode) && ((mine.st_mode ^ other.st_mode) & kModeBits) != 0) return false;
  // Only root can give files away.
  if (geteuid() == 0 && (mine.st_uid != other.st_uid || mine.st_gid != other.st_gid)) return false;
  const bool sized = S_ISREG(other.st_mode) || S_ISLNK(other.st_mode);
  return !sized || mine.st_size == other.st_size;
}

/* Has it changed since, so that records are still to come? A change time in the future is of before
 * the clock was set back. */
bool changed_since(const struct stat &status, std::int64_t until, Source &source) {
  const std::int64_t changed = microseconds(status.st_ctim);
  if (changed < until) return false;
  const auto now = source.now();
  return !now || changed <= *now;
}

}  // namespace

/* What failed may look finished: a file of the right size without all of its data. */
Result<Done> Reconciler::reconcile(const std::string &path) {
  auto done = try_to_reconcile(path);
  if (done)
    failed_.erase(path);
  else
    failed_.insert(path);
  return done;
}

Result<Done> Reconciler::try_to_reconcile(const std::string &path) {
  if (path.empty()) return Error{-EINVAL, "the source directory itself cannot be fetched"};
  const auto found = source_.find(path);
  if (!found) return found.error();
  const std::string parent = parent_of(path);
  const auto above = replica_.find(parent);
  if (!above) return above.error();
  if (!*above || !S_ISDIR((*above)->st_mode)) {
    if (!follows_source(parent)) return Error{-ENOENT, "No such file or directory"};
    follow_source(path);
    return *found ? reconcile(parent) : Done::kAlready;
  }
  auto done = take_from_source(path, *found);
  // A fetch is not a recorded change of the directory: restore its times.
  if (const auto times = restore_times(parent, **above); done.ok() && !times) return times.error();
  return done;
}

Result<void> Reconciler::restore_times(const std::string &directory, const struct stat &before) {
  const auto now = replica_.find(directory);
  if (!now) return now.error();
  if (!*now || same_time((*now)->st_mtim, before.st_mtim)) return {};
  const auto set =
      replica_.set_attributes(directory, {.atime = before.st_atim, .mtime = before.st_mtim});
  if (!set) return set.error();
  return {};
}

Result<Done> Reconciler::take_from_source(const std::string &path,
                                          const std::optional<Source::Object> &found) {
  follow_source(path);
  changed_paths_.add(path);  // the copy changed the times of the path and its parent
  changed_paths_.add(parent_of(path));
  if (!found) {
    fetcher_.origins().removed(path);
    const auto gone = replica_.remove_tree(path);
    return gone ? Result<Done>(Done::kAlready) : gone;
  }
  if (PendingPaths::Mark *mark = pending_.find(path)) mark->missing = {};
  if (const auto fetched = fetcher_.fetch(path, *found, included_); !fetched)
    return fetched.error();
  if (const auto names = reconcile_other_names(); !names) return names.error();
  return Done::kChanged;
}

/* How many names of a source's object are known here. */
Result<nlink_t> Reconciler::known_names(const struct stat &status) {
  nlink_t known = 0;
  for (const std::string &path : fetcher_.origins().paths_of(status)) {
    const auto there = source_.find(path);
    if (!there && is_away(there.error())) return there.error();
    known += there && *there && same_object((*there)->status, status);
  }
  return known + (!other_name_.empty() && source_.has_name(status, other_name_) ? 1 : 0);
}

/* A fetched file may be a link to a file that the replica already has under another name. If links
 * of a file are unknown, the whole source is searched for them: directories are read, but no inodes
 * except of matches. Names outside the source are never found; a name that comes changes the
 * object's change time. */
Result<void> Reconciler::reconcile_other_names() {
  if (reconciling_names_) return {};
  Fetcher::Objects wanted;
  for (const auto &[object, status] : fetcher_.take_multiply_linked()) {
    const auto known = known_names(status);
    if (!known) return known.error();
    const auto searched = searched_.find(object);
    const bool in_vain = searched != searched_.end() && *known >= searched->second.known &&
                         same_time(searched->second.changed, status.st_ctim);
    if (*known < status.st_nlink && !in_vain) wanted[object] = status;
  }
  if (wanted.empty()) return {};
  std::vector<std::string> found;
  const auto root = source_.find("");
  if (!root && is_away(root.error())) return root.error();
  if (root && *root) {
    if (const auto searched = find_names(**root, "", wanted, found); !searched) return searched;
  }
  reconciling_names_ = true;
  Result<void> worst;
  bool all = true;
  for (const std::string &path : found) {
    const auto above = replica_.find(parent_of(path));
    // The record that creates its directory has not arrived yet.
    if (above && (!*above || !S_ISDIR((*above)->st_mode))) {
      all = false;
      continue;
    }
    keep_worst(worst, reconcile(path));
  }
  reconciling_names_ = false;
  fetcher_.take_multiply_linked();
  if (searched_.size() + wanted.size() > CopyOrigins::kMost) searched_.clear();
  for (const auto &[object, status] : wanted) {
    if (const auto known = known_names(status); all && worst && known)
      searched_[object] = {status.st_ctim, *known};
  }
  return worst;
}

/* What cannot be read is not in the replica either. */
Result<void> Reconciler::find_names(const Source::Object &directory, const std::string &path,
                                    const Fetcher::Objects &wanted,
                                    std::vector<std::string> &found) {
  const auto passed_over = [](const auto &result) {
    return is_away(result.error()) ? Result<void>(result.error()) : Result<void>();
  };
  const auto entries = source_.entries(directory);
  if (!entries) return passed_over(entries);
  for (const DirectoryEntry &entry : *entries) {
    const std::string name = path.empty() ? entry.name : path + "/" + entry.name;
    const bool may_be_wanted =
        wanted.contains({directory.status.st_dev, entry.inode}) && included_(name);
    if (!entry.may_be_directory && !may_be_wanted) continue;
    const auto there = source_.child(directory, entry);
    if (!there && is_away(there.error())) return there.error();
    if (!there || !*there) continue;
    const struct stat &status = (*there)->status;
    if (S_ISDIR(status.st_mode)) {
      const auto below = find_names(**there, name, wanted, found);
      if (!below) return below;
    } else if (may_be_wanted && !fetcher_.origins().same(name, status) &&
               wanted.contains({status.st_dev, status.st_ino})) {
      found.push_back(name);
    }
  }
  return {};
}

void Reconciler::records_change(const std::string &path) {
  CopyOrigins &origins = fetcher_.origins();
  if (!origins.empty()) origins.records_changed(object_of(replica_, path));
}

void Reconciler::doubt(const std::string &path, std::uint64_t data_from) {
  PendingPaths::Mark &mark = pending_.mark(path);
  mark.data_from = std::min(mark.data_from, data_from);
}

void Reconciler::expect_explanation(const std::string &path, const Unexplained &missing) {
  PendingPaths::Mark &mark = pending_.mark(path);
  if (mark.missing.wseq == 0) mark.missing = missing;
}

void Reconciler::removed(const std::string &path) {
  pending_.removed(path);
  fetcher_.origins().removed(path);
}

void Reconciler::linked(const std::string &existing, const std::string &path) {
  fetcher_.origins().linked(existing, path);
  if (const PendingPaths::Mark *mark = pending_.find(existing)) doubt(path, mark->data_from);
}

Result<void> Reconciler::moved(const std::string &from, const std::string &to) {
  fetcher_.origins().moved(from, to);
  Result<void> worst;
  for (const std::string &path : pending_.moved(from, to)) {
    keep_worst(worst, recheck(path));
  }
  return worst;
}

/* Call it after a marked path, or a directory above it, was renamed. */
Result<void> Reconciler::recheck(const std::string &path) {
  const PendingPaths::Mark *mark = pending_.find(path);
  if (!mark) return {};
  if (mark->names) {
    const auto reconciled = reconcile(path);
    return reconciled ? Result<void>() : Result<void>(reconciled.error());
  }
  const auto found = source_.find(path);
  if (!found) return found.error();
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  PendingPaths::Mark &fresh = pending_.mark(path);
  // It was renamed or removed in the source: that record will cause a recheck.
  if (!*found || !*mine || !same_type((*found)->status, **mine)) return {};
  fresh.missing = {};
  if (fresh.data_from != PendingPaths::kNoData && S_ISREG((*mine)->st_mode)) {
    const auto fetched = fetcher_.fetch_data(path, **found, fresh.data_from, PendingPaths::kNoData);
    if (!fetched) return fetched;
  }
  return fetcher_.fetch_attributes(path, **found);
}

/* Spares the search for a file that was written, linked and unlinked, as programs do that put it in
 * its place whole. */
bool Reconciler::has_other_name_to_compare(const std::string &path, const struct stat &mine) {
  const std::string other = changed_paths_.other_name(path);
  if (other.empty() || mine.st_nlink != 2) return false;
  const auto there = replica_.find(other);
  return there && *there && same_object(**there, mine);
}

Result<void> Reconciler::before_removal(const std::string &path) {
  const PendingPaths::Mark *mark = pending_.find(path);
  const bool doubted = mark && !mark->names, watched = fetcher_.origins().watched(path);
  // The comparison at the next mark is to come by another name then.
  const bool written = changed_paths_.is_written(path) || failed_.contains(path);
  if (!doubted && !watched && !written) return {};
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine || S_ISDIR((*mine)->st_mode) || (*mine)->st_nlink < 2) return {};
  if (watched || (written && !has_other_name_to_compare(path, **mine)))
    replica_.note_partly_unlinked(**mine);
  if (!doubted) return {};
  std::vector<std::string> names;
  const auto searched = replica_.names_of({{(*mine)->st_dev, (*mine)->st_ino}}, names);
  const std::uint64_t data_from = mark->data_from;
  for (const std::string &other : names) {
    if (other == path) continue;
    doubt(other, data_from);
    return recheck(other);
  }
  return searched;
}

void Reconciler::watch(const std::string &path, std::uint64_t ts) {
  if (!included_(path)) return;  // the replica has it from rules of before
  const auto found = source_.find(path);
  if (!found || !*found) return fetcher_.origins().watch(path);
  if (!S_ISDIR((*found)->status.st_mode))
    fetcher_.origins().watch(path, object_of(replica_, path), (*found)->status, ts,
                             source_.now_or_zero());
}

/* The paths with several names that the source has, with its objects. A path of which it has none
 * waits for the record of that, unless the replica has none either. */
Result<void> Reconciler::find_with_many_links(Watched &watched) {
  Result<void> worst;
  const auto linked = fetcher_.origins().with_many_links();
  source_.expect(linked);
  for (const std::string &path : linked) {
    const auto theirs = source_.find(path);
    keep_worst(worst, theirs);
    if (theirs && *theirs) {
      const struct stat &status = (*theirs)->status;
      watched.found.emplace_back(path, status);
      ++watched.names[{status.st_dev, status.st_ino}];
      continue;
    }
    const auto mine = replica_.find(path);
    if (theirs && mine && !*mine && !follows_source(path))
      fetcher_.origins().removed(path);
    else
      watched.waiting.push_back(path);
  }
  source_.expect({});
  return worst;
}

/* A path that was copied from an object which is gone does not count: another one may have its
 * number. */
bool Reconciler::knows_all_names(const struct stat &status, const Watched &watched) {
  const auto names = watched.names.find({status.st_dev, status.st_ino});
  if (names != watched.names.end() && names->second >= status.st_nlink) return true;
  const auto known = known_names(status);
  return known && *known >= status.st_nlink;
}

std::vector<std::string> Reconciler::with_names_outside() {
  Watched watched;
  (void)find_with_many_links(watched);  // what could not be asked for is waiting
  std::vector<std::string> paths = std::move(watched.waiting);
  for (const auto &[path, status] : watched.found) {
    if (fetcher_.origins().is_named_outside(path) || !knows_all_names(status, watched))
      paths.push_back(path);
  }
  return paths;
}

Result<void> Reconciler::check_links() {
  Result<void> worst;
  if (const auto objects = replica_.take_partly_unlinked(); !objects.empty()) {
    std::vector<std::string> names;
    worst = replica_.names_of(objects, names);
    if (!worst) replica_.note_partly_unlinked(objects);
    for (const std::string &path : names) watch(path, 0);
  }
  Watched watched;
  keep_worst(worst, find_with_many_links(watched));
  for (const auto &[path, status] : watched.found) {
    if (!fetcher_.origins().current(path, status))
      keep_worst(worst, reconcile(path));
    else if (!knows_all_names(status, watched))
      fetcher_.origins().named_outside(path);
  }
  return worst;
}

/* False: the path has changed since `until`; those records are still to come. */
Result<bool> Reconciler::compare(const std::string &path, std::int64_t until) {
  if (path.empty() || !included_(path)) return true;
  const auto theirs = source_.find(path);
  if (!theirs) return theirs.error();
  if (*theirs && changed_since((*theirs)->status, until, source_)) return false;
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine && !*theirs) return true;
  if (*mine && *theirs && !failed_.contains(path) && same_but_times(**mine, (*theirs)->status)) {
    const auto xattrs = fetcher_.fetch_xattrs(path, **theirs);
    return xattrs ? Result<bool>(true) : Result<bool>(xattrs.error());
  }
  // A missing parent is copied with its contents.
  std::string missing = path;
  for (std::string above = parent_of(path); !above.empty(); above = parent_of(above)) {
    const auto there = replica_.find(above);
    if (!there) return there.error();
    if (*there && S_ISDIR((*there)->st_mode)) break;
    missing = above;
  }
  const auto reconciled = reconcile(missing);
  if (!reconciled) return reconciled.error();
  return true;
}

/* False: as in compare(). */
Result<bool> Reconciler::copy_mtime(const std::string &path, std::int64_t until) {
  if (!path.empty() && !included_(path)) return true;
  const auto theirs = source_.find(path);
  if (!theirs) return theirs.error();
  if (!*theirs) return true;
  if (changed_since((*theirs)->status, until, source_)) return false;
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  const struct stat &wanted = (*theirs)->status;
  if (!*mine || !same_type(**mine, wanted) || same_time((*mine)->st_mtim, wanted.st_mtim))
    return true;
  const auto set = replica_.set_attributes(path, {.mtime = wanted.st_mtim});
  return set ? Result<bool>(true) : Result<bool>(set.error());
}

Result<void> Reconciler::compare_changed(std::int64_t until) {
  if (!source_.available()) return {};
  for (const std::string &directory : std::exchange(looked_, {})) changed_paths_.add(directory);
  auto paths = changed_paths_.take();
  Result<void> worst;
  std::vector<std::string> changing;
  source_.expect(paths);
  for (const std::string &path : paths) {
    const auto compared = compare(path, until);
    if (!compared) {
      keep_worst(worst, compared.error());
      failed_.insert(path);
    } else if (!*compared) {
      changing.push_back(path);
    } else {
      failed_.erase(path);
    }
  }
  // Copies change the times of their parents, so times are set last, children first.
  for (std::string &path : changed_paths_.take()) paths.push_back(std::move(path));
  std::sort(paths.begin(), paths.end(), std::greater());
  source_.expect(paths);
  for (const std::string &path : paths) {
    const auto copied = copy_mtime(path, until);
    if (!copied) failed_.insert(path);
    // What the change does is in no record if it came by a name outside the rule.
    if (copied && !*copied) changing.push_back(path);
    keep_worst(worst, copied);
  }
  source_.expect({});
  for (const std::string &path : changing) changed_paths_.written(path);
  return worst;
}

void Reconciler::retry_failed() {
  for (const std::string &path : failed_) changed_paths_.add(path);
}

void Reconciler::assume_linked(const std::string &existing, const std::string &path) {
  const auto first = source_.find(existing), second = source_.find(path);
  if (!first || !*first || !second || !*second) return;
  if (S_ISDIR((*first)->status.st_mode) || !same_object((*first)->status, (*second)->status))
    return;
  for (const std::string &name : {existing, path})
    fetcher_.origins().watch(name, object_of(replica_, name), (*first)->status,
                             std::numeric_limits<std::int64_t>::max(), source_.now_or_zero());
}

void Reconciler::watch_if_apart(const std::string &existing, const std::string &path) {
  const auto first = replica_.find(existing), second = replica_.find(path);
  if (!first || !*first || S_ISDIR((*first)->st_mode)) return;
  if (second && *second && same_object(**first, **second)) return;
  watch(existing, 0);
}

std::vector<Unexplained> Reconciler::expire(const PendingPaths::Time &record) {
  std::vector<Unexplained> missing;
  for (auto &[path, mark] : pending_.expire(record)) {
    if (mark.missing.wseq != 0) missing.push_back(std::move(mark.missing));
    if (mark.names && !pending_.covers(path)) fetcher_.origins().follow_records_again(path);
  }
  return missing;
}

}  // namespace tarn
