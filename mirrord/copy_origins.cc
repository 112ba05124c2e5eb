// SPDX-License-Identifier: GPL-2.0
#include "mirrord/copy_origins.h"

#include "mirrord/file_status.h"
#include "mirrord/path_map.h"

namespace tarn {
namespace {

/* For fewer all paths are not gone through. */
constexpr std::size_t kWorthForgetting = CopyOrigins::kMost / 16;

}  // namespace

CopyOrigins::Object object_of(Replica &replica, const std::string &path) {
  const auto mine = replica.find(path);
  if (!mine || !*mine) return {};
  return {(*mine)->st_dev, (*mine)->st_ino};
}

void CopyOrigins::erase_path(Index &index, const Object &object, const std::string &path) {
  const auto found = index.find(object);
  if (found == index.end()) return;
  found->second.erase(path);
  if (found->second.empty()) index.erase(found);
}

void CopyOrigins::unindex(const std::string &path, const Copy &copy) {
  erase_path(paths_by_origin_, {copy.device, copy.inode}, path);
  erase_path(paths_by_copy_, copy.copy, path);
  with_many_links_ -= copy.many_links ? 1 : 0;
}

void CopyOrigins::set_many_links(Copy &copy) {
  if (!std::exchange(copy.many_links, true)) ++with_many_links_;
}

/* A copy with one name only saves work. One of several would become a file of its own, and changes
 * by names that no record tells of would not be found. */
void CopyOrigins::make_room() {
  const bool single = origins_.size() - with_many_links_ >= kWorthForgetting;
  auto at = origins_.begin();
  forgotten_ = forgotten_ || (!single && at->second.many_links);
  do {
    const bool forget = !single || !at->second.many_links;
    if (forget) unindex(at->first, at->second);
    at = forget ? origins_.erase(at) : std::next(at);
  } while (single && at != origins_.end());
}

void CopyOrigins::insert(const std::string &path, const Copy &copy) {
  if (const auto old = origins_.find(path); old != origins_.end()) {
    unindex(path, old->second);
  } else if (origins_.size() >= kMost) {
    make_room();
  }
  origins_[path] = copy;
  with_many_links_ += copy.many_links ? 1 : 0;
  paths_by_origin_[{copy.device, copy.inode}].insert(path);
  if (copy.copy != Object{}) paths_by_copy_[copy.copy].insert(path);
}

void CopyOrigins::put(const std::string &path, const Object &copy, const struct stat &status,
                      bool whole, std::int64_t now) {
  // A change within the granularity of change times would leave the same one.
  const bool ctime_past = microseconds(status.st_ctim) + kTimestampSlackUs < now;
  const auto old = origins_.find(path);
  const bool outside = old != origins_.end() && old->second.outside &&
                       (old->second.inode == 0 || same(path, status));
  insert(path, {status.st_dev, status.st_ino, status.st_ctim, ctime_past, whole && ctime_past,
                !S_ISDIR(status.st_mode) && (status.st_nlink > 1 || outside), outside, copy});
}

void CopyOrigins::named_outside(const std::string &path) {
  if (!origins_.contains(path)) watch(path);
  Copy &copy = origins_[path];
  set_many_links(copy);
  copy.outside = true;
}

void CopyOrigins::records_changed(const Object &copy) {
  const auto found = paths_by_copy_.find(copy);
  if (found == paths_by_copy_.end()) return;
  for (const std::string &path : found->second)
    origins_[path].whole = origins_[path].ctime_past = false;
}

void CopyOrigins::watch(const std::string &path, const Object &copy, const struct stat &status,
                        std::uint64_t ts, std::int64_t now) {
  if (same(path, status)) {
    set_many_links(origins_[path]);
    return;
  }
  if (microseconds(status.st_ctim) <= static_cast<std::int64_t>(ts)) {
    put(path, copy, status, false, now);
    set_many_links(origins_[path]);
  } else {
    watch(path);  // of an unknown object
  }
}

bool CopyOrigins::same(const std::string &path, const struct stat &status) const {
  const auto found = origins_.find(path);
  return found != origins_.end() && found->second.device == status.st_dev &&
         found->second.inode == status.st_ino;
}

bool CopyOrigins::unchanged(const std::string &path, const struct stat &status) const {
  if (!same(path, status)) return false;
  const Copy &copy = origins_.at(path);
  return copy.whole && same_time(copy.changed, status.st_ctim);
}

bool CopyOrigins::current(const std::string &path, const struct stat &status) const {
  return same(path, status) && same_time(origins_.at(path).changed, status.st_ctim) &&
         origins_.at(path).ctime_past;
}

std::vector<std::string> CopyOrigins::with_many_links() const {
  std::vector<std::string> paths;
  for (const auto &[path, copy] : origins_) {
    if (copy.many_links) paths.push_back(path);
  }
  return paths;
}

std::set<std::string> CopyOrigins::paths_of(const struct stat &status) const {
  const auto found = paths_by_origin_.find({status.st_dev, status.st_ino});
  return found == paths_by_origin_.end() ? std::set<std::string>() : found->second;
}

void CopyOrigins::linked(const std::string &existing, const std::string &path) {
  removed(path);
  const auto found = origins_.find(existing);
  if (found == origins_.end()) return;
  set_many_links(found->second);
  const Copy copy = found->second;
  insert(path, copy);
}

void CopyOrigins::moved(const std::string &from, const std::string &to) {
  if (origins_.empty()) return;
  removed(to);
  for (const auto &[path, copy] : take_tree(origins_, from)) {
    unindex(path, copy);
    insert(to + path.substr(from.size()), copy);
  }
}

void CopyOrigins::removed(const std::string &path) {
  if (origins_.empty()) return;
  for (const auto &[gone, copy] : take_tree(origins_, path)) unindex(gone, copy);
}

void CopyOrigins::follow_records_again(const std::string &path) {
  if (origins_.empty()) return;
  for (auto &[known, copy] : take_tree(origins_, path)) {
    unindex(known, copy);
    copy.whole = false;  // later recorded changes are not noted here
    if (copy.many_links) insert(known, copy);
  }
}

}  // namespace tarn
