// SPDX-License-Identifier: GPL-2.0
// Comparing one directory with the source, for walks over the whole tree.
#include <set>

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

Result<void> Reconciler::look(const std::string &directory, std::optional<std::int64_t> since) {
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
  }
  const auto entries = source_.entries(**theirs);
  if (!entries && entries.error().code == -ENOENT) return {};  // removed or renamed, too
  if (!entries) return entries.error();
  const auto names = replica_.names(directory);
  if (!names) return names.error();
  std::set<std::string> both(names->begin(), names->end());
  for (const DirectoryEntry &entry : *entries) both.insert(entry.name);
  std::vector<std::string> paths;
  for (const std::string &name : both) {
    std::string path = directory.empty() ? name : directory + "/" + name;
    if (included_(path)) paths.push_back(std::move(path));
  }
  source_.expect(paths);
  Result<void> first;
  for (const std::string &path : paths) {
    auto looked = look_at(path, since, *another);
    if (first.ok() && !looked) first = std::move(looked);
  }
  source_.expect({});
  fetcher_.set_trust(Fetcher::Trust::kNone);
  if (since) {  // no walk comes by all directories
    const auto names = reconcile_other_names();
    if (first.ok() && !names) first = names;
  }
  // Other names of a file are looked at in their own directories.
  fetcher_.take_multiply_linked();
  changed_paths_.add(directory);
  auto like = fetcher_.make_directory(directory, **theirs);
  return first ? like : first;
}

/* `another`: times do not tell that the path's object is the replica's. */
Result<void> Reconciler::look_at(const std::string &path, std::optional<std::int64_t> since,
                                 bool another) {
  const auto theirs = source_.find(path);
  if (!theirs) return theirs.error();
  const auto mine = replica_.find(path);
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
  const bool old = since && microseconds(status.st_ctim) < *since - kTimestampSlackUs;
  if (old && !another && *mine && same_type(**mine, status)) return {};
  // A file that was changed may have the size and the time of before.
  fetcher_.set_trust(since && !old ? Fetcher::Trust::kNone : Fetcher::Trust::kSizeAndTime);
  follow_source(path);
  return fetcher_.fetch(path, **theirs, included_);
}

}  // namespace tarn
