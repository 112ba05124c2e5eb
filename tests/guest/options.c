/* SPDX-License-Identifier: GPL-2.0 */
/* The rule and directory sets through the kernel's own socket options. */
#define _GNU_SOURCE
#include <errno.h>
#include <string.h>

#include "channel.h"
#include "guest.h"

static int rule_count(void) {
  struct prule_info info = {.op = OX_INFO_COUNT, .rulenum = -7};
  unsigned size = sizeof(info);

  EXPECT_EQ(get_option(OX_SO_GET_INFO, &info, &size), 0);
  return info.rulenum;
}

static int rule_exists(unsigned char id) {
  struct prule_info info = {.op = OX_INFO_EXIST, .rulenum = 0};
  unsigned size = sizeof(info);

  memset(info.uuid, id, sizeof(info.uuid));
  EXPECT_EQ(get_option(OX_SO_GET_INFO, &info, &size), 0);
  return info.rulenum;
}

static int delete_rule(unsigned char id) {
  static struct prule rule;

  memset(rule.uuid, id, sizeof(rule.uuid));
  return set_option(OX_SO_REP_DEL, &rule, sizeof(rule));
}

static void rules_are_added_found_and_deleted(void) {
  EXPECT_EQ(rule_count(), 0);
  EXPECT_EQ(add_rule(1, "/lower/a"), 0);
  EXPECT_EQ(add_rule(2, "/lower/b"), 0);
  EXPECT_EQ(rule_count(), 2);
  EXPECT_EQ(rule_exists(2), 1);
  EXPECT_EQ(add_rule(2, "/lower/c"), OX_ERR_EXIST);
  EXPECT_EQ(delete_rule(2), 0);
  EXPECT_EQ(delete_rule(2), OX_ERR_NOENT);
  EXPECT_EQ(rule_exists(2), 0);
  EXPECT_EQ(rule_count(), 1);
  EXPECT_EQ(set_option(OX_SO_REP_FLUSH, NULL, 0), 0);
  EXPECT_EQ(rule_count(), 0);
}

static void rules_are_listed_as_they_were_given(void) {
  static struct prule given[3], seen[3];
  struct prule_info info = {.rulenum = 3};
  unsigned size = sizeof(info);

  for (int i = 0; i < 3; i++) {
    make_rule(&given[i], (unsigned char)(i + 1), i == 1 ? "/lower/a directory" : "/lower");
    EXPECT_EQ(set_option(OX_SO_REP_ADD, &given[i], sizeof(given[i])), 0);
  }
  memcpy(seen, &info, sizeof(info));
  EXPECT_EQ(get_option(OX_SO_GET_RULES, seen, &size), 0);
  EXPECT(memcmp(given, seen, sizeof(given)) == 0);
  memset(seen, 0, sizeof(seen));
  memcpy(info.uuid, given[1].uuid, sizeof(info.uuid));
  memcpy(seen, &info, sizeof(info));
  size = sizeof(seen[0]);
  EXPECT_EQ(get_option(OX_SO_GET_RULE, seen, &size), 0);
  EXPECT(memcmp(&given[1], seen, sizeof(given[1])) == 0);
}

static void wrong_requests_are_refused(void) {
  static struct prule rule;
  struct prule_info info = {.op = 99};
  unsigned size = sizeof(info);

  EXPECT_EQ(set_option(OX_SO_REP_ADD, &rule, sizeof(rule) - 1), OX_ERR_SIZE);
  EXPECT_EQ(set_option(OX_SO_REP_DEL, &rule, sizeof(rule) - 1), OX_ERR_REQUEST);
  EXPECT_EQ(set_option(OX_SO_RULE_SET_LAST, &rule, sizeof(rule)), OX_ERR_REQUEST);
  EXPECT_EQ(get_option(OX_SO_GET_INFO, &info, &size), OX_ERR_SIZE);
  EXPECT_EQ(set_option(OX_SO_REP_ADD, (void *)8, sizeof(rule)), (int)sizeof(rule));
  EXPECT_EQ(set_option(OX_SO_RULE_SET_LAST + 1, &rule, sizeof(rule)), -ENOPROTOOPT);
  EXPECT_EQ(rule_count(), 0);
}

static void directories_are_added_and_deleted(void) {
  struct dir dir;

  memset(&dir, 0, sizeof(dir));
  memset(dir.uuid, 1, sizeof(dir.uuid));
  EXPECT_EQ(add_directory(1, "/lower/a"), 0);
  EXPECT_EQ(add_directory(1, "/lower/b"), OX_ERR_EXIST);
  EXPECT_EQ(set_option(OX_SO_DIR_DEL, &dir, sizeof(dir)), 0);
  EXPECT_EQ(set_option(OX_SO_DIR_DEL, &dir, sizeof(dir)), OX_ERR_NOENT);
  EXPECT_EQ(add_directory(1, "/lower/b"), 0);
  EXPECT_EQ(set_option(OX_SO_DIR_FLUSH, NULL, 0), 0);
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, "/mirrord", 9), 9);
}

static int as_a_user(void) {
  struct prule_info info = {.op = OX_INFO_COUNT};
  unsigned size = sizeof(info);

  become_user();
  EXPECT_EQ(add_rule(1, "/lower"), -EPERM);
  EXPECT_EQ(add_directory(1, "/lower"), -EPERM);
  EXPECT_EQ(set_option(OX_SO_REP_FLUSH, NULL, 0), -EPERM);
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, "/x", 3), -EPERM);
  EXPECT_EQ(get_option(OX_SO_GET_INFO, &info, &size), -EPERM);
  guest_end();
}

static void users_may_not_ask(void) {
  EXPECT_EQ(in_process(as_a_user), 0);
  EXPECT_EQ(rule_count(), 0);
}

int main(void) {
  static const struct guest_case cases[] = {
      {"rules_are_added_found_and_deleted", GUEST_LOADED, rules_are_added_found_and_deleted},
      {"rules_are_listed_as_they_were_given", GUEST_LOADED, rules_are_listed_as_they_were_given},
      {"wrong_requests_are_refused", GUEST_LOADED, wrong_requests_are_refused},
      {"directories_are_added_and_deleted", GUEST_LOADED, directories_are_added_and_deleted},
      {"users_may_not_ask", GUEST_LOADED, users_may_not_ask},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("options", cases);
}
