// SPDX-License-Identifier: GPL-2.0
// Comparing one directory with the source, for walks over the whole tree.
#include <limits>
#include <map>

#include "client/paths.h"
#include "mirrord/failures.h"
#include "mirrord/file_status.h"
#include "mirrord/path_map.h"
#include "mirrord/reconciler.h"

namespace tarn {

/* Has the directory, or one above it, been changed since? Then another one may have taken its name
 * by a rename, which changes no time below it. */
Result<bool> Reconciler::may_be_another(const std::string &directory, std::int64_t since) {
  for (std::string path = directory; !path.empty(); path = parent_of(path)) {
    const auto theirs = source_.find(path);
    if (!theirs) return theirs.error();
    if (!*theirs || microseconds((*theirs)->status.st_ctim) >= since - kTimestampSlackUs)
      return true;
  }
  return false;
}

Result<void> Reconciler::look(const std::string &directory, std::optional<std::int64_t> since,
                              std::optional<std::int64_t> read_since) {
  const auto theirs = source_.find(directory);
  if (!theirs) return theirs.error();
  // Removed or renamed since the walk came by: a record says so.
  if (!*theirs || !S_ISDIR((*theirs)->status.st_mode)) return {};
  const auto another = since ? may_be_another(directory, *since) : Result<bool>(true);
  if (!another) return another.error();
  const auto mine = replica_.find(directory);
  if (!mine) return mine.error();
  if (!*mine || !S_ISDIR((*mine)->st_mode)) {
    const auto above = replica_.find(parent_of(directory));
    if (!above) return above.error();
    if (directory.empty() || !*above) return {};
    follow_source(directory);
    if (const auto made = fetcher_.make_directory(directory, **theirs); !made) return made;
    looked_.insert(parent_of(directory));
  }
  const auto entries = source_.entries(**theirs);
  if (!entries && entries.error().code == -ENOENT) return {};  // removed or renamed, too
  if (!entries) return entries.error();
  const auto names = replica_.names(directory);
  if (!names) return names.error();
  const std::string below = directory.empty() ? "" : directory + "/";
  std::map<std::string, Sides> both;
  for (const std::string &name : *names) both[below + name].mine = true;
  for (const DirectoryEntry &entry : *entries) both[below + entry.name].theirs = &entry;
  std::erase_if(both, [this](const auto &path) { return !included_(path.first); });
  std::vector<std::string> extra;
  for (const auto &[path, sides] : both) {
    if (!sides.theirs) extra.push_back(path);
  }
  source_.expect(extra);
  const Look look{**theirs, since, read_since, *another};
  Result<void> worst;
  for (const auto &[path, sides] : both) keep_worst(worst, look_at(look, path, sides));
  source_.expect({});
  fetcher_.set_trust(Fetcher::Trust::kNone);
  if (since) {  // no walk comes by all directories
    keep_worst(worst, reconcile_other_names());
  }
  // Other names of a file are looked at in their own directories.
  fetcher_.take_multiply_linked();
  looked_.insert(directory);
  keep_worst(worst, fetcher_.make_directory(directory, **theirs));
  return worst;
}

Result<void> Reconciler::restore_looked() {
  while (!looked_.empty()) {
    const auto restored = copy_mtime(*looked_.begin(), std::numeric_limits<std::int64_t>::max());
    if (!restored) return restored.error();
    looked_.erase(looked_.begin());
  }
  return {};
}

std::optional<Doubts> Reconciler::doubts() {
  const Replica::Objects &unlinked = replica_.partly_unlinked();
  if (changed_paths_.size() + failed_.size() + unlinked.size() > Doubts::kMost) return std::nullopt;
  Doubts doubts{.changed = changed_paths_.all(), .failed = {failed_.begin(), failed_.end()}};
  const auto root = replica_.find("");
  for (const auto &[device, inode] : unlinked) {
    if (!root || !*root || device != (*root)->st_dev) return std::nullopt;
    doubts.partly_unlinked.push_back(inode);
  }
  return doubts;
}

/* An object that has the number of another one by now is compared in vain. */
void Reconciler::take(const Doubts &doubts) {
  for (const std::string &path : doubts.changed) changed_paths_.written(path);
  failed_.insert(doubts.failed.begin(), doubts.failed.end());
  const auto root = replica_.find("");
  if (!root || !*root) return;
  Replica::Objects unlinked;
  for (const std::uint64_t inode : doubts.partly_unlinked)
    unlinked.insert({(*root)->st_dev, inode});
  replica_.note_partly_unlinked(unlinked);
}

/* A file that the replica has is perhaps not read at all, and not opened for that. */
Result<std::optional<Source::Object>> Reconciler::find_entry(const Look &look,
                                                             const std::string &path,
                                                             const Sides &sides) {
  if (!sides.theirs) return source_.find(path);
  if (!sides.mine) return source_.child(look.directory, *sides.theirs);
  DirectoryEntry entry = *sides.theirs;
  entry.regular_file = false;
  return source_.child(look.directory, entry);
}

Result<void> Reconciler::look_at(const Look &look, const std::string &path, const Sides &sides) {
  const auto theirs = find_entry(look, path, sides);
  if (!theirs) return theirs.error();
  const auto mine = sides.mine ? replica_.find(path) : std::optional<struct stat>();
  if (!mine) return mine.error();
  if (!*theirs) {
    if (!*mine) return {};
    follow_source(path);
    fetcher_.origins().removed(path);
    const auto gone = replica_.remove_tree(path);
    return gone ? Result<void>() : Result<void>(gone.error());
  }
  const struct stat &status = (*theirs)->status;
  if (S_ISDIR(status.st_mode)) {
    if (*mine && S_ISDIR((*mine)->st_mode)) return {};  // its own look compares it
    follow_source(path);
    return fetcher_.make_directory(path, **theirs);
  }
  const auto changed_since = [&status](std::int64_t time) {
    return microseconds(status.st_ctim) >= time - kTimestampSlackUs;
  };
  const bool old = look.since && !changed_since(*look.since);
  if (old && !look.another && *mine && same_type(**mine, status)) return {};
  // A file that was changed may have the size and the time of before.
  const bool changed = look.read_since && changed_since(*look.read_since);
  fetcher_.set_trust(changed ? Fetcher::Trust::kNone : Fetcher::Trust::kSizeAndTime);
  follow_source(path);
  // The fetch may link its other names anew, in directories that were looked at before.
  if (status.st_nlink > 1) {
    for (const std::string &other : fetcher_.origins().paths_of(status))
      looked_.insert(parent_of(other));
  }
  return fetcher_.fetch(path, **theirs, included_,
                        *mine ? Fetcher::Mine::kUnknown : Fetcher::Mine::kAbsent);
}

}  // namespace tarn
