// SPDX-License-Identifier: GPL-2.0
#include "mirrord/scope.h"

#include <algorithm>

#include "client/paths.h"

namespace tarn {

const std::optional<Scopes::Lists> &Scopes::lists_of(const Instance &instance) {
  const auto [found, fresh] = known_.try_emplace(instance);
  if (!fresh || !lists_) return found->second;
  if (auto directories = lists_(instance.first)) {
    RuleScope scope(*directories);
    found->second = Lists{std::move(*directories), std::move(scope)};
  }
  return found->second;
}

bool Scopes::includes(const Instance &instance, std::string_view path) {
  const auto &lists = lists_of(instance);
  return !lists || lists->scope.includes(path);
}

std::vector<std::string> Scopes::listed_below(const Instance &instance,
                                              const std::string &directory) {
  std::vector<std::string> below;
  const auto &lists = lists_of(instance);
  if (!lists) return below;
  for (const auto *list : {&lists->directories.include, &lists->directories.exclude}) {
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
    if (!lists || lists->scope.includes(path)) return true;
  }
  return false;
}

}  // namespace tarn
