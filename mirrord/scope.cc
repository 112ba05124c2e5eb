// SPDX-License-Identifier: GPL-2.0
#include "mirrord/scope.h"

#include <algorithm>

#include "client/paths.h"

namespace tarn {
namespace {

/* The length plus one of the longest listed directory that is the path or above it; 0: none. */
std::size_t longest(const std::vector<std::string> &directories, std::string_view path) {
  std::size_t best = 0;
  for (std::string_view directory : directories) {
    while (directory.size() > 1 && directory.ends_with('/')) directory.remove_suffix(1);
    if (path_below(directory, path)) best = std::max(best, directory.size() + 1);
  }
  return best;
}

}  // namespace

bool rule_includes(const RuleDirectories &rule, std::string_view path) {
  return longest(rule.include, path) > longest(rule.exclude, path);
}

const std::optional<RuleDirectories> &Scopes::lists_of(const Instance &instance) {
  const auto [found, fresh] = known_.try_emplace(instance);
  if (fresh && lists_) found->second = lists_(instance.first);
  return found->second;
}

bool Scopes::includes(const Instance &instance, std::string_view path) {
  const auto &lists = lists_of(instance);
  return !lists || rule_includes(*lists, path);
}

std::vector<std::string> Scopes::listed_below(const Instance &instance,
                                              const std::string &directory) {
  std::vector<std::string> below;
  const auto &lists = lists_of(instance);
  if (!lists) return below;
  for (const auto *list : {&lists->include, &lists->exclude}) {
    for (const std::string &listed : *list) {
      auto rest = path_below(directory, listed);
      while (rest && rest->ends_with('/')) rest->pop_back();
      if (rest && !rest->empty()) below.push_back(std::move(*rest));
    }
  }
  std::sort(below.begin(), below.end());
  return below;
}

bool Scopes::any_includes(std::string_view path) const {
  if (!lists_) return true;
  for (const auto &[instance, lists] : known_) {
    if (!lists || rule_includes(*lists, path)) return true;
  }
  return false;
}

}  // namespace tarn
