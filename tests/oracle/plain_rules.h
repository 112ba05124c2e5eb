/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a rule's list of directories means, as slowly and plainly as it can be said: a table of
 * names and their verdicts, in which the longest name that a path begins with decides. It shares
 * nothing with the module's automaton and exists to be compared with it. No locks, no errors.
 *
 * A directory D is two names: "D" with the path's end behind it, and "D/". A trailing '/' belongs
 * to the second name, and the empty path is "/".
 *
 * A name that is entered replaces what was entered before below it, with one exception, which
 * matters when a directory is listed after one of its own subdirectories. The names entered so far
 * are runs of letters, and runs have joints: where a name ends, where two names part, and behind
 * the first letter after they part. A new name that ends at a joint replaces what lies beyond. One
 * that ends in the middle of a run does not: it stands for the path that ends right there, and
 * everything else below keeps its verdict. So after "/a/b", "/a" covers itself and "/a/b" and
 * nothing else; but after "/a/b" and "/a/c", which part behind "/a/", it covers everything.
 */
#ifndef TESTS_ORACLE_PLAIN_RULES_H
#define TESTS_ORACLE_PLAIN_RULES_H

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace oracle {

class PlainRules {
 public:
  PlainRules() = default;
  /* The meaning of a whole rule text. */
  explicit PlainRules(std::string_view text);

  /* In the order of the text; all inclusions come before the first exclusion. */
  void include(std::string_view directory) { enter(directory, true); }
  void exclude(std::string_view directory) { enter(directory, false); }
  bool covers(std::string_view path) const;

  /* The directories that were entered, in that order. */
  const std::vector<std::string> &directories() const { return directories_; }

 private:
  void enter(std::string_view directory, bool verdict);
  void enter_name(const std::string &name, bool verdict);
  bool part_at(const std::string &place) const;

  std::map<std::string, bool, std::less<>> names_;
  std::vector<std::string> directories_;
};

/* One entry of a rule text: its Base64 text without '!', and whether it had one. */
struct Entry {
  std::string text;
  bool excluded;
};
std::vector<Entry> entries_of(std::string_view text);

/* RFC 4648, standard alphabet, padded. */
std::string base64_encode(std::string_view bytes);

struct Decoded {
  bool ok;
  std::string bytes;
};
/* As the module reads Base64: characters outside the alphabet do not count, '=' is six zero bits.
 */
Decoded base64_decode(std::string_view text);

}  // namespace oracle

#endif
