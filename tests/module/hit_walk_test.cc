// SPDX-License-Identifier: GPL-2.0
// The walk over the rules tells most of them from a few bytes beside the list: its answers are
// those of the automata all the same.
#include "support.h"

namespace {

/* Each rule alone, as the walk must judge it. */
void expect_hits_as_matched(const char *path) {
  struct hit_rules *hits;
  const int count = tarn_get_hit_rule(&hits, path, nullptr);
  REQUIRE_TRUE(count >= 0);
  int at = 0;
  struct prule_node *rule;
  list_for_each_entry(rule, &get_prule_set()->head, list) {
    if (match(&rule->path, path) == STATE_MISS) continue;
    EXPECT_TRUE(at < count && hits->arr[at] == rule);
    ++at;
  }
  EXPECT_EQ(at, count);
  for (int i = 0; i < count; ++i) prule_node_put(hits->arr[i]);
  kmem_cache_free(hit_rule_cache, hits);
}

/* What a node has ahead of it stands behind it in the list. */
void expect_ahead_in_list() {
  struct list_head *head = &get_prule_set()->head;
  struct prule_node *rule;
  list_for_each_entry(rule, head, list) {
    if (!rule->ahead) continue;
    bool found = false;
    for (struct list_head *p = rule->list.next; p != head; p = p->next) {
      found = found || list_entry(p, struct prule_node, list) == rule->ahead;
    }
    EXPECT_TRUE(found);
  }
}

}  // namespace

MODULE_CASE(hit_walk, rules_told_by_their_lead_agree_with_their_automata) {
  const char *const dirs[] = {"/",
                              "/a",
                              "/srv/abc",
                              "/srv/abcd",
                              "/srv/abc/deeper",
                              "/srv/projects/one/customer-00010",
                              "/srv/projects/two/customer-00010",
                              "/srv/projects/one/customer-00011",
                              "/a/directory/with/a/name/that/is/longer/than/most/others/are"};
  int id = 1;
  for (const char *dir : dirs) REQUIRE_EQ(install_rule(id++, dir), 0);
  REQUIRE_EQ(install_rule(id++, workdir_text().include(dirs[5]).include(dirs[7])), 0);
  REQUIRE_EQ(install_rule(id++, workdir_text().include("/srv/projects").exclude(dirs[5])), 0);
  REQUIRE_EQ(install_rule(id++, workdir_text().exclude("/srv/projects/one")), 0);
  REQUIRE_EQ(install_rule(id++, workdir_text()), 0);

  const char *const tails[] = {"", "/", "/file", "x", "x/file", "0/customer-00010"};
  char path[128];
  for (const char *dir : dirs) {
    const unsigned long len = strlen(dir);
    for (unsigned long cut = 0; cut <= len; ++cut) {
      memcpy(path, dir, cut);
      for (const char *tail : tails) {
        strcpy(path + cut, tail);
        expect_hits_as_matched(path);
      }
    }
  }
}

MODULE_CASE(hit_walk, a_lead_is_taken_only_where_every_included_path_has_it) {
  REQUIRE_EQ(install_rule(1, "/srv/projects"), 0);
  REQUIRE_EQ(install_rule(2, "/srv"), 0);
  REQUIRE_EQ(install_rule(3, workdir_text().include("/srv/projects").include("/home")), 0);
  REQUIRE_EQ(install_rule(4, workdir_text()), 0);
  const unsigned expected[] = {13, 0, 0, 0};
  for (int id = 1; id <= 4; ++id) {
    prule_ref rule(lookup_rule(id));
    REQUIRE_TRUE(rule.get() != nullptr);
    EXPECT_EQ(rule->lead_len, expected[id - 1]);
  }
}

MODULE_CASE(hit_walk, a_stopped_rule_is_hit_whatever_its_lead) {
  REQUIRE_EQ(install_rule(1, "/srv/projects"), 0);
  prule_ref rule(lookup_rule(1));
  REQUIRE_TRUE(rule.get() != nullptr);
  tarn_stop_rule(rule.get());
  struct hit_rules *hits;
  REQUIRE_EQ(tarn_get_hit_rule(&hits, "/home", nullptr), 1);
  prule_node_put(hits->arr[0]);
  kmem_cache_free(hit_rule_cache, hits);
}

MODULE_CASE(hit_walk, what_is_ahead_stays_in_the_list) {
  const int rules = 40;
  char dir[32];
  for (int id = 1; id <= rules; ++id) {
    snprintf(dir, sizeof(dir), "/srv/projects/%d", id);
    REQUIRE_EQ(install_rule(id, dir), 0);
  }
  expect_ahead_in_list();
  for (int id = 3; id <= rules; id += 3) EXPECT_EQ(remove_rule(id), 0);
  expect_ahead_in_list();
  for (int id = 20; id <= rules; ++id) remove_rule(id);
  expect_ahead_in_list();
  expect_hits_as_matched("/srv/projects/19/file");
  EXPECT_EQ(do_flush(0), 0);
  REQUIRE_EQ(install_rule(1, "/srv/projects/1"), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_TRUE(rule->ahead == nullptr);
}
