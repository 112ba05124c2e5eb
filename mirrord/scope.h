/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which paths a rule includes: only one of the two names of a rename may be. Records do not carry
 * the rule's lists, so they are read when a rule, or a new generation of one, is first seen. A rule
 * that no longer exists is taken to include the whole source. One thread.
 */
#ifndef TARN_MIRRORD_SCOPE_H
#define TARN_MIRRORD_SCOPE_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/messages.h"
#include "client/rule_scope.h"
#include "client/workdir.h"

namespace tarn {

/* Returns the lists of a rule; nothing if they cannot be read. */
using RuleLists = std::function<std::optional<RuleDirectories>(const Uuid &)>;

class Scopes {
 public:
  /* A rule of one generation. */
  using Instance = std::pair<Uuid, std::uint32_t>;

  explicit Scopes(RuleLists lists) : lists_(std::move(lists)) {}

  /* Reads the lists of the record's rule, if they are unknown. */
  void learn(const Record &record) { lists_of(Instance(record.rule, record.generation)); }
  /* Does the record's rule include this absolute path? */
  bool includes(const Record &record, std::string_view path) {
    return includes(Instance(record.rule, record.generation), path);
  }
  bool includes(const Instance &instance, std::string_view path);
  /* The included and excluded directories below an absolute one, relative to it. */
  std::vector<std::string> listed_below(const Instance &instance, const std::string &directory);
  /* Does any rule whose records have arrived include it? */
  bool any_includes(std::string_view path) const;

 private:
  struct Lists {
    RuleDirectories directories;
    RuleScope scope;
  };
  const std::optional<Lists> &lists_of(const Instance &instance);

  RuleLists lists_;
  std::map<Instance, std::optional<Lists>> known_;
};

}  // namespace tarn

#endif
