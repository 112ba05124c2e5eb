// SPDX-License-Identifier: GPL-2.0
// What a program without CAP_NET_ADMIN may not do, on the netlink channel and through the socket
// options; what it must be able to do; and that the capability is all it takes.
#include "dir_set.h"
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/log.h"
#include "tests/module/kit/programs.h"
#include "tests/module/kit/rules.h"
#include "rule_set.h"

namespace {

constexpr int kPeer = 2000;

/* The memory of the peer's calls. */
struct prule peer_memory;

}  // namespace

MODULE_CASE(privilege, every_message_of_a_plain_program_is_dropped_with_a_warning) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  other_program program(kPeer);
  acting_as it(program);
  test_daemon peer(test_daemon::kSilent);
  REQUIRE_EQ(peer.error(), 0);
  const int types[] = {OX_NL_HELO,      OX_NL_QUIT,    OX_NL_RESPONSE,
                       OX_SO_REP_ADD,   OX_SO_REP_DEL, OX_OP_WRITE,
                       OX_SO_REP_FLUSH, OX_OP_COLLECT, 102};
  int lines = log_length();
  for (int type : types) {
    const int id = type == OX_SO_REP_DEL ? 1 : 2;
    peer.send(type, rule_record(id, "L2E="), sizeof(struct prule));
    char expected[96];
    snprintf(expected, sizeof(expected),
             "Dropping netlink message of type [%d] from unprivileged process [%d]", type, kPeer);
    EXPECT_EQ(case_log_level(expected), 4);
    EXPECT_EQ(case_log_count(expected), 1);
    EXPECT_EQ(log_length(), ++lines); /* and that is all */
    EXPECT_EQ(daemon_pid, 1000u);
    EXPECT_EQ(get_prule_set()->rulenum, 1);
  }
  EXPECT_TRUE(peer.idle()); /* and none is answered */
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(privilege, what_is_no_message_is_corrupt_whoever_sent_it) {
  other_program program(kPeer);
  acting_as it(program);
  test_daemon peer(test_daemon::kSilent);
  peer.send_bytes("short", 5);
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 1);
}

MODULE_CASE(privilege, every_socket_option_is_refused_to_a_plain_program) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_directory(1, "/data"), 0);
  other_program program(kPeer);
  acting_as it(program);
  user_memory memory(&peer_memory, sizeof(peer_memory));
  const int lines = log_length();
  for (int code = 177; code <= 195; ++code) {
    memset(&peer_memory, 1, sizeof(peer_memory));
    peer_memory.workdir[OX_WORKDIR_LEN - 1] = '\0';
    if (code == 189) continue; /* between the two ranges: nobody's */
    /* The length that each would take. */
    const unsigned len = code < 189 ? sizeof(struct prule) : sizeof(struct dir);
    EXPECT_EQ(uk_setsockopt(PF_INET, code, &peer_memory, len), -EPERM);
  }
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  EXPECT_EQ(get_dir_set()->dirnum, 1);
  EXPECT_STREQ(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
  for (int code = 177; code <= 181; ++code) {
    const struct prule_info ask = {OX_INFO_COUNT, 1, {}};
    memcpy(&peer_memory, &ask, sizeof(ask));
    int len = sizeof(ask);
    EXPECT_EQ(uk_getsockopt(PF_INET, code, &peer_memory, &len), -EPERM);
    EXPECT_EQ(len, (int)sizeof(ask));
    EXPECT_EQ(memcmp(&peer_memory, &ask, sizeof(ask)), 0); /* nothing was shown */
  }
  EXPECT_EQ(log_length(), lines); /* and nothing logged, not even of the unknown codes */
}

MODULE_CASE(privilege, the_capability_is_all_it_takes) {
  other_program program(kPeer, 1u << CAP_NET_ADMIN);
  acting_as it(program);
  test_daemon peer;
  REQUIRE_EQ(peer.error(), 0);
  EXPECT_EQ(daemon_pid, (unsigned)kPeer);
  peer_memory = *rule_record(3, "L2E=");
  user_memory memory(&peer_memory, sizeof(peer_memory));
  EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_REP_ADD, &peer_memory, sizeof(peer_memory)), 0);
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  struct prule_info ask = {OX_INFO_COUNT, 0, {}};
  memcpy(&peer_memory, &ask, sizeof(ask));
  int len = sizeof(ask);
  EXPECT_EQ(uk_getsockopt(PF_INET, OX_SO_GET_INFO, &peer_memory, &len), 0);
  memcpy(&ask, &peer_memory, sizeof(ask));
  EXPECT_EQ(ask.rulenum, 1);
}

/* Everything but that one capability is not enough. */
MODULE_CASE(privilege, other_capabilities_do_not_help) {
  other_program program(kPeer, ~(1u << CAP_NET_ADMIN));
  acting_as it(program);
  test_daemon peer;
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_REP_FLUSH, nullptr, 0), -EPERM);
  EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_DIR_FLUSH, nullptr, 0), -EPERM);
}

/* What a plain program changes is captured and sent, and the daemon is signalled on its behalf. */
MODULE_CASE(privilege, the_changes_of_a_plain_program_are_captured) {
  struct task_struct *administrator = current;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  other_program program(kPeer);
  {
    test_daemon daemon;
    {
      acting_as it(program);
      EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
    }
    EXPECT_EQ(daemon.next().op(), OX_OP_UNLINK);
    daemon.close();
  }
  acting_as it(program);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_TRUE(case_logged("Send kill signal(58) to process(1000); rc = -111"));
  EXPECT_TRUE(sigismember(&administrator->pending.signal, OX_SIG_LOST));
}
