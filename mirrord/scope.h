/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a rule replicates of the source: a rename has two names, and only one of them may be inside.
 * Records do not carry the lists, so they are asked for when a rule, or a new life of one, is first
 * seen. A rule that is not there any more is taken to include the whole source. One thread.
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
#include "client/workdir.h"

namespace tarn {

/* The lists of a rule; nothing if it cannot be learnt. */
using RuleLists = std::function<std::optional<RuleDirectories>(const Uuid &)>;

class Scopes {
 public:
  /* One life of a rule. */
  using Life = std::pair<Uuid, std::uint32_t>;

  explicit Scopes(RuleLists lists) : lists_(std::move(lists)) {}

  /* Asks for the lists of the record's rule, if they are not known. */
  void learn(const Record &record) { lists_of(Life(record.rule, record.generation)); }
  /* Does the record's rule replicate this absolute path? */
  bool includes(const Record &record, std::string_view path) {
    return includes(Life(record.rule, record.generation), path);
  }
  bool includes(const Life &life, std::string_view path);
  /* The listed directories below that absolute one, relative to it: there the rule's border runs.
   */
  std::vector<std::string> listed_below(const Life &life, const std::string &directory);
  /* Does any of those whose records have come? */
  bool any_includes(std::string_view path) const;

 private:
  const std::optional<RuleDirectories> &lists_of(const Life &life);

  RuleLists lists_;
  std::map<Life, std::optional<RuleDirectories>> known_;
};

/* The longest listed directory that the path is, or lies below, decides. */
bool rule_includes(const RuleDirectories &rule, std::string_view path);

}  // namespace tarn

#endif
