// SPDX-License-Identifier: GPL-2.0
#include "mirrord/copies.h"

#include <ctime>

#include "mirrord/file_status.h"
#include "mirrord/path_map.h"

namespace tarn {
namespace {

/* Change times are as coarse as a second on some file systems: two changes may have one. Only when
 * the time had passed before the data were read does it tell a later change. */
constexpr time_t kCoarseSeconds = 2;

}  // namespace

Copies::Object object_of(Replica &replica, const std::string &path) {
  const auto mine = replica.find(path);
  if (!mine || !*mine) return {};
  return {(*mine)->st_dev, (*mine)->st_ino};
}

void Copies::take_out(Index &index, const Object &object, const std::string &path) {
  const auto found = index.find(object);
  if (found == index.end()) return;
  found->second.erase(path);
  if (found->second.empty()) index.erase(found);
}

void Copies::unindex(const std::string &path, const Copy &copy) {
  take_out(paths_, {copy.device, copy.inode}, path);
  take_out(copied_, copy.copy, path);
}

void Copies::insert(const std::string &path, const Copy &copy) {
  if (const auto old = copies_.find(path); old != copies_.end()) {
    unindex(path, old->second);
  } else if (copies_.size() >= kMost) {
    unindex(copies_.begin()->first, copies_.begin()->second);
    copies_.erase(copies_.begin());
  }
  copies_[path] = copy;
  paths_[{copy.device, copy.inode}].insert(path);
  if (copy.copy != Object{}) copied_[copy.copy].insert(path);
}

void Copies::put(const std::string &path, const Object &copy, const struct stat &status,
                 bool whole) {
  const bool past = status.st_ctim.tv_sec + kCoarseSeconds < time(nullptr);
  insert(path, {status.st_dev, status.st_ino, status.st_ctim, past, whole && past,
                !S_ISDIR(status.st_mode) && status.st_nlink > 1, copy});
}

void Copies::records_changed(const Object &copy) {
  const auto found = copied_.find(copy);
  if (found == copied_.end()) return;
  for (const std::string &path : found->second) copies_[path].whole = copies_[path].past = false;
}

void Copies::watch(const std::string &path, const Object &copy, const struct stat &status,
                   std::uint64_t ts) {
  if (same(path, status)) {
    copies_[path].links = true;
    return;
  }
  if (microseconds(status.st_ctim) <= static_cast<std::int64_t>(ts)) {
    put(path, copy, status, false);
    copies_[path].links = true;
  } else {
    watch(path);  // of which object it is a copy is not known
  }
}

bool Copies::same(const std::string &path, const struct stat &status) const {
  const auto found = copies_.find(path);
  return found != copies_.end() && found->second.device == status.st_dev &&
         found->second.inode == status.st_ino;
}

bool Copies::unchanged(const std::string &path, const struct stat &status) const {
  if (!same(path, status)) return false;
  const Copy &copy = copies_.at(path);
  return copy.whole && same_time(copy.changed, status.st_ctim);
}

bool Copies::current(const std::string &path, const struct stat &status) const {
  return same(path, status) && same_time(copies_.at(path).changed, status.st_ctim) &&
         copies_.at(path).past;
}

std::vector<std::string> Copies::with_links() const {
  std::vector<std::string> paths;
  for (const auto &[path, copy] : copies_) {
    if (copy.links) paths.push_back(path);
  }
  return paths;
}

std::set<std::string> Copies::paths_of(const struct stat &status) const {
  const auto found = paths_.find({status.st_dev, status.st_ino});
  return found == paths_.end() ? std::set<std::string>() : found->second;
}

void Copies::linked(const std::string &existing, const std::string &path) {
  removed(path);
  const auto found = copies_.find(existing);
  if (found == copies_.end()) return;
  found->second.links = true;
  Copy copy = found->second;
  insert(path, copy);
}

void Copies::moved(const std::string &from, const std::string &to) {
  if (copies_.empty()) return;
  removed(to);
  for (const auto &[path, copy] : take_tree(copies_, from)) {
    unindex(path, copy);
    insert(to + path.substr(from.size()), copy);
  }
}

void Copies::removed(const std::string &path) {
  if (copies_.empty()) return;
  for (const auto &[gone, copy] : take_tree(copies_, path)) unindex(gone, copy);
}

void Copies::settled(const std::string &path) {
  if (copies_.empty()) return;
  for (auto &[known, copy] : take_tree(copies_, path)) {
    unindex(known, copy);
    copy.whole = false;  // records change it without this knowing
    if (copy.links) insert(known, copy);
  }
}

}  // namespace tarn
