// SPDX-License-Identifier: GPL-2.0
#include "statematch.h"
#include "kernel.h"
#include "tests/module/kit/rules.h"
#include "tests/harness/case.h"
#include "ukern/testing/uk_fault.h"

namespace {

const int kIncluded = STATE_FINAL;
const int kMiss = STATE_MISS;

/* A pattern for the time of a case. */
class pattern {
 public:
  pattern() { memset(&m_, 0, sizeof(m_)); }
  explicit pattern(const workdir_text &text) : pattern() { build(text.get()); }
  ~pattern() { clearmatch(&m_); }
  pattern(const pattern &) = delete;
  pattern &operator=(const pattern &) = delete;

  int build(const char *text) { return result_ = build_path_match(&m_, text); }
  int result() const { return result_; }
  int operator()(const char *path) const { return match(&m_, path); }
  matchdr_t *get() { return &m_; }

 private:
  matchdr_t m_;
  int result_ = 0;
};

bool below_or_same(const char *path, const char *dir) {
  const unsigned long len = strlen(dir);
  return strncmp(path, dir, len) == 0 && (path[len] == '/' || path[len] == '\0');
}

}  // namespace

CASE(statematch, a_directory_covers_itself_and_what_is_below) {
  pattern p(workdir_text().include("/a"));
  EXPECT_EQ(p("/a"), kIncluded);
  EXPECT_EQ(p("/a/x/y"), kIncluded);
  EXPECT_EQ(p("/ab"), kMiss);
  EXPECT_EQ(p("/"), kMiss);
  EXPECT_EQ(p(""), kMiss);
}

CASE(statematch, an_exclusion_cuts_out_of_an_inclusion) {
  pattern p(workdir_text().include("/a").exclude("/a/b"));
  EXPECT_EQ(p("/a/c"), kIncluded);
  EXPECT_EQ(p("/a"), kIncluded);
  EXPECT_EQ(p("/a/b"), kMiss);
  EXPECT_EQ(p("/a/b/c"), kMiss);
}

CASE(statematch, exclusions_come_last_wherever_they_stand) {
  pattern p(workdir_text().exclude("/a/b").include("/a"));
  EXPECT_EQ(p("/a/c"), kIncluded);
  EXPECT_EQ(p("/a/b/c"), kMiss);
}

CASE(statematch, a_directory_inside_an_included_one_changes_nothing) {
  pattern p(workdir_text().include("/a").include("/a/b"));
  EXPECT_EQ(p("/a/x"), kIncluded);
  EXPECT_EQ(p("/a/b/y"), kIncluded);
}

CASE(statematch, an_exclusion_above_inclusions_replaces_them) {
  pattern p(workdir_text().include("/a/b/c").include("/a/b/d").exclude("/a/b"));
  EXPECT_EQ(p("/a/b/c/x"), kMiss);
  EXPECT_EQ(p("/a/b/d"), kMiss);
}

CASE(statematch, a_sibling_with_the_same_beginning_is_not_excluded) {
  pattern p(workdir_text().include("/a").exclude("/a/b"));
  EXPECT_EQ(p("/a/bc"), kIncluded);
  EXPECT_EQ(p("/a/bc/d"), kIncluded);
}

CASE(statematch, a_trailing_slash_changes_nothing) {
  pattern p(workdir_text().include("/a/").exclude("/a/b/"));
  EXPECT_EQ(p("/a"), kIncluded);
  EXPECT_EQ(p("/a/x"), kIncluded);
  EXPECT_EQ(p("/ab"), kMiss);
  EXPECT_EQ(p("/a/b"), kMiss);
  EXPECT_EQ(p("/a/bc"), kIncluded);
}

CASE(statematch, an_empty_text_matches_nothing) {
  pattern p(workdir_text{});
  EXPECT_EQ(p.result(), 0);
  EXPECT_EQ(p.get()->start, STATE_MISS);
  EXPECT_EQ(p("/"), kMiss);
  EXPECT_EQ(p("/a"), kMiss);
  EXPECT_EQ(p.build(" ,\r\n , "), 0);
  EXPECT_EQ(p("/a"), kMiss);
}

CASE(statematch, a_parent_after_its_child_covers_itself_and_that_child) {
  pattern p(workdir_text().include("/a/b").include("/a"));
  EXPECT_EQ(p("/a"), kIncluded);
  EXPECT_EQ(p("/a/b"), kIncluded);
  EXPECT_EQ(p("/a/b/c"), kIncluded);
  EXPECT_EQ(p("/a/x"), kMiss);
}

CASE(statematch, an_entry_that_does_not_decode_stands_for_the_root) {
  pattern p;
  EXPECT_EQ(p.build("L2E"), 0); /* not a multiple of four */
  EXPECT_EQ(p("/anything"), kIncluded);
  EXPECT_EQ(p.build("L2Fi*Q=="), 0); /* fails after its first bytes were decoded */
  EXPECT_EQ(p("/anything"), kIncluded);
  EXPECT_EQ(p.build("L2E= "), 0); /* the space counts for the length */
  EXPECT_EQ(p("/anything"), kIncluded);
  EXPECT_EQ(p.build("***"), 0);
  EXPECT_EQ(p("/"), kIncluded);
  /* As an exclusion it is the root too, but one behind what lies below it. */
  pattern none(workdir_text().include("/a").raw("!L2E"));
  EXPECT_EQ(none("/"), kMiss);
  EXPECT_EQ(none("/a/x"), kIncluded);
}

CASE(statematch, separators_and_spaces_of_a_text) {
  pattern p;
  EXPECT_EQ(p.build(" \r\n,L2E=    , L2I=\r\nL2M=,"), 0); /* "/a", "/b", "/c" */
  EXPECT_EQ(p("/a/1"), kIncluded);
  EXPECT_EQ(p("/b"), kIncluded);
  EXPECT_EQ(p("/c/1"), kIncluded);
  EXPECT_EQ(p("/d"), kMiss);

  const char text[] = "  ,ab c ,d";
  const char *head = path_head(text);
  EXPECT_EQ(head - text, 3);
  const char *tail = path_tail(head);
  EXPECT_EQ(tail - text, 8); /* the space at the end belongs to the entry */
  EXPECT_EQ(path_head(tail) - text, 9);
  EXPECT_TRUE(path_head(path_tail(path_head(tail))) == nullptr);
}

CASE(statematch, what_an_entry_stands_for) {
  const struct {
    const char *entry, *path;
  } cases[] = {{"L2E=", "/a"}, {"L2EvYg==", "/a/b"}, {"L2E", ""},
               {"L2E= ", ""},  {"L2E=    ", "/a"},   {"L2E=x", ""},
               {"====", ""},   {"L2EAL2I=", "/a"},   {"", ""}};
  for (const auto &c : cases) {
    char path[16];
    const int len = static_cast<int>(strlen(c.entry));
    REQUIRE_TRUE(entry_path_size(len) <= (ox_s32_t)sizeof(path));
    EXPECT_EQ(entry_path(c.entry, len, path), strlen(c.path));
    EXPECT_STREQ(path, c.path);
  }
}

CASE(statematch, paths_are_bytes_of_any_value) {
  pattern p(workdir_text().include("/\xFF\x80, !").include("/A"));
  EXPECT_EQ(p("/\xFF\x80, !/x"), kIncluded);
  EXPECT_EQ(p("/\xFF\x80, ?"), kMiss);
  EXPECT_EQ(p("/a"), kMiss);
}

CASE(statematch, a_compiled_pattern_keeps_no_building_records) {
  pattern p(workdir_text().include("/a/b").include("/a/c").include("/b/b").exclude("/a/b/x"));
  EXPECT_EQ(p.get()->sh.cstr, 0);
  EXPECT_TRUE(p.get()->sh.str == nullptr);
  EXPECT_TRUE(p.get()->str != nullptr);
}

CASE(statematch, equal_tables_are_merged) {
  workdir_text text;
  char path[16];
  for (int i = 0; i < 26; ++i) {
    snprintf(path, sizeof(path), "/%c", 'a' + i);
    text.include(path);
  }
  pattern p(text);
  int tables = 0;
  for (int i = 0; i < p.get()->th.ctbl; ++i) tables += p.get()->th.tbl[i] != nullptr;
  EXPECT_GE(p.get()->th.ctbl, 26);
  EXPECT_LE(tables, 3); /* what follows a letter is the same for all of them */
  EXPECT_EQ(p("/q/x"), kIncluded);
  EXPECT_EQ(p("/qx"), kMiss);
}

CASE(statematch, agrees_with_a_plain_search) {
  static char dirs[40][32];
  unsigned seed = 12345;
  const auto next = [&seed](unsigned below) {
    seed = seed * 1103515245 + 12345;
    return (seed >> 16) % below;
  };
  const auto random_path = [&next](char *path, unsigned depth) {
    for (unsigned i = 0; i < depth; ++i) {
      *path++ = '/';
      for (unsigned n = 1 + next(3); n > 0; --n) *path++ = static_cast<char>('a' + next(2));
    }
    *path = '\0';
  };
  for (int round = 0; round < 60; ++round) {
    const int includes = 1 + static_cast<int>(next(20));
    const int excludes = static_cast<int>(next(10));
    const int count = includes + excludes;
    workdir_text text;
    /* Parents first, and inclusions above exclusions: then the longest entry decides. */
    for (int i = 0; i < count; ++i) {
      const unsigned depth =
          i < includes ? 1 + i * 2 / includes : 3 + (i - includes) * 2 / excludes;
      random_path(dirs[i], depth);
      i < includes ? text.include(dirs[i]) : text.exclude(dirs[i]);
    }
    pattern p(text);
    REQUIRE_EQ(p.result(), 0);
    for (int probe = 0; probe < 200; ++probe) {
      char path[64];
      random_path(path, 1 + next(6));
      unsigned long longest = 0;
      int expected = kMiss;
      for (int i = 0; i < count; ++i) {
        if (!below_or_same(path, dirs[i]) || strlen(dirs[i]) < longest) continue;
        longest = strlen(dirs[i]);
        expected = i < includes ? kIncluded : kMiss;
      }
      EXPECT_EQ(p(path), expected);
    }
  }
}

CASE(statematch, a_text_of_full_length_compiles) {
  static char text[OX_WORKDIR_LEN];
  int len = 0;
  for (int i = 0; len + 16 < OX_WORKDIR_LEN; ++i) {
    char path[4] = {'/', static_cast<char>('0' + i % 70), static_cast<char>('0' + i / 70), 0};
    ox_s32_t size = OX_WORKDIR_LEN - len;
    REQUIRE_TRUE(Base64Encode(path, 3, text + len, &size, 0) != nullptr);
    len += size;
    text[len++] = ',';
  }
  text[len] = '\0';
  pattern p;
  REQUIRE_EQ(p.build(text), 0);
  EXPECT_EQ(p("/00/x"), kIncluded);
  EXPECT_EQ(p("/0"), kMiss);
  EXPECT_EQ(p("/00x"), kMiss);
}

CASE(statematch, every_allocation_may_fail) {
  workdir_text text;
  text.include("/a/b").include("/a/c").include("/a").include("/x/yz").exclude("/a/b/d");
  pattern p;
  for (unsigned long n = 1;; ++n) {
    REQUIRE_TRUE(n < 1000);
    uk_fault_arm(n);
    const int result = p.build(text.get());
    uk_fault_arm(0);
    if (result == 0) break;
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(p.get()->th.tbl == nullptr);
    EXPECT_TRUE(p.get()->sh.str == nullptr);
    EXPECT_EQ(p.get()->start, 0);
  }
  EXPECT_EQ(p("/a/b/d"), kMiss);
}

/* The run that a path begins with may be the one of two equal ones that goes. */
CASE(statematch, a_first_run_that_is_merged_is_found_where_it_went) {
  pattern p(workdir_text().include("b/b/").include("b/"));
  REQUIRE_EQ(p.result(), 0);
  EXPECT_EQ(p("b"), kIncluded);
  EXPECT_EQ(p("b/b"), kIncluded);
  EXPECT_EQ(p("b/b/c"), kIncluded);
  EXPECT_EQ(p("b/c"), kIncluded);
  EXPECT_EQ(p("bc"), kMiss);
  EXPECT_EQ(p("c"), kMiss);
  EXPECT_EQ(p(""), kMiss);
}

CASE(statematch, clearing_is_safe_at_any_time) {
  matchdr_t m;
  memset(&m, 0, sizeof(m));
  clearmatch(&m);
  initmatch(&m, 0, 1, CMP_STR);
  EXPECT_EQ(addstr(&m, "/a", 3, 0, 1), 0);
  EXPECT_EQ(addstr(&m, "/ab", 4, 0, 1), 0);
  clearmatch(&m);
  clearmatch(&m);
  EXPECT_TRUE(m.cmp == nullptr);
}

CASE(statematch, an_empty_automaton_includes_all_or_nothing) {
  matchdr_t m;
  initmatch(&m, 0, 0, CMP_STR);
  EXPECT_EQ(match(&m, "/x"), kIncluded);
  initmatch(&m, 0, 1, CMP_STR);
  EXPECT_EQ(match(&m, "/x"), kMiss);
}

CASE(statematch, tags_and_skipped_bytes) {
  matchdr_t m;
  initmatch(&m, 2, 1, CMP_STR);
  EXPECT_EQ(addstr(&m, "C:/a", 5, 7, 1), 0);
  EXPECT_EQ(compilematch(&m), 0);
  EXPECT_EQ(match(&m, "D:/a/x"), kIncluded + 7);
  EXPECT_EQ(match(&m, "C:/b"), kMiss);
  clearmatch(&m);
}

CASE(statematch, keys_that_extend_a_run_survive_merging) {
  /* Two equal runs, one of them reached from the end of another run. */
  matchdr_t m;
  initmatch(&m, 0, 1, CMP_MEM);
  EXPECT_EQ(addmem(&m, "ab", 2, 0, 1), 0);
  EXPECT_EQ(addmem(&m, "abcdZZ", 6, 1, 1), 0);
  EXPECT_EQ(addmem(&m, "qb", 2, 0, 1), 0);
  EXPECT_EQ(addmem(&m, "qbcdZZ", 6, 1, 1), 0);
  EXPECT_EQ(compilematch(&m), 0);
  EXPECT_EQ(match(&m, "abcdZZ"), kIncluded + 1);
  EXPECT_EQ(match(&m, "qbcdZZ"), kIncluded + 1);
  EXPECT_EQ(match(&m, "abcdZY"), kIncluded);
  EXPECT_EQ(match(&m, "xxxxxxx"), kMiss);
  clearmatch(&m);
}

namespace {

/* How many runs of those bytes a compiled automaton has at a place of that parity. */
int runs(const matchdr_t &m, int records, const char *bytes, int odd) {
  const unsigned long len = strlen(bytes);
  int count = 0;
  for (int i = 0; i < records; ++i) {
    const strm_t &record = m.strm[i];
    if (record.l != len || memcmp(record.ptr, bytes, len) != 0) continue;
    count += record.odd == odd;
  }
  return count;
}

}  // namespace

CASE(statematch, a_run_knows_the_parity_of_its_place) {
  matchdr_t m;
  initmatch(&m, 0, 1, CMP_MEM);
  EXPECT_EQ(addmem(&m, "abcdef", 6, 0, 1), 0);
  EXPECT_EQ(addmem(&m, "abxxyz", 6, 1, 1), 0); /* parts the run behind "ab" */
  EXPECT_EQ(addmem(&m, "abczzz", 6, 2, 1), 0); /* takes the first byte off "def" */
  const int records = m.sh.cstr;
  EXPECT_EQ(compilematch(&m), 0);
  EXPECT_EQ(runs(m, records, "ab", 0), 1);
  EXPECT_EQ(runs(m, records, "ef", 0), 1);
  EXPECT_EQ(runs(m, records, "xyz", 1), 1);
  EXPECT_EQ(runs(m, records, "zz", 0), 1);
  clearmatch(&m);
}

CASE(statematch, room_for_runs_and_tables_grows_by_256) {
  matchdr_t m;
  initmatch(&m, 0, 1, CMP_MEM);
  for (int i = 0; i < 300; ++i) {
    const char key[] = {static_cast<char>(i / 20), static_cast<char>(i % 20), 'x', 'y'};
    EXPECT_EQ(addmem(&m, key, sizeof(key), 0, 1), 0);
    EXPECT_EQ(m.sh.nstr, (m.sh.cstr + 255) / 256 * 256);
    EXPECT_EQ(m.th.ntbl, (m.th.ctbl + 255) / 256 * 256);
  }
  EXPECT_GT(m.sh.cstr, 256);
  EXPECT_EQ(m.sh.nstr, 512);
  clearmatch(&m);
}

CASE(statematch, runs_at_places_of_different_parity_are_not_merged) {
  const char *const keys[] = {"a?12", "az", "bc?12", "bcz", "d?12", "dz"};
  matchdr_t m;
  initmatch(&m, 0, 1, CMP_MEM);
  for (const char *key : keys) EXPECT_EQ(addmem(&m, key, strlen(key), 0, 1), 0);
  const int records = m.sh.cstr;
  EXPECT_EQ(compilematch(&m), 0);
  EXPECT_EQ(runs(m, records, "12", 0), 1);
  EXPECT_EQ(runs(m, records, "12", 1), 1);
  for (const char *key : keys) EXPECT_EQ(match(&m, key), kIncluded);
  clearmatch(&m);
}

CASE(statematch, wide_characters) {
  const ox_u16_t dir[] = {'/', 'a', 0};
  const ox_u16_t below[] = {'/', 'a', '/', 'b', 0};
  const ox_u16_t sibling[] = {'/', 'a', 'b', 0};
  matchdr_t m;
  initmatch(&m, 0, 1, CMP_MEM);
  EXPECT_EQ(addwstr(&m, dir, sizeof(dir), 0, 1), 0);
  EXPECT_EQ(compilematch(&m), 0);
  EXPECT_EQ(match(&m, reinterpret_cast<const char *>(dir)), kIncluded);
  EXPECT_EQ(match(&m, reinterpret_cast<const char *>(below)), kIncluded);
  EXPECT_EQ(match(&m, reinterpret_cast<const char *>(sibling)), kMiss);
  clearmatch(&m);
}

CASE(statematch, comparisons_of_runs) {
  ox_u8_t run[] = {'a', 0, 'b'};
  strm_t record = {3, 0, 1, 2, run};
  const ox_u8_t same[] = {'a', 0, 'b'};
  const ox_u8_t other[] = {'a', 0, 'c'};
  EXPECT_EQ(cmpasmem(&record, same), 1);
  EXPECT_EQ(cmpasmem(&record, other), 2);
  EXPECT_EQ(cmpasstr(&record, other), 1); /* a common NUL ends the comparison */
  record.l = 1;
  EXPECT_EQ(cmpasmem(&record, other), 1);
  EXPECT_EQ(cmpasstr(&record, run + 2), 2);

  const strm_cmp_t by_index[] = {cmpasmem, cmpasstr, cmpasstr};
  for (int index = CMP_MEM; index <= CMP_STR_ALT; ++index) {
    matchdr_t m;
    initmatch(&m, 0, 1, index);
    EXPECT_TRUE(m.cmp == by_index[index]);
  }
}

/* ---- extensions ---- */

CASE(statematch, listed_extensions_match_in_either_case) {
  const char *const names[] = {"txt", "c"};
  extm_t e;
  initext(&e);
  REQUIRE_EQ(compileext(&e, names, 2, 1), 0);
  EXPECT_EQ(matchext(&e, "x.txt"), 1);
  EXPECT_EQ(matchext(&e, "x.TXT"), 1);
  EXPECT_EQ(matchext(&e, "a.b.c"), 1);
  EXPECT_EQ(matchext(&e, "x.tx"), 0);
  EXPECT_EQ(matchext(&e, "txt"), 0);
  EXPECT_EQ(matchext(&e, "x.ttxt"), 0);
  EXPECT_EQ(matchext(&e, ""), 0);
  clearext(&e);
  EXPECT_TRUE(e.t == nullptr);
}

CASE(statematch, extensions_that_are_not_listed_match_the_other_way_round) {
  const char *const names[] = {"txt"};
  extm_t e;
  initext(&e);
  REQUIRE_EQ(compileext(&e, names, 1, 0), 0);
  EXPECT_EQ(matchext(&e, "x.txt"), 0);
  EXPECT_EQ(matchext(&e, "x.TXT"), 0);
  EXPECT_EQ(matchext(&e, "x.tx"), 1);
  EXPECT_EQ(matchext(&e, "txt"), 1);
  EXPECT_EQ(matchext(&e, "x.ttxt"), 1);
  clearext(&e);
}

CASE(statematch, an_empty_list_of_extensions) {
  extm_t e;
  initext(&e);
  EXPECT_EQ(compileext(&e, nullptr, 0, 1), 0);
  EXPECT_TRUE(e.t == nullptr);
  EXPECT_EQ(matchext(&e, "x.txt"), 1);
  e.b = 1;
  EXPECT_EQ(matchext(&e, "x.txt"), 0);
}

CASE(statematch, a_name_that_is_too_long_is_not_walked) {
  const char *const names[] = {"txt"};
  extm_t e;
  initext(&e);
  REQUIRE_EQ(compileext(&e, names, 1, 1), 0);
  static char name[65540];
  memset(name, 'x', sizeof(name));
  memcpy(name + 65535 - 4, ".txt", 5); /* 65535 characters */
  EXPECT_EQ(matchext(&e, name), 0);
  EXPECT_EQ(matchext(&e, name + 1), 1); /* 65534 characters */
  clearext(&e);
}

CASE(statematch, rows_of_extensions_are_merged) {
  const char *const names[] = {"ab", "cb", "ad", "cd"};
  extm_t e;
  initext(&e);
  REQUIRE_EQ(compileext(&e, names, 4, 1), 0);
  for (int i = 0; i < 4; ++i) {
    char name[8];
    snprintf(name, sizeof(name), "x.%s", names[i]);
    EXPECT_EQ(matchext(&e, name), 1);
  }
  EXPECT_EQ(matchext(&e, "x.bb"), 0);
  const int b = 'b', d = 'd';
  EXPECT_EQ(e.t[0][b], e.t[0][d]);
  clearext(&e);
}

CASE(statematch, extensions_without_memory) {
  const char *const names[] = {"txt", "html"};
  extm_t e;
  initext(&e);
  for (unsigned long n = 1;; ++n) {
    REQUIRE_TRUE(n < 100);
    uk_fault_arm(n);
    const int result = compileext(&e, names, 2, 1);
    uk_fault_arm(0);
    if (result == 0) break;
    EXPECT_EQ(result, -ENOMEM);
    EXPECT_TRUE(e.t == nullptr);
  }
  EXPECT_EQ(matchext(&e, "x.html"), 1);
  clearext(&e);
}
