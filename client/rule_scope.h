/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which paths a rule includes, and by which entry of its text: the same answers as the module's.
 *
 * The longest listed directory that is the path or above it decides. There is one exception, the
 * module's own: a directory that is listed after one of its own subdirectories is not applied to
 * its contents, unless the names listed so far part right there. Excluded directories count as
 * listed after all included ones.
 */
#ifndef TARN_CLIENT_RULE_SCOPE_H
#define TARN_CLIENT_RULE_SCOPE_H

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/workdir.h"

namespace tarn {

class RuleScope {
 public:
  explicit RuleScope(const RuleDirectories &directories);
  /* A rule's text. An entry that is not the Base64 text of a directory counts as "/", as one that
   * the module cannot decode. */
  explicit RuleScope(std::string_view workdir);

  struct Entry {
    std::string directory;
    bool included;
    bool operator==(const Entry &) const = default;
  };

  /* Of an absolute path. */
  bool includes(std::string_view path) const;
  /* The entry that decides about an absolute path; null: none does, and it is not included. */
  const Entry *deciding(std::string_view path) const;
  /* The longest listed directory that is the path or above it; null: none. It differs from the
   * deciding one only where the module does not apply a directory to its contents. */
  const Entry *nearest(std::string_view path) const;

 private:
  void enter(std::string directory, bool included);
  void enter_name(const std::string &name, std::size_t entry);
  bool part_at(std::string_view place) const;

  std::vector<Entry> entries_; /* in the order in which the module takes them */
  /* A directory D is two names, "D/" and D with a NUL behind it. The longest name that a path with
   * a NUL behind it begins with decides. Values are places in entries_. */
  std::map<std::string, std::size_t, std::less<>> names_;
};

}  // namespace tarn

#endif
