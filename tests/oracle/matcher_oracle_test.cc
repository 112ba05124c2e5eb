// SPDX-License-Identifier: GPL-2.0
// The automaton that a rule text compiles to against a plain reading of the text, over random trees
// of included and excluded directories. A few seconds by default; ORACLE_EFFORT=600 makes it
// millions of trees.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/rule_scope.h"
#include "fuzz/uk_fuzz.h"
#include "module/os_public/Include/ox_msg.h"
#include "tests/oracle/booted_test.h"
#include "tests/oracle/plain_rules.h"
#include "ukern/door/uk_net.h"

namespace oracle {
namespace {

constexpr unsigned kIncluded = 32768, kMiss = 65535;
constexpr int kTrees = 2000;

struct Listed {
  std::string directory;
  bool included;
};

/* The order in which a text's entries count: inclusions, then exclusions. */
std::vector<Listed> in_effect(std::vector<Listed> list) {
  std::stable_sort(list.begin(), list.end(),
                   [](const Listed &a, const Listed &b) { return a.included > b.included; });
  return list;
}

std::string text_of(const std::vector<Listed> &list) {
  std::string text;
  for (const Listed &entry : list) {
    if (!text.empty()) text += ',';
    text += (entry.included ? "" : "!") + base64_encode(entry.directory);
  }
  return text;
}

std::string shown(const std::vector<Listed> &list) {
  std::string out;
  for (const Listed &entry : list)
    out += (entry.included ? " +" : " -") + testing::PrintToString(entry.directory);
  return out;
}

class Pattern {
 public:
  explicit Pattern(const std::vector<Listed> &list)
      : pattern_(uk_fuzz_pattern_new(text_of(list).c_str()), uk_fuzz_pattern_free) {}
  bool compiled() const { return pattern_ != nullptr; }
  bool covers(const std::string &path) const {
    const unsigned verdict = uk_fuzz_pattern_match(pattern_.get(), path.c_str());
    EXPECT_TRUE(verdict == kIncluded || verdict == kMiss) << verdict;
    return verdict == kIncluded;
  }

 private:
  std::unique_ptr<uk_fuzz_pattern, void (*)(uk_fuzz_pattern *)> pattern_;
};

bool is_at_or_below(const std::string &path, const std::string &directory) {
  return path == directory || path.starts_with(directory + "/");
}

/* Random directories and paths. Names are few and short, so that they share beginnings and repeat.
 */
class Tree {
 public:
  explicit Tree(Random &random) : random_(random), letters_(1 + random.below(3)) {}

  std::string directory() {
    /* Near one that exists already, most of the time. */
    if (!made_.empty() && !random_.one_in(3)) return remember(neighbour(pick(made_)));
    return remember(path(1 + random_.below(4)));
  }
  std::string path(int depth) {
    std::string out;
    while (depth-- > 0) out += '/' + name();
    return out;
  }
  std::string neighbour(std::string path) {
    switch (random_.below(6)) {
      case 0:
        return path + '/' + name();
      case 1:
        return path + name(); /* the same beginning, another name */
      case 2:
        return path.substr(0, path.size() - 1).find_last_not_of('/') == path.npos ? path
                                                                                  : shortened(path);
      case 3:
        return parent(path);
      case 4:
        return parent(path) + '/' + name();
      default:
        return path;
    }
  }
  static std::string parent(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == path.npos ? path : path.substr(0, slash);
  }
  const std::string &pick(const std::vector<std::string> &from) {
    return from[static_cast<std::size_t>(random_.below(static_cast<int>(from.size())))];
  }
  const std::vector<std::string> &made() const { return made_; }

 private:
  std::string name() {
    if (random_.one_in(40)) return odd_name();
    std::string out;
    for (int length = 1 + random_.below(4); length > 0; --length)
      out += static_cast<char>('a' + random_.below(letters_));
    return out;
  }
  /* Any bytes may be in a name but '/' and NUL. */
  std::string odd_name() {
    std::string out = random_.bytes(1 + random_.below(6));
    for (char &c : out)
      if (c == '/' || c == '\0') c = ' ';
    return out;
  }
  /* The last name loses its last letter, if it has more than one. */
  static std::string shortened(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return path.size() - slash > 2 ? path.substr(0, path.size() - 1) : path;
  }
  std::string remember(std::string path) {
    made_.push_back(path);
    return path;
  }

  Random &random_;
  int letters_;
  std::vector<std::string> made_;
};

std::vector<Listed> random_list(Random &random, Tree &tree) {
  std::vector<Listed> list;
  for (int count = 1 + random.below(random.one_in(20) ? 60 : 9); count > 0; --count)
    list.push_back({tree.directory(), !random.one_in(3)});
  return list;
}

// Some directories end with a slash.
std::vector<Listed> random_list_with_slashes(Random &random, Tree &tree) {
  std::vector<Listed> list = random_list(random, tree);
  for (Listed &entry : list)
    if (random.one_in(8)) entry.directory += '/';
  return list;
}

/* Paths at, above, below and beside everything that was listed, and some that have nothing to do
 * with it. */
std::vector<std::string> probes(Random &random, Tree &tree) {
  std::vector<std::string> paths = {"/", "", tree.path(1 + random.below(6))};
  for (const std::string &directory : tree.made()) {
    paths.push_back(directory);
    paths.push_back(directory + "/");
    paths.push_back(directory + "/x");
    paths.push_back(directory + "x");
    paths.push_back(Tree::parent(directory));
    paths.push_back(tree.neighbour(tree.neighbour(directory)));
    paths.push_back(tree.neighbour(directory) + tree.path(1 + random.below(2)));
  }
  return paths;
}

/* ---- what holds for lists in a good order, said in one sentence ---- */

/* No directory stands behind one of its own subdirectories. */
bool parents_come_first(const std::vector<Listed> &list) {
  for (std::size_t late = 0; late < list.size(); ++late)
    for (std::size_t early = 0; early < late; ++early)
      if (list[early].directory.starts_with(list[late].directory + "/")) return false;
  return true;
}

/* The deepest listed directory that holds the path decides; of equal ones the last. */
bool deepest_decides(const std::vector<Listed> &list, const std::string &path) {
  std::size_t deepest = 0;
  bool verdict = false;
  for (const Listed &entry : list) {
    if (!is_at_or_below(path, entry.directory) || entry.directory.size() < deepest) continue;
    deepest = entry.directory.size();
    verdict = entry.included;
  }
  return verdict;
}

using MatcherOracle = Booted;

TEST_F(MatcherOracle, the_deepest_directory_decides_where_parents_are_listed_first) {
  Random random;
  long trees = 0, paths = 0;
  for (long round = 0; round < long{kTrees} * effort(); ++round) {
    Tree tree(random);
    std::vector<Listed> list = random_list(random, tree);
    std::stable_sort(list.begin(), list.end(), [](const Listed &a, const Listed &b) {
      return a.directory.size() < b.directory.size();
    });
    const std::vector<Listed> effective = in_effect(list);
    if (!parents_come_first(effective)) continue;
    ++trees;
    const Pattern pattern(list);
    ASSERT_TRUE(pattern.compiled()) << shown(list);
    for (const std::string &path : probes(random, tree)) {
      ++paths;
      ASSERT_EQ(pattern.covers(path), deepest_decides(effective, path))
          << testing::PrintToString(path) << " under" << shown(list);
    }
  }
  EXPECT_GT(trees, kTrees / 4);
  std::printf("%ld trees, %ld paths\n", trees, paths);
}

TEST_F(MatcherOracle, lists_in_any_order_mean_what_a_plain_reading_says) {
  Random random;
  long trees = 0, paths = 0;
  for (; trees < long{kTrees} * effort(); ++trees) {
    Tree tree(random);
    const std::vector<Listed> list = random_list_with_slashes(random, tree);
    const Pattern pattern(list);
    ASSERT_TRUE(pattern.compiled()) << shown(list);
    PlainRules plain;
    for (const Listed &entry : in_effect(list))
      entry.included ? plain.include(entry.directory) : plain.exclude(entry.directory);
    for (const std::string &path : probes(random, tree)) {
      ++paths;
      ASSERT_EQ(pattern.covers(path), plain.covers(path))
          << testing::PrintToString(path) << " under" << shown(list);
    }
  }
  std::printf("%ld trees, %ld paths\n", trees, paths);
}

TEST_F(MatcherOracle, programs_read_a_rule_as_the_module_does) {
  Random random;
  for (long trees = 0; trees < long{kTrees} * effort(); ++trees) {
    Tree tree(random);
    const std::vector<Listed> list = random_list_with_slashes(random, tree);
    const Pattern pattern(list);
    ASSERT_TRUE(pattern.compiled()) << shown(list);
    const tarn::RuleScope scope(text_of(list));
    for (const std::string &path : probes(random, tree))
      ASSERT_EQ(pattern.covers(path), scope.includes(path))
          << testing::PrintToString(path) << " under" << shown(list);
  }
}

/* ---- many rules at once ---- */

/* Installs rules as a tool would. */
class InstalledRules {
 public:
  ~InstalledRules() { uk_setsockopt(kInet, OX_SO_REP_FLUSH, nullptr, 0); }

  int add(int id, const std::vector<Listed> &list) {
    return request(OX_SO_REP_ADD, id, text_of(list));
  }
  int remove(int id) { return request(OX_SO_REP_DEL, id, ""); }

 private:
  static constexpr int kInet = 2;

  static int request(int code, int id, const std::string &text) {
    prule record = {};
    record.uuid[0] = static_cast<unsigned char>(id);
    text.copy(record.workdir, sizeof(record.workdir) - 1);
    uk_user_add(&record, sizeof(record));
    const int result = uk_setsockopt(kInet, code, &record, sizeof(record));
    uk_user_del(&record);
    return result;
  }
};

TEST_F(MatcherOracle, a_change_hits_the_rules_whose_texts_cover_it) {
  Random random;
  for (int round = 0; round < kTrees / 250 * effort(); ++round) {
    Tree tree(random);
    InstalledRules rules;
    std::map<int, PlainRules> plain;
    const int ids = 1 + random.below(60);
    for (int change = 0; change < 3 * ids; ++change) {
      const int id = 1 + random.below(ids);
      if (plain.erase(id) != 0) {
        ASSERT_EQ(rules.remove(id), 0);
      } else {
        const std::vector<Listed> list = random_list(random, tree);
        ASSERT_EQ(rules.add(id, list), 0) << shown(list);
        plain.emplace(id, text_of(list));
      }
      const std::vector<std::string> paths = probes(random, tree);
      for (int probe = 0; probe < 8; ++probe) {
        const std::string &path = tree.pick(paths);
        const auto hit = std::count_if(plain.begin(), plain.end(),
                                       [&](const auto &rule) { return rule.second.covers(path); });
        ASSERT_EQ(uk_fuzz_hits(path.c_str()), std::min<long>(hit, 32)) << path;
      }
    }
  }
}

/* ---- a directory behind one of its own subdirectories ---- */

TEST_F(MatcherOracle, a_directory_behind_its_only_subdirectory_covers_itself_and_that_one) {
  Random random;
  for (int round = 0; round < kTrees / 4 * effort(); ++round) {
    Tree tree(random);
    const std::string directory = tree.path(1 + random.below(3));
    const std::string child = directory + tree.path(1 + random.below(3));
    const std::vector<Listed> list = {{child, true}, {directory, true}};
    const Pattern pattern(list);
    for (int probe = 0; probe < 20; ++probe) {
      const std::string path = directory + tree.path(random.below(4));
      ASSERT_EQ(pattern.covers(path), path == directory || is_at_or_below(path, child))
          << path << " under" << shown(list);
    }
    ASSERT_TRUE(pattern.covers(directory));
    ASSERT_TRUE(pattern.covers(child + "/x"));
    ASSERT_FALSE(pattern.covers(directory + "/" + std::string(9, 'z')));
  }
}

TEST_F(MatcherOracle, an_exclusion_above_one_inclusion_takes_only_the_directory_itself) {
  const Pattern pattern({{"/a", true}, {"/a/b/c", true}, {"/a/b", false}});
  EXPECT_FALSE(pattern.covers("/a/b"));
  EXPECT_TRUE(pattern.covers("/a/b/c/x"));
  EXPECT_TRUE(pattern.covers("/a/b/x"));
  EXPECT_TRUE(pattern.covers("/a/x"));
}

TEST_F(MatcherOracle, a_directory_behind_two_subdirectories_that_part_there_covers_everything) {
  const Pattern pattern({{"/a/b", true}, {"/a/c", true}, {"/a", true}});
  EXPECT_TRUE(pattern.covers("/a"));
  EXPECT_TRUE(pattern.covers("/a/x"));
  EXPECT_TRUE(pattern.covers("/a/b/x"));
  EXPECT_FALSE(pattern.covers("/ab"));
}

TEST_F(MatcherOracle, a_directory_behind_subdirectories_of_one_beginning_covers_itself_and_these) {
  const Pattern pattern({{"/a/one", true}, {"/a/only", true}, {"/a", true}});
  EXPECT_TRUE(pattern.covers("/a"));
  EXPECT_TRUE(pattern.covers("/a/one/x"));
  EXPECT_TRUE(pattern.covers("/a/only/x"));
  EXPECT_FALSE(pattern.covers("/a/x"));
  EXPECT_FALSE(pattern.covers("/a/on"));
}

TEST_F(MatcherOracle, a_sibling_of_the_same_beginning_makes_the_later_directory_whole) {
  const Pattern pattern({{"/a/b/c", true}, {"/a/bc", true}, {"/a/b", true}});
  EXPECT_TRUE(pattern.covers("/a/b"));
  EXPECT_TRUE(pattern.covers("/a/b/x"));
  EXPECT_FALSE(pattern.covers("/a/bx"));
}

TEST_F(MatcherOracle, listed_a_second_time_a_directory_is_whole) {
  const Pattern pattern({{"/a/b", true}, {"/a", true}, {"/a", true}});
  EXPECT_TRUE(pattern.covers("/a/x"));
}

/* The only place where a trailing slash makes a difference: its two names are entered the other way
 * round. */
TEST_F(MatcherOracle, with_a_trailing_slash_a_directory_behind_its_subdirectory_is_whole) {
  const Pattern pattern({{"/a/b", true}, {"/a/", true}});
  EXPECT_TRUE(pattern.covers("/a"));
  EXPECT_TRUE(pattern.covers("/a/x"));
}

}  // namespace
}  // namespace oracle
