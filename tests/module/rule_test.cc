// SPDX-License-Identifier: GPL-2.0
#include "rule_set.h"
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/programs.h"
#include "tests/module/kit/rules.h"
#include "ukern/testing/uk_fault.h"

namespace {

struct nf_sockopt_ops rival = {};

/* The caller's memory of the socket options, big enough for the records of a few rules. */
struct prule user_slots[4];

int get_option(int code, void *buffer, int *len) {
  return uk_getsockopt(PF_INET, code, buffer, len);
}
int set_option(int code, void *buffer, unsigned len) {
  return uk_setsockopt(PF_INET, code, buffer, len);
}

/* The list request with the caller's idea of the count; the length afterwards in *len. */
int list_rules(int count, int *len) {
  memset(user_slots, 0x55, sizeof(user_slots));
  struct prule_info info = {0, count, {}};
  memcpy(user_slots, &info, sizeof(info));
  *len = sizeof(info);
  return get_option(OX_SO_GET_RULES, user_slots, len);
}

int query(int op, int id, struct prule_info *info) {
  info->op = op;
  memset(info->uuid, id, sizeof(info->uuid));
  user_memory user(info, sizeof(*info));
  int len = sizeof(*info);
  return get_option(OX_SO_GET_INFO, info, &len);
}

/* What a thread does over and over until it is stopped. */
int repeat(void (*once)(struct prule *record, int round)) {
  kernel_ds_guard kernel_addresses;
  struct prule *record = static_cast<struct prule *>(kzalloc(sizeof(*record), GFP_KERNEL));
  for (int round = 0; record && !kthread_should_stop(); ++round) {
    memset(record->uuid, 1 + round % 7, sizeof(record->uuid));
    once(record, round);
  }
  kfree(record);
  return 0;
}

int adder(void *) {
  return repeat([](struct prule *record, int) {
    strcpy(record->workdir, "L2E=,L2I="); /* "/a", "/b" */
    do_add(record, sizeof(*record));
  });
}
int deleter(void *) {
  return repeat([](struct prule *record, int) { do_del(record, sizeof(*record)); });
}
int flusher(void *) {
  return repeat([](struct prule *, int) {
    do_flush(0);
    schedule_timeout_interruptible(1);
  });
}
int capturer(void *) {
  return repeat([](struct prule *, int) { tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0); });
}
int stopper(void *) {
  return repeat([](struct prule *record, int) {
    prule_ref rule(findnode_byuuid(record->uuid));
    if (rule) prule_stop(rule.get());
  });
}
int lister(void *) {
  return repeat([](struct prule *record, int round) {
    struct prule_info info = {OX_INFO_COUNT, round % 2, {}};
    memcpy(record, &info, sizeof(info));
    int len = sizeof(info);
    do_ox_get_ctl(nullptr, OX_SO_GET_RULES, record, &len);
  });
}

}  // namespace

MODULE_CASE(rule, an_added_rule_is_found_listed_and_deleted) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  REQUIRE_TRUE(rule);
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  EXPECT_EQ(rule->status, PRULE_ACTIVE);
  EXPECT_EQ(rule->mem_max, 1073741824);
  EXPECT_EQ(match(&rule->path, "/a/x"), STATE_FINAL);
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  EXPECT_EQ(remove_rule(1), 0);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  EXPECT_EQ(atomic_read(&rule->refcnt), 1); /* ours keeps it alive */
  EXPECT_EQ(remove_rule(1), OX_ERR_NOENT);
}

MODULE_CASE(rule, a_second_rule_of_one_uuid_is_refused_and_the_first_stays) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  REQUIRE_TRUE(rule);
  rule->status = PRULE_STOPPED;
  prule_node_get(rule.get());
  struct tarn_trans *waiting = tarn_var_alloc(rule.get(), OX_OP_CREATE, OX_MSG_PARA_LEN + 3);
  REQUIRE_TRUE(waiting != nullptr);
  list_add_tail(&waiting->list, &rule->transq);
  EXPECT_EQ(install_rule(1, "/b"), OX_ERR_EXIST);
  EXPECT_TRUE(rule->transq.next == &waiting->list); /* its queue is as it was */
  EXPECT_TRUE(rule->transq.prev == &waiting->list);
  list_del_init(&waiting->list);
  tarn_trans_free(waiting, 1);
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  prule_ref again(lookup_rule(1));
  EXPECT_TRUE(again.get() == rule.get());
  EXPECT_EQ(match(&rule->path, "/a"), STATE_FINAL);
  EXPECT_EQ(match(&rule->path, "/b"), STATE_MISS);
  EXPECT_EQ(rule->status, PRULE_STOPPED);
}

MODULE_CASE(rule, uuids_that_agree_up_to_a_zero_byte_are_one) {
  kernel_ds_guard kernel_addresses;
  struct prule *record = rule_record(0);
  record->uuid[0] = 9;
  record->uuid[5] = 1;
  REQUIRE_EQ(do_add(record, sizeof(*record)), 0);
  record->uuid[5] = 2;
  EXPECT_EQ(do_add(record, sizeof(*record)), OX_ERR_EXIST);
  uuid_t other = {9, 0, 7};
  prule_ref found(findnode_byuuid(other));
  EXPECT_TRUE(found);
  record->uuid[5] = 3;
  EXPECT_EQ(do_del(record, sizeof(*record)), 0);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
}

MODULE_CASE(rule, a_rule_that_is_added_anew_has_another_generation) {
  test_daemon daemon;
  ox_u32_t before = 0;
  for (int life = 0; life < 3; ++life) {
    REQUIRE_EQ(install_rule(1, "/a"), 0);
    EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
    const ox_u32_t first = daemon.next().para()->seq;
    EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/y", nullptr, 0), 0);
    EXPECT_EQ(daemon.next().para()->seq, first);
    EXPECT_NE(first, 0u);
    EXPECT_NE(first, before);
    before = first;
    EXPECT_EQ(remove_rule(1), 0);
  }
}

MODULE_CASE(rule, a_text_that_does_not_compile_changes_nothing) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  struct prule *record = rule_record(2);
  memset(record->workdir, 'A', sizeof(record->workdir)); /* no end */
  kernel_ds_guard kernel_addresses;
  EXPECT_EQ(do_add(record, sizeof(*record)), OX_ERR_PATTERN);
  EXPECT_TRUE(case_logged("create reppath error!"));
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  EXPECT_TRUE(findnode_byuuid(record->uuid) == nullptr);
}

MODULE_CASE(rule, without_memory_nothing_is_added) {
  workdir_text text;
  text.include("/a/b").include("/c");
  for (unsigned long n = 1;; ++n) {
    REQUIRE_TRUE(n < 200);
    uk_fault_arm(n);
    const int result = install_rule(1, text);
    uk_fault_arm(0);
    if (result == 0) break;
    EXPECT_EQ(result, n == 1 ? OX_ERR_NOMEM : OX_ERR_PATTERN);
    EXPECT_EQ(get_prule_set()->rulenum, 0);
  }
  EXPECT_EQ(case_log_count("do_add: kmem_cache_zalloc rulenode_cachep err"), 1);
  EXPECT_EQ(remove_rule(1), 0);
}

/* Too short or too long: what is behind the record makes it no better. */
MODULE_CASE(rule, records_of_a_wrong_length) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  const unsigned lengths[] = {0, 16, 16015, 16017, 2 * 16016};
  for (unsigned length : lengths) {
    memset(user_slots, 0, sizeof(user_slots));
    memcpy(user_slots, rule_record(2, "L2I="), sizeof(struct prule));
    EXPECT_EQ(set_option(OX_SO_REP_ADD, user_slots, length), OX_ERR_SIZE);
    char line[64];
    snprintf(line, sizeof(line), "do_add: size %u != 16016", length);
    EXPECT_EQ(case_log_count(line), 1);
    memcpy(user_slots, rule_record(1), sizeof(struct prule));
    EXPECT_EQ(set_option(OX_SO_REP_DEL, user_slots, length), OX_ERR_REQUEST);
    EXPECT_EQ(get_prule_set()->rulenum, 1);
  }
  prule_ref first(lookup_rule(1)), second(lookup_rule(2));
  EXPECT_TRUE(first);
  EXPECT_FALSE(second);
}

MODULE_CASE(rule, memory_that_is_not_the_callers) {
  struct prule *record = rule_record(1);
  EXPECT_EQ(do_add(record, sizeof(*record)), 16016);
  EXPECT_TRUE(case_logged("do_add: copy_from_user err, ret=16016, 16016"));
  EXPECT_EQ(do_del(record, sizeof(*record)), OX_UUID_LEN);
  user_memory half(record, 10000);
  EXPECT_EQ(do_add(record, sizeof(*record)), 6016);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
}

MODULE_CASE(rule, the_list_has_all_rules_in_the_order_they_were_added) {
  user_memory user(user_slots, sizeof(user_slots));
  int len;
  EXPECT_EQ(list_rules(0, &len), 0);
  EXPECT_EQ(len, 0);

  REQUIRE_EQ(install_rule(3, "/c"), 0);
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  EXPECT_EQ(list_rules(2, &len), 0);
  EXPECT_EQ(len, 2 * 16016);
  EXPECT_EQ(user_slots[0].uuid[0], 3);
  EXPECT_EQ(user_slots[1].uuid[0], 1);
  EXPECT_STREQ(user_slots[0].workdir, "L2M=");
  EXPECT_STREQ(user_slots[1].workdir, "L2E=");
  EXPECT_EQ(user_slots[2].uuid[0], 0x55);
}

MODULE_CASE(rule, a_list_request_with_a_stale_count_writes_nothing) {
  user_memory user(user_slots, sizeof(user_slots));
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  int len;
  const int counts[] = {0, 2, -1, 0x7FFFFFFF};
  for (int count : counts) {
    EXPECT_EQ(list_rules(count, &len), OX_ERR_COUNT);
    EXPECT_EQ(len, (int)sizeof(struct prule_info));
    EXPECT_EQ(user_slots[0].workdir[100], 0x55);
  }
}

MODULE_CASE(rule, a_list_request_of_a_wrong_length) {
  user_memory user(user_slots, sizeof(user_slots));
  const int lengths[] = {0, 23, 25, -1};
  for (int len : lengths) {
    int in_out = len;
    EXPECT_EQ(do_ox_get_ctl(nullptr, OX_SO_GET_RULES, user_slots, &in_out), OX_ERR_SIZE);
  }
}

MODULE_CASE(rule, a_list_into_too_little_memory_says_how_much_is_missing) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  user_memory user(user_slots, 20000);
  int len;
  EXPECT_EQ(list_rules(2, &len), 2 * 16016 - 20000);
  EXPECT_EQ(len, (int)sizeof(struct prule_info));
}

/* More rules than a block of the kernel's memory has references: room is made for as many as are
 * counted, and those that are there are listed. */
MODULE_CASE(rule, the_list_of_any_number_of_rules) {
  const int many = 20000;
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  get_prule_set()->rulenum = many;
  int len;
  EXPECT_EQ(list_rules(many, &len), 0);
  get_prule_set()->rulenum = 2;
  EXPECT_EQ(len, 2 * 16016);
  EXPECT_EQ(user_slots[0].uuid[0], 2);
  EXPECT_EQ(user_slots[1].uuid[0], 1);
}

/* A flush counts the rules off before it takes them off the list: a request that knows a count in
 * between gets that many, for there is room for no more. */
MODULE_CASE(rule, the_list_has_no_more_rules_than_were_counted) {
  for (int id = 1; id <= 3; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  for (int counted = 2; counted >= 0; --counted) {
    get_prule_set()->rulenum = counted;
    int len;
    EXPECT_EQ(list_rules(counted, &len), 0);
    EXPECT_EQ(len, counted * 16016);
    for (int i = 0; i < counted; ++i) EXPECT_EQ(user_slots[i].uuid[0], i + 1);
    EXPECT_EQ(user_slots[counted].workdir[100], 0x55);
    EXPECT_EQ(user_slots[3].uuid[0], 0x55);
  }
  get_prule_set()->rulenum = 3;
  for (int id = 1; id <= 3; ++id) {
    prule_ref rule(lookup_rule(id));
    REQUIRE_TRUE(rule);
    EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  }
}

MODULE_CASE(rule, the_list_goes_on_in_the_next_block) {
  const int many = 1025; /* in three blocks */
  static struct prule slots[many];
  struct prule *record = rule_record(1);
  for (int i = 0; i < many; ++i) {
    record->uuid[0] = static_cast<unsigned char>(1 + i % 255);
    record->uuid[1] = static_cast<unsigned char>(1 + i / 255);
    kernel_ds_guard kernel_addresses;
    REQUIRE_EQ(do_add(record, sizeof(*record)), 0);
  }
  user_memory user(slots, sizeof(slots));
  struct prule_info info = {0, many, {}};
  memcpy(slots, &info, sizeof(info));
  int len = sizeof(info);
  EXPECT_EQ(get_option(OX_SO_GET_RULES, slots, &len), 0);
  EXPECT_EQ(len, many * 16016);
  int wrong = 0;
  for (int i = 0; i < many; ++i)
    wrong += slots[i].uuid[0] != 1 + i % 255 || slots[i].uuid[1] != 1 + i / 255;
  EXPECT_EQ(wrong, 0);
}

MODULE_CASE(rule, the_list_without_memory) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  struct prule_info info = {0, 1, {}};
  memcpy(user_slots, &info, sizeof(info));
  int len = sizeof(info);
  uk_fault_arm(1);
  EXPECT_EQ(do_ox_get_ctl(nullptr, OX_SO_GET_RULES, user_slots, &len), OX_ERR_NOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(len, (int)sizeof(info));
}

MODULE_CASE(rule, one_rule_by_its_uuid) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  struct prule_info info = {0, 0, {}};
  memset(info.uuid, 1, sizeof(info.uuid));
  memcpy(user_slots, &info, sizeof(info));
  int len = sizeof(info);
  EXPECT_EQ(get_option(OX_SO_GET_RULE, user_slots, &len), 0);
  EXPECT_EQ(len, 16016);
  EXPECT_EQ(user_slots[0].uuid[15], 1);
  EXPECT_STREQ(user_slots[0].workdir, "L2E=");

  memset(info.uuid, 2, sizeof(info.uuid));
  memcpy(user_slots, &info, sizeof(info));
  len = sizeof(info);
  EXPECT_EQ(get_option(OX_SO_GET_RULE, user_slots, &len), OX_ERR_NOENT);
  len = 23;
  EXPECT_EQ(get_option(OX_SO_GET_RULE, user_slots, &len), OX_ERR_SIZE);
}

MODULE_CASE(rule, one_rule_into_too_little_memory_says_how_much_is_missing) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, 10000);
  struct prule_info info = {0, 0, {}};
  memset(info.uuid, 1, sizeof(info.uuid));
  memcpy(user_slots, &info, sizeof(info));
  int len = sizeof(info);
  EXPECT_EQ(get_option(OX_SO_GET_RULE, user_slots, &len), 6016);
  EXPECT_EQ(len, 16016);
}

MODULE_CASE(rule, the_count_and_whether_a_rule_exists) {
  struct prule_info info = {0, 77, {}};
  EXPECT_EQ(query(OX_INFO_COUNT, 0, &info), 0);
  EXPECT_EQ(info.rulenum, 0);
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  EXPECT_EQ(query(OX_INFO_COUNT, 0, &info), 0);
  EXPECT_EQ(info.rulenum, 1);
  info.rulenum = 77;
  EXPECT_EQ(query(OX_INFO_EXIST, 1, &info), 0);
  EXPECT_EQ(info.rulenum, 1);
}

MODULE_CASE(rule, the_question_for_an_absent_rule_leaves_the_callers_answer) {
  struct prule_info info = {0, 77, {}};
  EXPECT_EQ(query(OX_INFO_EXIST, 5, &info), 0);
  EXPECT_EQ(info.rulenum, 77);
}

/* Only the list wants the length exactly. */
MODULE_CASE(rule, a_longer_buffer_than_the_request_needs) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  user_memory user(user_slots, sizeof(user_slots));
  struct prule_info info = {OX_INFO_COUNT, 77, {}};
  const int lengths[] = {25, 16016, -1};
  for (int length : lengths) {
    memcpy(user_slots, &info, sizeof(info));
    int len = length;
    EXPECT_EQ(do_ox_get_ctl(nullptr, OX_SO_GET_INFO, user_slots, &len), 0);
    EXPECT_EQ(len, length);
    struct prule_info answer;
    memcpy(&answer, user_slots, sizeof(answer));
    EXPECT_EQ(answer.rulenum, 1);
  }
  memset(info.uuid, 1, sizeof(info.uuid));
  for (int length : lengths) {
    memcpy(user_slots, &info, sizeof(info));
    int len = length;
    EXPECT_EQ(do_ox_get_ctl(nullptr, OX_SO_GET_RULE, user_slots, &len), 0);
    EXPECT_EQ(len, 16016);
    EXPECT_STREQ(user_slots[0].workdir, "L2E=");
  }
}

MODULE_CASE(rule, information_that_does_not_exist) {
  struct prule_info info = {0, 77, {}};
  EXPECT_EQ(query(1, 0, &info), OX_ERR_SIZE);
  EXPECT_EQ(query(4, 0, &info), OX_ERR_SIZE);
  int len = 23;
  EXPECT_EQ(do_ox_get_ctl(nullptr, OX_SO_GET_INFO, &info, &len), OX_ERR_SIZE);
}

MODULE_CASE(rule, unknown_codes_are_logged) {
  char line[64];
  user_memory user(user_slots, sizeof(user_slots));
  for (int code = 180; code <= 181; ++code) {
    int len = 24;
    EXPECT_EQ(get_option(code, user_slots, &len), OX_ERR_REQUEST);
    snprintf(line, sizeof(line), "do_ox_get_ctl: unknown request %i", code);
    EXPECT_EQ(case_log_count(line), 1);
  }
  for (int code = 177; code <= 188; ++code) {
    if (code == 177 || code == 179 || code == 182) continue;
    EXPECT_EQ(set_option(code, user_slots, 24), OX_ERR_REQUEST);
    snprintf(line, sizeof(line), "do_ox_set_ctl: unknown request %i", code);
    EXPECT_EQ(case_log_count(line), 1);
  }
  int len = 24;
  EXPECT_EQ(get_option(182, user_slots, &len), -ENOPROTOOPT);
  EXPECT_EQ(get_option(176, user_slots, &len), -ENOPROTOOPT);
  EXPECT_EQ(set_option(189, user_slots, 24), -ENOPROTOOPT);
  EXPECT_EQ(set_option(176, user_slots, 24), -ENOPROTOOPT);
}

MODULE_CASE(rule, only_an_administrator_may_ask) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  struct prule *record = rule_record(2);
  user_memory user(record, sizeof(*record));
  without_capabilities plain;
  for (int code = 177; code <= 188; ++code) {
    EXPECT_EQ(set_option(code, record, sizeof(*record)), -EPERM);
  }
  for (int code = 177; code <= 181; ++code) {
    int len = 24;
    EXPECT_EQ(get_option(code, record, &len), -EPERM);
  }
  EXPECT_EQ(get_prule_set()->rulenum, 1);
}

MODULE_CASE(rule, a_flush_removes_all) {
  for (int id = 1; id <= 5; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  EXPECT_EQ(set_option(OX_SO_REP_FLUSH, nullptr, 0), 0);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  EXPECT_TRUE(lookup_rule(3) == nullptr);
  EXPECT_EQ(install_rule(3, "/a"), 0);
}

MODULE_CASE(rule, a_flush_does_not_wait_for_readers) {
  for (int id = 1; id <= 3; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  struct prule_set *set = get_prule_set();
  {
    read_guard reading(set->rwlock);
    struct prule_node *rule;
    int seen = 0;
    list_for_each_entry(rule, &set->head, list) {
      if (seen++ == 0) {
        EXPECT_EQ(do_flush(0), 0);
        EXPECT_EQ(set->rulenum, 0);
        EXPECT_TRUE(list_empty(&set->head));
        EXPECT_EQ(do_flush(0), 0); /* once more, with nothing left */
      }
      EXPECT_EQ(match(&rule->path, "/a"), STATE_FINAL); /* the walk goes on over what was there */
    }
    EXPECT_EQ(seen, 3);
  }
  REQUIRE_EQ(install_rule(1, "/b"), 0);
  EXPECT_EQ(set->rulenum, 1);
}

MODULE_CASE(rule, all_may_be_done_at_the_same_time) {
  int (*const bodies[])(void *) = {adder,    adder,    deleter, flusher,
                                   capturer, capturer, stopper, lister};
  struct task_struct *threads[ARRAY_SIZE(bodies)];
  for (unsigned i = 0; i < ARRAY_SIZE(bodies); ++i) {
    threads[i] = kthread_run(bodies[i], nullptr, "rule_%u", i);
    REQUIRE_TRUE(!IS_ERR(threads[i]));
  }
  set_current_state(TASK_UNINTERRUPTIBLE);
  schedule_timeout(300);
  for (struct task_struct *thread : threads) EXPECT_EQ(kthread_stop(thread), 0);
  do_flush(0);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  EXPECT_EQ(atomic_read(&g_option.mem_used), 0);
}

MODULE_CASE(rule, records_that_wait_are_freed_with_their_rule) {
  alloc_balance balance;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  {
    prule_ref rule(lookup_rule(1));
    REQUIRE_TRUE(rule);
    struct tarn_trans *trans = tarn_var_alloc(rule.get(), OX_OP_CREATE, OX_MSG_PARA_LEN + 3);
    REQUIRE_TRUE(trans != nullptr);
    list_add_tail(&trans->list, &rule->transq);
    EXPECT_EQ(balance(), 1);
    EXPECT_EQ(remove_rule(1), 0);
  }
  EXPECT_EQ(balance(), 0);
  EXPECT_EQ(atomic_read(&g_option.mem_used), 0);
  free_prulenode(nullptr);
}

CASE(rule, a_start_that_fails_says_at_what) {
  uk_fault_arm(1);
  EXPECT_EQ(prule_init(), OX_ERR_NOMEM);
  uk_fault_arm(0);
  EXPECT_TRUE(case_logged("prule_init: kmem_cache_create error."));
  EXPECT_TRUE(rulenode_cachep == nullptr);

  rival.pf = PF_INET;
  rival.set_optmin = 188;
  rival.set_optmax = 189;
  REQUIRE_EQ(nf_register_sockopt(&rival), 0);
  EXPECT_EQ(prule_init(), -EBUSY);
  EXPECT_TRUE(case_logged("prule_init: register sockopt error!"));
  EXPECT_TRUE(rulenode_cachep == nullptr);
  EXPECT_TRUE(hit_rule_cache != nullptr); /* stays */
  kmem_cache_destroy(hit_rule_cache);
  nf_unregister_sockopt(&rival);

  REQUIRE_EQ(prule_init(), 0);
  EXPECT_TRUE(case_logged("Register prule sockopt success"));
  EXPECT_STREQ(kmem_cache_name(rulenode_cachep), "rulenode_cachep");
  EXPECT_STREQ(kmem_cache_name(hit_rule_cache), "hit_rule_cache");
  prule_exit();
  EXPECT_TRUE(case_logged("prule_exit: flush ruleset"));
}

/* Messages come on their own socket, which outlives the set. */
CASE(rule, the_set_ends_beside_rule_messages) {
  int (*const bodies[])(void *) = {adder, adder, deleter, flusher};
  struct task_struct *threads[ARRAY_SIZE(bodies)];
  for (unsigned i = 0; i < ARRAY_SIZE(bodies); ++i) {
    threads[i] = kthread_run(bodies[i], nullptr, "rule_%u", i);
    REQUIRE_TRUE(!IS_ERR(threads[i]));
  }
  int added = 0;
  for (int round = 0; round < 60; ++round) {
    REQUIRE_EQ(prule_init(), 0);
    set_current_state(TASK_UNINTERRUPTIBLE);
    schedule_timeout(1);
    added += install_rule(100, "/a") == 0;
    prule_exit();
    EXPECT_EQ(get_prule_set()->rulenum, 0);
    EXPECT_EQ(install_rule(100, "/a"), OX_ERR_NOMEM);
  }
  EXPECT_GT(added, 0);
  for (struct task_struct *thread : threads) EXPECT_EQ(kthread_stop(thread), 0);
}

CASE(rule, without_a_set_nothing_is_found_or_added) {
  EXPECT_EQ(install_rule(1, "/a"), OX_ERR_NOMEM);
  EXPECT_EQ(remove_rule(1), OX_ERR_NOENT);
  EXPECT_EQ(do_flush(0), 0);
}
