// SPDX-License-Identifier: GPL-2.0
// Every allocation of a start and a stop, of the rule requests and of each message to the daemon
// fails once. The builders of records: fault_capture_test.cc.
#include "tests/module/fault_driver.h"
#include "netlink.h"
#include "thread.h"
#include "rule_set.h"

namespace {

/* ---- start and stop ---- */

struct start_step {
  long result;
  const char *lines[8];
};

/* What a start prints that fails at one step after the other, and what its unwinding prints. */
constexpr struct start_step kStartSteps[] = {
    {-ENOMEM, {}}, /* one of the layer's caches */
    {-EIO,
     {"Register tarn filesystem success", "Failed to create netlink socket",
      "tarn_init_netlink fail"}},
    {OX_ERR_NOMEM,
     {"Register tarn filesystem success", "Create tarn_nl netlink socket success",
      "prule_init: kmem_cache_create error.", "prule_init fail",
      "tarn_release_netlink: release netlink socket"}},
    {OX_ERR_NOMEM,
     {"Register tarn filesystem success", "Create tarn_nl netlink socket success",
      "hit rule cache create error.", "prule_init fail",
      "tarn_release_netlink: release netlink socket"}},
    {OX_ERR_NOMEM,
     {"Register tarn filesystem success", "Create tarn_nl netlink socket success",
      "Register prule sockopt success", "dir_init: kmem_cache_create error.", "dir_init fail",
      "prule_exit: flush ruleset", "tarn_release_netlink: release netlink socket"}},
    {-ENOMEM,
     {"Register tarn filesystem success", "Create tarn_nl netlink socket success",
      "Register prule sockopt success", "Register dir sockopt success", "tarn_trans_init fail",
      "dir_exit: flush dirset", "prule_exit: flush ruleset",
      "tarn_release_netlink: release netlink socket"}},
};

constexpr const char *kStartAndStop[] = {
    "Register tarn filesystem success", "Create tarn_nl netlink socket success",
    "Register prule sockopt success",   "Register dir sockopt success",
    "tarn_trans_exit: flush g_transq",  "prule_exit: flush ruleset",
    "dir_exit: flush dirset",           "tarn_release_netlink: release netlink socket",
    "tarn_exit: unregister tarn system"};

/* The step at which a start failed, from 0; -1 for none of them. */
int failed_step(const struct fault_run &run) {
  for (unsigned i = 0; i < ARRAY_SIZE(kStartSteps); i++) {
    if (run.result == kStartSteps[i].result && log_is(run.log, kStartSteps[i].lines))
      return static_cast<int>(i);
  }
  return -1;
}

/* A thread that has ended gives its record back a little later. */
void wait_for_blocks(long before) {
  for (int i = 0; i < 5000 && blocks_out(nullptr) != before; i++) schedule_timeout_interruptible(1);
}

long start_and_stop() {
  const long before = blocks_out(nullptr);
  const long result = uk_module_load("tarn");
  if (result) return result;
  const int stopped = uk_module_unload("tarn");
  wait_for_blocks(before);
  return stopped;
}

/* A start with this socket option, or this unit, or this type, in somebody else's hands. */
long start_beside_options(int first) {
  struct nf_sockopt_ops taken;
  memset(&taken, 0, sizeof(taken));
  taken.pf = PF_INET;
  taken.set_optmin = first;
  taken.set_optmax = first + 1;
  EXPECT_EQ(nf_register_sockopt(&taken), 0);
  const long result = uk_module_load("tarn");
  nf_unregister_sockopt(&taken);
  return result;
}

long start_beside_type() {
  struct file_system_type other = {.name = "tarn"};
  EXPECT_EQ(register_filesystem(&other), 0);
  const long result = uk_module_load("tarn");
  unregister_filesystem(&other);
  return result;
}

long start_beside_channel() {
  struct sock *sk = netlink_kernel_create(OX_NETLINK_UNIT, 0, nullptr, THIS_MODULE);
  const long result = uk_module_load("tarn");
  if (sk) sock_release(sk->sk_socket);
  return result;
}

/* ---- rules ---- */

/* A rule record, and room for the answer to a list request of two rules, in user memory. */
class user_request {
 public:
  static constexpr unsigned size = 2 * sizeof(struct prule);
  struct prule *rule(char id, const char *workdir) {
    memset(memory_.get(), 0, size);
    memset(get()->uuid, id, sizeof(get()->uuid));
    strcpy(get()->workdir, workdir);
    return get();
  }
  struct prule *get() {
    return reinterpret_cast<struct prule *>(memory_.get());
  }
  struct prule_info *info(int op, int rulenum, char id) {
    auto *info = reinterpret_cast<struct prule_info *>(memory_.get());
    *info = {op, rulenum, {}};
    memset(info->uuid, id, sizeof(info->uuid));
    return info;
  }

 private:
  test_buffer memory_{size};
  user_memory user_{memory_.get(), size};
};

/* "/a", "/b/c", not "/a/b". */
constexpr char kWorkdir[] = "L2E=,L2IvYw==,!L2EvYg==";

bool rule_exists(int id) {
  return static_cast<bool>(prule_ref(lookup_rule(id)));
}

void expect_rule_matches(int id) {
  prule_ref rule(lookup_rule(id));
  REQUIRE_TRUE(rule);
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  EXPECT_EQ(match(&rule->path, "/a/x"), STATE_FINAL);
  EXPECT_EQ(match(&rule->path, "/a/b/x"), STATE_MISS);
}

constexpr char kAdd[] = "do_add: kmem_cache_zalloc rulenode_cachep err";
constexpr char kNoBuffer[] = "Failed to allocate socket buffer";

}  // namespace

CASE(fault_driver, every_failing_allocation_of_a_start_unwinds_the_steps_before_it) {
  int last = 0;
  unsigned seen = 0;
  fail_each([] {}, start_and_stop,
            [&](const struct fault_run &run) {
              EXPECT_EQ(run.blocks, 0);
              if (!run.failed) {
                EXPECT_EQ(run.result, 0);
                EXPECT_TRUE(log_is(run.log, kStartAndStop));
                return;
              }
              if (run.result == 0) { /* what failed can be done without, or was in the stop */
                EXPECT_TRUE(log_is(run.log, kStartAndStop));
              } else {
                const int step = failed_step(run);
                EXPECT_GE(step, last);
                if (step > last) last = step;
                if (step >= 0) seen |= 1u << step;
                EXPECT_LE(run.allocated, step == 5 ? 1 : 0);
              }
              /* As good as new. */
              const unsigned long long again = log_end();
              EXPECT_EQ(start_and_stop(), 0);
              EXPECT_TRUE(log_is(again, kStartAndStop));
            });
  EXPECT_EQ(seen, (1u << ARRAY_SIZE(kStartSteps)) - 1);
}

CASE(fault_driver, a_stop_needs_no_memory) {
  fail_each(
      [] {
        EXPECT_EQ(uk_module_load("tarn"), 0);
        EXPECT_EQ(install_rule(1, "/a"), 0);
        EXPECT_EQ(install_directory(1, "/a"), 0);
      },
      [] { return uk_module_unload("tarn"); },
      [](const struct fault_run &run) {
        EXPECT_FALSE(run.failed);
        EXPECT_EQ(run.result, 0);
        const char *const lines[] = {"tarn_trans_exit: flush g_transq",
                                     "prule_exit: flush ruleset",
                                     "dir_exit: flush dirset",
                                     "dir_flush: del dir 01010101-0101-0101-0101-010101010101.",
                                     "tarn_release_netlink: release netlink socket",
                                     "tarn_exit: unregister tarn system"};
        EXPECT_TRUE(log_is(run.log, lines));
      });
}

CASE(fault_driver, a_start_that_finds_its_place_taken_unwinds_the_steps_before_it) {
  unsigned long long log = log_end();
  EXPECT_EQ(start_beside_type(), -EBUSY);
  EXPECT_EQ(log_length(log), 0);
  EXPECT_EQ(start_and_stop(), 0);

  log = log_end();
  EXPECT_EQ(start_beside_channel(), -EIO);
  EXPECT_TRUE(log_is(log, kStartSteps[1].lines));
  EXPECT_EQ(start_and_stop(), 0);

  log = log_end();
  EXPECT_EQ(start_beside_options(OX_SO_RULE_SET_LAST), -EBUSY);
  constexpr const char *kRuleOptions[] = {"Register tarn filesystem success",
                                          "Create tarn_nl netlink socket success",
                                          "prule_init: register sockopt error!", "prule_init fail",
                                          "tarn_release_netlink: release netlink socket"};
  EXPECT_TRUE(log_is(log, kRuleOptions));
  REQUIRE_TRUE(hit_rule_cache != nullptr); /* which is left, and in the way of another start */
  kmem_cache_destroy(hit_rule_cache);
  EXPECT_EQ(start_and_stop(), 0);

  log = log_end();
  EXPECT_EQ(start_beside_options(OX_SO_DIR_SET_FIRST), -EBUSY);
  constexpr const char *kDirOptions[] = {"Register tarn filesystem success",
                                         "Create tarn_nl netlink socket success",
                                         "Register prule sockopt success",
                                         "dir_init: register sockopt error!",
                                         "dir_init fail",
                                         "prule_exit: flush ruleset",
                                         "tarn_release_netlink: release netlink socket"};
  EXPECT_TRUE(log_is(log, kDirOptions));
  EXPECT_EQ(start_and_stop(), 0);
  REQUIRE_EQ(uk_module_load("tarn"), 0);
  EXPECT_TRUE(case_logged("Register dir sockopt success"));
  EXPECT_EQ(uk_module_unload("tarn"), 0);
}

MODULE_CASE(fault_driver, every_failing_allocation_of_an_added_rule) {
  user_request request;
  int by_result[3] = {0, 0, 0}; /* no socket, no node, no pattern */
  const unsigned long faults = fail_each(
      [&] {
        remove_rule(1);
        request.rule(1, kWorkdir);
      },
      [&] { return uk_setsockopt(PF_INET, OX_SO_REP_ADD, request.get(), sizeof(struct prule)); },
      [&](const struct fault_run &run) {
        EXPECT_EQ(run.allocated, 0);
        if (!run.failed) {
          EXPECT_EQ(run.result, 0);
          expect_rule_matches(1);
          EXPECT_EQ(log_length(run.log), 0);
          return;
        }
        EXPECT_EQ(run.blocks, 0);
        EXPECT_FALSE(rule_exists(1));
        EXPECT_EQ(get_prule_set()->rulenum, 0);
        if (run.result == -ENOMEM) {
          by_result[0]++;
          EXPECT_EQ(log_length(run.log), 0);
        } else if (run.result == OX_ERR_NOMEM) {
          by_result[1]++;
          const char *const lines[] = {kAdd};
          EXPECT_TRUE(log_is(run.log, lines));
        } else {
          by_result[2]++;
          EXPECT_EQ(run.result, OX_ERR_PATTERN);
          const char *const lines[] = {"create reppath error!"};
          EXPECT_TRUE(log_is(run.log, lines));
        }
      });
  EXPECT_EQ(by_result[0], 1);
  EXPECT_EQ(by_result[1], 1);
  EXPECT_GE(by_result[2], 10);
  EXPECT_EQ(faults, static_cast<unsigned long>(by_result[0] + by_result[1] + by_result[2]));
  remove_rule(1);
}

/* Deleting, flushing, asking for the count, one rule or whether it exists: the socket of the call
 * is all they need. */
MODULE_CASE(fault_driver, requests_that_need_no_memory_of_their_own) {
  user_request request;
  REQUIRE_EQ(install_rule(2, "/kept"), 0);
  const auto prepare = [&] {
    if (!rule_exists(1)) EXPECT_EQ(install_rule(1, "/a"), 0);
    if (!rule_exists(2)) EXPECT_EQ(install_rule(2, "/kept"), 0);
  };
  const auto expect_whole = [&](const struct fault_run &run) {
    EXPECT_EQ(run.result, run.failed ? -ENOMEM : 0);
    EXPECT_EQ(log_length(run.log), 0);
    EXPECT_EQ(run.allocated, 0);
  };
  int len;
  EXPECT_EQ(fail_each(
                prepare,
                [&] {
                  return uk_setsockopt(PF_INET, OX_SO_REP_DEL, request.rule(1, ""),
                                       sizeof(struct prule));
                },
                [&](const struct fault_run &run) {
                  expect_whole(run);
                  EXPECT_EQ(rule_exists(1), run.failed);
                  EXPECT_TRUE(rule_exists(2));
                }),
            1ul);
  EXPECT_EQ(fail_each(
                prepare, [&] { return uk_setsockopt(PF_INET, OX_SO_REP_FLUSH, nullptr, 0); },
                [&](const struct fault_run &run) {
                  expect_whole(run);
                  EXPECT_EQ(get_prule_set()->rulenum, run.failed ? 2 : 0);
                }),
            1ul);
  EXPECT_EQ(fail_each(
                prepare,
                [&] {
                  len = sizeof(struct prule_info);
                  return uk_getsockopt(PF_INET, OX_SO_GET_RULE, request.info(0, 0, 2), &len);
                },
                [&](const struct fault_run &run) {
                  expect_whole(run);
                  EXPECT_EQ(len, run.failed ? 24 : 16016);
                }),
            1ul);
  const int ops[] = {OX_INFO_COUNT, OX_INFO_EXIST};
  for (const int op : ops) {
    EXPECT_EQ(fail_each(
                  prepare,
                  [&] {
                    len = sizeof(struct prule_info);
                    return uk_getsockopt(PF_INET, OX_SO_GET_INFO, request.info(op, 77, 2), &len);
                  },
                  [&](const struct fault_run &run) {
                    expect_whole(run);
                    const int answer = op == OX_INFO_COUNT ? 2 : 1;
                    EXPECT_EQ(reinterpret_cast<struct prule_info *>(request.get())->rulenum,
                              run.failed ? 77 : answer);
                  }),
              1ul);
  }
}

MODULE_CASE(fault_driver, every_failing_allocation_of_a_list) {
  user_request request;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  int len;
  const unsigned long faults =
      fail_each([] {},
                [&] {
                  len = sizeof(struct prule_info);
                  return uk_getsockopt(PF_INET, OX_SO_GET_RULES, request.info(0, 2, 0), &len);
                },
                [&](const struct fault_run &run) {
                  EXPECT_EQ(log_length(run.log), 0);
                  EXPECT_EQ(run.allocated, 0);
                  if (run.failed) {
                    EXPECT_EQ(run.result, run.n == 1 ? -ENOMEM : OX_ERR_NOMEM);
                    EXPECT_EQ(len, 24);
                    return;
                  }
                  EXPECT_EQ(run.result, 0);
                  EXPECT_EQ(len, 2 * 16016);
                  EXPECT_EQ(request.get()[1].uuid[0], 2);
                });
  EXPECT_EQ(faults, 2ul); /* the socket of the call, the array of references */
}

/* ---- messages ---- */

/* A rule message of the daemon: its own buffer, what the rule needs, the buffer of the answer. */
MODULE_CASE(fault_driver, every_failing_allocation_of_a_rule_message_and_its_answer) {
  struct message {
    struct nlmsghdr head;
    struct prule rule;
  };
  test_buffer memory(sizeof(message));
  auto *m = reinterpret_cast<message *>(memory.get());
  m->head = {};
  m->head.nlmsg_len = OX_NLMSG_HDRLEN + sizeof(struct prule);
  m->head.nlmsg_type = OX_SO_REP_ADD;
  memset(m->rule.uuid, 1, sizeof(m->rule.uuid));
  strcpy(m->rule.workdir, kWorkdir);
  test_daemon daemon;
  const unsigned port = daemon_pid;

  int unsent = 0, unmade = 0, unanswered = 0;
  fail_each([&] { remove_rule(1); }, [&] { return daemon.send_bytes(m, m->head.nlmsg_len); },
            [&](const struct fault_run &run) {
              EXPECT_EQ(daemon_pid, port);
              const test_message &answer = daemon.next();
              if (run.result < 0) { /* it never reached the kernel */
                unsent++;
                EXPECT_EQ(answer.received, -EAGAIN);
                EXPECT_FALSE(rule_exists(1));
                return;
              }
              EXPECT_EQ(run.result, static_cast<long>(m->head.nlmsg_len));
              if (log_count(run.log, kNoBuffer)) {
                unanswered++;
                const char *const lines[] = {kNoBuffer, "tarn_send_netlink OX_SO_REP_ADD fail"};
                EXPECT_TRUE(log_is(run.log, lines));
                EXPECT_EQ(answer.received, -EAGAIN);
                EXPECT_TRUE(rule_exists(1)); /* the request was served */
                return;
              }
              EXPECT_EQ(answer.received, OX_NLMSG_HDRLEN + static_cast<long>(sizeof(ox_s32_t)));
              EXPECT_EQ(answer.type(), OX_SO_REP_ADD);
              const ox_s32_t result = *answer.payload<ox_s32_t>();
              EXPECT_EQ(result == 0, rule_exists(1));
              if (result) {
                unmade++;
                const bool node = result == OX_ERR_NOMEM;
                EXPECT_TRUE(node || result == OX_ERR_PATTERN);
                const char *const lines[] = {node ? kAdd : "create reppath error!"};
                EXPECT_TRUE(log_is(run.log, lines));
              } else {
                EXPECT_EQ(log_length(run.log), 0);
              }
            });
  EXPECT_GE(unsent, 2);
  EXPECT_GE(unmade, 10);
  EXPECT_EQ(unanswered, 2); /* the buffer's head and its data */
}

MODULE_CASE(fault_driver, every_failing_allocation_of_a_record_and_of_a_notice) {
  test_daemon daemon;
  static char data[100];
  const auto check = [&](int type, long length) {
    return [&daemon, type, length](const struct fault_run &run) {
      EXPECT_EQ(run.allocated, 0);
      if (run.result == 0) { /* a buffer that cannot be made smaller is sent as it is */
        EXPECT_EQ(log_length(run.log), 0);
        const test_message &record = daemon.next();
        EXPECT_EQ(record.type(), type);
        EXPECT_EQ(record.length(), length);
      } else {
        EXPECT_EQ(run.result, -ENOMEM);
        EXPECT_EQ(run.blocks, 0);
        const char *const lines[] = {kNoBuffer};
        EXPECT_TRUE(log_is(run.log, lines));
      }
      EXPECT_TRUE(daemon.idle());
      EXPECT_NE(daemon_pid, 0u);
    };
  };
  EXPECT_GE(
      fail_each([] {}, [] { return tarn_send_netlink(data, sizeof(data), OX_OP_COLLECT, 0, 7); },
                check(OX_OP_COLLECT, sizeof(data))),
      2ul);
  uuid_t uuid;
  memset(uuid, 3, sizeof(uuid));
  EXPECT_GE(fail_each([] {}, [&uuid] { return tarn_send_stop_rule(uuid); },
                      check(OX_OP_STOP_RULE, OX_UUID_LEN)),
            2ul);
}

MODULE_CASE(fault_driver, a_page_is_sent_without_memory) {
  test_daemon daemon;
  struct sk_buff *page = nullptr;
  EXPECT_EQ(fail_each(
                [&page] {
                  page = alloc_skb(OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD, GFP_KERNEL);
                  memset(skb_put(page, OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD), 0,
                         OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD);
                },
                [&page] { return tarn_send_page(&page, OX_PAGE_PAYLOAD, OX_OP_WRITE, 2, 7); },
                [&](const struct fault_run &run) {
                  EXPECT_EQ(run.result, 0);
                  EXPECT_TRUE(page == nullptr);
                  EXPECT_EQ(daemon.next().type(), OX_OP_WRITE);
                }),
            0ul);
}
