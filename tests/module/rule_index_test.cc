// SPDX-License-Identifier: GPL-2.0
// The rules that a change hits are looked up in an index; the answer is that of a walk over the
// list, in which each rule is asked in its turn.
#include <asm/processor.h>

#include "rule_index.h"
#include "tests/module/kit/rules.h"
#include "ukern/testing/uk_fault.h"
#include "rule_set.h"

namespace {

bool walk_hits(const struct prule_node *rule, const char *path1, const char *path2) {
  return rule->status == PRULE_STOPPED || match(&rule->path, path1) != STATE_MISS ||
         (path2 && match(&rule->path, path2) != STATE_MISS);
}

/* As a plain walk over the list answers; the number of hits. */
int expect_hits_of_walk(const char *path1, const char *path2 = nullptr) {
  const found_hits found(path1, path2);
  int at = 0;
  struct prule_node *rule;
  list_for_each_entry(rule, &get_prule_set()->head, list) {
    if (!walk_hits(rule, path1, path2)) continue;
    EXPECT_TRUE(found.is(rule, at));
    if (++at == HIT_RULES_MAX) break;
  }
  EXPECT_EQ(found.count(), at);
  return at;
}

/* How many keys the index has, each bucket counted in both directions. */
int keys_in_index() {
  int forwards = 0, backwards = 0;
  for (const struct rule_bucket &bucket : get_prule_set()->index.bucket) {
    for (const struct rule_key *key = bucket.first; key; key = key->next) ++forwards;
    for (const struct rule_key *key = bucket.last; key; key = key->prev) ++backwards;
  }
  EXPECT_EQ(forwards, backwards);
  return forwards;
}

int keys_of_rules() {
  int count = 0;
  struct prule_node *rule;
  list_for_each_entry(rule, &get_prule_set()->head, list) count += rule->keynum;
  return count;
}

void expect_empty_index() {
  EXPECT_EQ(get_prule_set()->index.lens, 0ull);
  EXPECT_EQ(keys_in_index(), 0);
  EXPECT_TRUE(get_prule_set()->stopped == nullptr);
}

/* Another thread holds the set's lock for reading, for a scope. */
class other_reader {
 public:
  other_reader() {
    init_completion(&holds_);
    thread_ = kthread_run(hold, this, "reader");
    EXPECT_TRUE(!IS_ERR(thread_));
    wait_for_completion(&holds_);
  }
  ~other_reader() { kthread_stop(thread_); }
  other_reader(const other_reader &) = delete;
  other_reader &operator=(const other_reader &) = delete;

 private:
  static int hold(void *self) {
    read_guard guard(get_prule_set()->rwlock);
    complete(&static_cast<other_reader *>(self)->holds_);
    while (!kthread_should_stop()) cpu_relax();
    return 0;
  }

  struct completion holds_;
  struct task_struct *thread_;
};

/* ---- what is random ---- */

class numbers {
 public:
  explicit numbers(unsigned seed) : state_(seed) {}
  unsigned below(unsigned limit) {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<unsigned>(state_ >> 33) % limit;
  }
  bool one_in(unsigned count) { return below(count) == 0; }

 private:
  unsigned long long state_;
};

/* Few names, so that directories lie in one another, beside one another and repeat. */
void random_path(numbers &random, char *path) {
  const char *const names[] = {"a", "ab", "seven77", "a-name-of-17-byte"};
  *path = '\0';
  for (unsigned depth = random.below(5); depth > 0; --depth) {
    strcpy(path + strlen(path), "/");
    strcpy(path + strlen(path), names[random.below(ARRAY_SIZE(names))]);
  }
  if (random.one_in(6)) strcpy(path + strlen(path), "/");
}

/* Parents before and behind their subdirectories, and what does not decode. */
int install_random_rule(numbers &random, int id) {
  workdir_text text;
  char path[128];
  for (unsigned entries = random.below(6); entries > 0; --entries) {
    random_path(random, path);
    if (random.one_in(20)) {
      text.raw(random.one_in(2) ? "L2E" : "!");
    } else if (random.one_in(4)) {
      text.exclude(path);
    } else if (*path && (strcmp(path, "/") != 0 || random.one_in(3))) {
      text.include(path);
    }
  }
  return install_rule(id, text);
}

}  // namespace

MODULE_CASE(rule_index, hits_are_those_of_a_walk_whatever_becomes_of_the_rules) {
  const int ids = 250;
  numbers random(20261121);
  char path1[128], path2[128];
  int full = 0, partly = 0;
  for (int step = 0; step < 12000; ++step) {
    const int id = 1 + static_cast<int>(random.below(ids));
    if (random.one_in(3)) {
      const int result = install_random_rule(random, id);
      REQUIRE_TRUE(result == 0 || result == OX_ERR_EXIST);
    } else if (random.one_in(6)) {
      remove_rule(id);
    } else if (random.one_in(400)) {
      prule_ref rule(lookup_rule(id));
      if (rule) prule_stop(rule.get());
    } else if (random.one_in(1500)) {
      do_flush(0);
      expect_empty_index();
    }
    random_path(random, path1);
    random_path(random, path2);
    const int hits = expect_hits_of_walk(path1, random.one_in(2) ? path2 : nullptr);
    if (step % 100 == 0) EXPECT_EQ(keys_in_index(), keys_of_rules());
    full += hits == HIT_RULES_MAX;
    partly += hits > 0 && hits < HIT_RULES_MAX;
  }
  /* It has tried what it is for. */
  EXPECT_TRUE(full > 100);
  EXPECT_TRUE(partly > 100);
  do_flush(0);
  expect_empty_index();
}

MODULE_CASE(rule_index, directories_of_any_length_and_what_is_beside_them) {
  const int longest = 80;
  const char *const tails[] = {"", "/", "/file", "x", "x/file", "//"};
  char path[128] = "";
  for (int len = 1; len <= longest; ++len) {
    path[len - 1] = len % 9 == 1 ? '/' : 'n';
    path[len] = '\0';
    REQUIRE_EQ(install_rule(len, path), 0);
  }
  for (int len = 0; len <= longest; ++len) {
    for (const char *tail : tails) {
      strcpy(path + len, tail);
      expect_hits_of_walk(path);
    }
    path[len] = len % 9 == 0 ? '/' : 'n';
  }
}

MODULE_CASE(rule_index, a_path_hits_the_rules_of_each_directory_above_it_once) {
  REQUIRE_EQ(install_rule(1, workdir_text().include("/a/b/c").include("/a").include("/a/b")), 0);
  REQUIRE_EQ(install_rule(2, workdir_text().include("/a/b").include("/a/b/")), 0);
  REQUIRE_EQ(install_rule(3, workdir_text().include("/z").include("/a").exclude("/a/b")), 0);
  REQUIRE_EQ(install_rule(4, "/"), 0);
  const found_hits found("/a/b/c/file", "/a/b/file");
  REQUIRE_EQ(found.count(), 3);
  EXPECT_EQ(found.id(0), 1);
  EXPECT_EQ(found.id(1), 2);
  EXPECT_EQ(found.id(2), 4);
}

MODULE_CASE(rule_index, what_does_not_decode_is_the_root_with_all_below_it) {
  REQUIRE_EQ(install_rule(1, workdir_text().raw("x")), 0);
  REQUIRE_EQ(install_rule(2, workdir_text().raw("L2E").raw("y").raw("z")), 0);
  REQUIRE_EQ(install_rule(3, workdir_text()), 0);
  REQUIRE_EQ(install_rule(4, workdir_text().raw("!x")), 0);
  REQUIRE_EQ(install_rule(5, "name"), 0);
  const char *const paths[] = {"", "/", "/a", "//a", "name", "name/a", "other"};
  const int expected[] = {2, 2, 2, 2, 1, 1, 0};
  for (unsigned i = 0; i < ARRAY_SIZE(paths); ++i) {
    EXPECT_EQ(expect_hits_of_walk(paths[i]), expected[i]);
  }
}

MODULE_CASE(rule_index, of_many_rules_of_one_directory_the_first_32_are_hit) {
  const int rules = 100;
  for (int id = 1; id <= rules; ++id) {
    REQUIRE_EQ(install_rule(id, id % 10 ? "/srv/data" : "/srv/data/inner"), 0);
  }
  for (int removed = 0; removed < rules; ++removed) {
    expect_hits_of_walk("/srv/data/file");
    expect_hits_of_walk("/srv/data/inner/file");
    expect_hits_of_walk("/srv/other", "/srv/data/inner/file");
    EXPECT_EQ(remove_rule(1 + removed * 37 % rules), 0);
  }
  expect_empty_index();
}

/* The longest text has as many keys as there can be; one of empty paths alone has one. */
MODULE_CASE(rule_index, a_rule_may_list_as_much_as_its_text_holds) {
  static char text[OX_WORKDIR_LEN];
  /* Of these no three make a zero byte. */
  const char digits[] = "QRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const int dirs = (OX_WORKDIR_LEN - 1) / 5;
  for (int i = 0; i < dirs; ++i) { /* three bytes each, all different */
    const char entry[] = {'L', "AB"[i / (48 * 48)], digits[i % 48], digits[i / 48 % 48], ','};
    memcpy(text + i * 5, entry, sizeof(entry));
  }
  kernel_ds_guard kernel_addresses;
  REQUIRE_EQ(do_add(rule_record(1, text), sizeof(struct prule)), 0);
  memset(text, 0, sizeof(text));
  for (int i = 0; i < OX_WORKDIR_LEN - 2; i += 2) memcpy(text + i, "x,", 2);
  REQUIRE_EQ(do_add(rule_record(2, text), sizeof(struct prule)), 0);
  {
    prule_ref many(lookup_rule(1));
    EXPECT_EQ(many->keynum, dirs);
    prule_ref one(lookup_rule(2));
    EXPECT_EQ(one->keynum, 1);
  }
  expect_hits_of_walk("/\x01\x02");
  EXPECT_EQ(remove_rule(1), 0);
  EXPECT_EQ(remove_rule(2), 0);
  expect_empty_index();
}

/* Else a look-up would ask the rule as often as it is listed, and an addition would take that long
 * with all writers waiting. */
MODULE_CASE(rule_index, a_directory_listed_many_times_is_entered_once) {
  workdir_text text;
  for (int i = 0; i < 300; ++i) text.include("/srv/data").include("/srv/data/").include("/srv");
  REQUIRE_EQ(install_rule(1, text), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(rule->keynum, 2);
  EXPECT_EQ(keys_in_index(), 2);
  expect_hits_of_walk("/srv/data/file");
  expect_hits_of_walk("/srv");
  EXPECT_EQ(remove_rule(1), 0);
  expect_empty_index();
}

/* What an addition allocates last are the keys. */
MODULE_CASE(rule_index, without_memory_for_its_keys_a_rule_is_not_added) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  uk_fault_arm(~0ul);
  REQUIRE_EQ(install_rule(2, "/a/b"), 0);
  const unsigned long allocations = uk_fault_count();
  uk_fault_arm(0);
  REQUIRE_EQ(remove_rule(2), 0);
  for (unsigned long n = allocations - 1; n <= allocations; ++n) {
    uk_fault_arm(n);
    EXPECT_EQ(install_rule(2, "/a/b"), OX_ERR_PATTERN);
    uk_fault_arm(0);
    EXPECT_EQ(expect_hits_of_walk("/a/b"), 1);
  }
  EXPECT_EQ(case_log_count("create reppath error!"), 2);
  REQUIRE_EQ(install_rule(2, "/a/b"), 0);
  EXPECT_EQ(expect_hits_of_walk("/a/b"), 2);
}

MODULE_CASE(rule_index, directories_of_one_hash_are_told_apart) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  prule_ref first(lookup_rule(1)), second(lookup_rule(2));
  struct rule_index *index = &get_prule_set()->index;
  rule_index_del(index, second->keys, second->keynum);
  second->keys[0].hash = first->keys[0].hash;
  rule_index_add(index, second->keys, second->keynum);
  const found_hits found("/a/file");
  REQUIRE_EQ(found.count(), 1);
  EXPECT_EQ(found.id(0), 1);
}

MODULE_CASE(rule_index, stopped_rules_are_hit_in_list_order_among_the_others) {
  const char *const dirs[] = {"/a", "/b", "/c", "/a", "/d"};
  for (int i = 0; i < 5; ++i) REQUIRE_EQ(install_rule(i + 1, dirs[i]), 0);
  const int stops[] = {3, 5, 2, 3};
  for (int id : stops) {
    prule_ref rule(lookup_rule(id));
    prule_stop(rule.get());
    EXPECT_EQ(rule->status, PRULE_STOPPED);
    expect_hits_of_walk("/a/file");
    expect_hits_of_walk("/elsewhere");
    expect_hits_of_walk("/b/file");
  }
  const found_hits found("/a/file");
  REQUIRE_EQ(found.count(), 5);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(found.id(i), i + 1);
  EXPECT_EQ(remove_rule(3), 0);
  EXPECT_EQ(expect_hits_of_walk("/elsewhere"), 2);
}

MODULE_CASE(rule_index, of_many_stopped_rules_the_first_32_are_hit) {
  const int rules = 40;
  for (int id = 1; id <= rules; ++id) REQUIRE_EQ(install_rule(id, id % 2 ? "/a" : "/b"), 0);
  for (int i = 0; i < rules; ++i) {
    /* The first and the last one, then those between them. */
    prule_ref rule(lookup_rule(i == 0 ? 1 : i == 1 ? rules : i));
    prule_stop(rule.get());
    expect_hits_of_walk("/elsewhere");
    expect_hits_of_walk("/a/file");
  }
}

MODULE_CASE(rule_index, a_rule_stopped_after_its_removal_is_hit_by_nothing) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(remove_rule(1), 0);
  prule_stop(rule.get());
  EXPECT_EQ(rule->status, PRULE_STOPPED);
  EXPECT_EQ(expect_hits_of_walk("/a"), 0);
}

MODULE_CASE(rule_index, after_a_flush_beside_a_reader_nothing_is_hit) {
  for (int id = 1; id <= 3; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  prule_ref first(lookup_rule(1)), last(lookup_rule(3));
  prule_stop(last.get());
  {
    other_reader reader;
    EXPECT_EQ(do_flush(0), 0);
    EXPECT_EQ(expect_hits_of_walk("/a/file"), 0);
    prule_stop(first.get());
    EXPECT_EQ(expect_hits_of_walk("/elsewhere"), 0);
  }
  REQUIRE_EQ(install_rule(2, "/a"), 0);
  EXPECT_EQ(expect_hits_of_walk("/a/file"), 1);
  EXPECT_EQ(remove_rule(2), 0);
  expect_empty_index();
}
