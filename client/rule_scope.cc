// SPDX-License-Identifier: GPL-2.0
#include "client/rule_scope.h"

#include "client/paths.h"

namespace tarn {
namespace {

constexpr char kEnd = '\0';

std::string_view without_end_slash(std::string_view directory) {
  while (directory.size() > 1 && directory.ends_with('/')) directory.remove_suffix(1);
  return directory;
}

}  // namespace

RuleScope::RuleScope(const RuleDirectories &directories) {
  for (const std::string &directory : directories.include) enter(directory, true);
  for (const std::string &directory : directories.exclude) enter(directory, false);
}

RuleScope::RuleScope(std::string_view workdir) {
  for (const bool included : {true, false}) {
    for (const WorkdirEntry &entry : workdir_entries(workdir)) {
      if (entry.included == included) enter(entry.directory.value_or("/"), included);
    }
  }
}

void RuleScope::enter(std::string directory, bool included) {
  entries_.push_back({directory, included});
  const bool slash_given = directory.ends_with('/');
  if (slash_given) directory.pop_back();
  // The name that is not the listed text itself goes first.
  enter_name(directory + (slash_given ? kEnd : '/'), entries_.size() - 1);
  enter_name(directory + (slash_given ? '/' : kEnd), entries_.size() - 1);
}

/* A name replaces those entered before below it. The module keeps the names as runs of letters: a
 * name that ends in the middle of a run, and not where names part, ends up as one with a NUL. */
void RuleScope::enter_name(const std::string &name, std::size_t entry) {
  const auto first = names_.upper_bound(name);
  auto last = first;
  while (last != names_.end() && last->first.starts_with(name)) ++last;
  const std::string_view whole = name, parent = whole.substr(0, whole.size() - 1);
  if (first != last && !names_.contains(name) && !part_at(name) && !part_at(parent)) {
    names_[name + kEnd] = entry;
    return;
  }
  names_.erase(first, last);
  names_[name] = entry;
}

/* Do names that begin with `place` go on with different letters? */
bool RuleScope::part_at(std::string_view place) const {
  std::optional<char> next;
  for (auto at = names_.upper_bound(place); at != names_.end() && at->first.starts_with(place);
       ++at) {
    const char letter = at->first[place.size()];
    if (next.value_or(letter) != letter) return true;
    next = letter;
  }
  return false;
}

const RuleScope::Entry *RuleScope::deciding(std::string_view path) const {
  const std::string whole = std::string(path) + kEnd;
  for (std::string_view name = whole; !name.empty(); name.remove_suffix(1)) {
    if (const auto found = names_.find(name); found != names_.end())
      return &entries_[found->second];
  }
  return nullptr;
}

bool RuleScope::includes(std::string_view path) const {
  const Entry *entry = deciding(path);
  return entry && entry->included;
}

const RuleScope::Entry *RuleScope::nearest(std::string_view path) const {
  const Entry *best = nullptr;
  std::size_t length = 0;
  for (const Entry &entry : entries_) {
    const std::string_view directory = without_end_slash(entry.directory);
    // Of two equal ones the later one replaces the other.
    if (directory.size() < length || !path_below(directory, path)) continue;
    best = &entry;
    length = directory.size();
  }
  return best;
}

}  // namespace tarn
