// SPDX-License-Identifier: GPL-2.0
#include "mirrord/pending_paths.h"

#include "mirrord/path_map.h"

namespace tarn {

PendingPaths::Time PendingPaths::horizon() const {
  const auto known = clock_();
  if (!known) return {kUnknown, kUnknown};
  const auto more = static_cast<std::uint64_t>(horizon_.count());
  const auto now = static_cast<std::uint64_t>(*known);
  return {now + more, (log_clock_ ? log_clock_() : now) + more};
}

bool PendingPaths::is_behind(const Time &record, const Time &until) {
  if (record.logged <= until.logged) return false;
  const auto longest = static_cast<std::uint64_t>(kLongest.count());
  return record.captured > until.captured || record.logged - until.logged > longest;
}

PendingPaths::Mark &PendingPaths::mark(const std::string &path) {
  Mark &mark = marks_[path];
  mark.until = horizon();
  ages_.push_back({mark.until, path});
  return mark;
}

PendingPaths::Mark *PendingPaths::find(const std::string &path) {
  const auto found = marks_.find(path);
  return found == marks_.end() ? nullptr : &found->second;
}

bool PendingPaths::covers(const std::string &path) const {
  if (marks_.empty()) return false;
  for (std::string at = path;; at = parent_of(at)) {
    const auto found = marks_.find(at);
    if (found != marks_.end() && found->second.names) return true;
    if (at.empty()) return false;
  }
}

bool PendingPaths::covers_below(const std::string &path) const {
  const std::string below = path + "/";
  for (auto at = marks_.lower_bound(below); at != marks_.end() && at->first.starts_with(below);
       ++at) {
    if (at->second.names) return true;
  }
  return false;
}

void PendingPaths::removed(const std::string &path) {
  if (marks_.empty()) return;
  for (const auto &[marked, mark] : take_tree(marks_, path)) {
    if (mark.names) marks_[marked] = {.names = true, .until = mark.until};
  }
}

void PendingPaths::explained(const std::string &path) {
  if (Mark *mark = find(path)) mark->missing = {};
  const std::string below = path + "/";
  for (auto at = marks_.lower_bound(below); at != marks_.end() && at->first.starts_with(below);
       ++at)
    at->second.missing = {};
}

std::vector<std::string> PendingPaths::moved(const std::string &from, const std::string &to) {
  std::vector<std::string> paths;
  if (marks_.empty()) return paths;
  removed(to);  // the replaced object
  for (auto &[path, mark] : take_tree(marks_, from)) {
    if (mark.names) marks_[path] = {.names = true, .until = mark.until};
    paths.push_back(to + path.substr(from.size()));
    ages_.push_back({mark.until, paths.back()});
    marks_[paths.back()] = std::move(mark);
  }
  return paths;
}

std::vector<PendingPaths::Expired> PendingPaths::expire(const Time &record) {
  std::vector<Expired> expired;
  for (; !ages_.empty() && is_behind(record, ages_.front().until); ages_.pop_front()) {
    const auto found = marks_.find(ages_.front().path);
    if (found == marks_.end() || !is_behind(record, found->second.until)) continue;
    expired.push_back({found->first, std::move(found->second)});
    marks_.erase(found);
  }
  return expired;
}

}  // namespace tarn
