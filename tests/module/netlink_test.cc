// SPDX-License-Identifier: GPL-2.0
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/log.h"
#include "tests/module/kit/programs.h"
#include "tests/module/kit/rules.h"
#include "ukern/testing/uk_fault.h"
#include "rule_set.h"

namespace {

/* Levels of log lines; one that has none is a warning. */
const int kError = 3, kWarning = 4, kPlain = 4;

/* Bytes in a datagram of their own, with whatever header they hold. */
struct raw_message {
  struct nlmsghdr head;
  char payload[64];
};

ox_s32_t reply_of(test_daemon &daemon, int type) {
  const test_message &m = daemon.next();
  if (m.type() != type || m.head()->nlmsg_len != OX_NLMSG_HDRLEN + 4u) return -1;
  if (m.head()->nlmsg_flags != 0 || m.head()->nlmsg_seq != 0) return -2;
  return *m.payload<ox_s32_t>();
}

bool signalled() {
  return sigismember(&current->pending.signal, OX_SIG_LOST);
}

}  // namespace

MODULE_CASE(netlink, without_a_daemon_changes_are_numbered_and_dropped) {
  test_daemon silent(test_daemon::kSilent);
  REQUIRE_EQ(install_rule(1, "/"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  EXPECT_TRUE(silent.idle());
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->transnr), 1);
  EXPECT_EQ(tarn_send_stop_rule(rule->rule.uuid), 0);
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_COLLECT fail"), 0);
}

MODULE_CASE(netlink, hello_and_quit) {
  EXPECT_EQ(case_log_level("Create tarn_nl netlink socket success"), kPlain);
  test_daemon daemon;
  REQUIRE_EQ(daemon.error(), 0);
  EXPECT_EQ(daemon_pid, (unsigned)current->pid);
  char line[64];
  snprintf(line, sizeof(line), "tarn_process_nl_helo: daemon_pid = %d", current->pid);
  EXPECT_TRUE(case_logged(line));
  daemon.send(OX_NL_QUIT);
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_TRUE(case_logged("tarn_process_nl_quit: daemon_pid = 0"));
  daemon.send(OX_NL_RESPONSE, "ignored", 8);
  EXPECT_TRUE(case_logged("tarn_process_nl_response"));
}

MODULE_CASE(netlink, a_new_hello_replaces_the_daemon) {
  test_daemon daemon;
  daemon_pid = 4711;
  daemon.send(OX_NL_HELO);
  EXPECT_EQ(daemon_pid, (unsigned)current->pid);
}

MODULE_CASE(netlink, a_daemon_that_is_gone_is_forgotten_and_signalled) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  test_daemon().close();
  EXPECT_EQ(daemon_pid, (unsigned)current->pid);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_TRUE(signalled());
  char line[160];
  snprintf(
      line, sizeof(line),
      "Failed send tarn netlink message to pid(%d); ret = -111, process not existed, back to 0",
      current->pid);
  EXPECT_EQ(case_log_level(line), kError);
  snprintf(line, sizeof(line), "Send kill signal(58) to process(%d); rc = -111", current->pid);
  EXPECT_EQ(case_log_level(line), kError);
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_COLLECT fail"), 0);
}

MODULE_CASE(netlink, a_slow_daemon_loses_records_and_stays) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  alloc_balance balance;
  {
    test_daemon daemon(test_daemon::kHello, 1); /* room for hardly a message */
    REQUIRE_EQ(daemon.error(), 0);
    const unsigned long start = jiffies;
    for (int i = 0; i < 1000 && !signalled(); ++i) {
      EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
    }
    EXPECT_TRUE(signalled());
    EXPECT_GE(jiffies - start, 1000ul - 5);
    EXPECT_EQ(daemon_pid, (unsigned)current->pid);
    EXPECT_TRUE(case_logged("tarn_send_netlink OX_OP_COLLECT fail"));
    char line[160];
    snprintf(line, sizeof(line), "Failed send tarn netlink message to pid(%d); ret = %d, back to 0",
             current->pid, -EAGAIN);
    EXPECT_EQ(case_log_level(line), kError);
    snprintf(line, sizeof(line), "Send kill signal(58) to process(%d); rc = %d", current->pid,
             -EAGAIN);
    EXPECT_EQ(case_log_level(line), kError);
    prule_ref rule(lookup_rule(1));
    EXPECT_EQ(tarn_send_stop_rule(rule->rule.uuid), -EMSGSIZE);
  }
  EXPECT_EQ(balance(), 0);
}

MODULE_CASE(netlink, the_signal_goes_to_the_daemon_and_not_to_the_sender) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  other_program program(2000, ~0u);
  {
    acting_as it(program);
    test_daemon daemon;
    EXPECT_EQ(daemon_pid, 2000u);
    daemon.close();
  }
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  EXPECT_TRUE(program.signalled());
  EXPECT_FALSE(signalled());
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_TRUE(
      case_logged("Failed send tarn netlink message to pid(2000); ret = -111, process not existed, "
                  "back to 0"));
  EXPECT_TRUE(case_logged("Send kill signal(58) to process(2000); rc = -111"));
}

/* The signal may be what makes it say hello again. */
MODULE_CASE(netlink, a_daemon_that_is_gone_is_forgotten_before_it_is_signalled) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  other_program program(2000, ~0u);
  unsigned registered = 4711;
  uk_task_set_signal_handler(
      program.get(),
      [](void *seen, int) {
        *static_cast<unsigned *>(seen) = ox_load(daemon_pid);
        return 0;
      },
      &registered);
  {
    acting_as it(program);
    test_daemon daemon;
    EXPECT_EQ(daemon_pid, 2000u);
    daemon.close();
  }
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  EXPECT_EQ(registered, 0u);
  uk_task_set_signal_handler(program.get(), nullptr, nullptr);
}

MODULE_CASE(netlink, a_notice_finds_the_daemon_gone) {
  uuid_t uuid = {1};
  test_daemon().close();
  EXPECT_EQ(tarn_send_stop_rule(uuid), 0);
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_TRUE(signalled());
}

/* The receiver makes room within the time: the sender has slept, and nothing is lost. */
MODULE_CASE(netlink, a_sender_waits_for_room_and_loses_nothing) {
  const int records = 60;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  test_daemon daemon(test_daemon::kHello, 1);
  REQUIRE_EQ(daemon.error(), 0);
  struct task_struct *sender = kthread_run(
      [](void *) {
        for (int i = 0; i < records; ++i) tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0);
        while (!kthread_should_stop()) schedule_timeout_interruptible(1);
        return 0;
      },
      nullptr, "sender");
  REQUIRE_TRUE(!IS_ERR(sender));
  set_current_state(TASK_UNINTERRUPTIBLE);
  schedule_timeout(50);
  {
    prule_ref rule(lookup_rule(1));
    EXPECT_LT(atomic_read(&rule->transnr), records); /* it waits */
  }
  for (int i = 1; i <= records; ++i) EXPECT_EQ(daemon.next(2000).msg()->wseq, (unsigned)i);
  EXPECT_EQ(kthread_stop(sender), 0);
  EXPECT_FALSE(signalled());
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_COLLECT fail"), 0);
}

namespace {

/* By which somebody ends a program, and some of the others. */
const int kEnding[] = {SIGTERM, SIGINT, SIGQUIT, SIGKILL};
const int kHarmless[] = {SIGALRM, SIGHUP, SIGUSR1, SIGCHLD};

/* A program that makes records and lets itself be signalled. */
struct signalled_sender {
  static constexpr int kRecords = 60;

  static int run(void *) {
    for (int sig : kEnding) allow_signal(sig);
    for (int sig : kHarmless) allow_signal(sig);
    for (int i = 0; i < kRecords; ++i) tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0);
    while (!kthread_should_stop()) {
      flush_signals(current);
      schedule_timeout_interruptible(1);
    }
    return 0;
  }

  /* Starts one that is sent the signal while it waits for room: its records' number stands still.
   */
  static struct task_struct *signalled_while_it_waits(int sig) {
    struct task_struct *sender = kthread_run(run, nullptr, "sender");
    if (IS_ERR(sender)) return sender;
    prule_ref rule(lookup_rule(1));
    int last = -1;
    while (atomic_read(&rule->transnr) != last) {
      last = atomic_read(&rule->transnr);
      schedule_timeout_uninterruptible(50);
    }
    EXPECT_LT(last, kRecords);
    EXPECT_EQ(send_sig(sig, sender, 1), 0);
    schedule_timeout_uninterruptible(20);
    return sender;
  }
};

}  // namespace

MODULE_CASE(netlink, a_timer_of_the_sender_loses_nothing) {
  for (int sig : kHarmless) {
    REQUIRE_EQ(install_rule(1, "/"), 0);
    test_daemon daemon(test_daemon::kHello, 1);
    REQUIRE_EQ(daemon.error(), 0);
    struct task_struct *sender = signalled_sender::signalled_while_it_waits(sig);
    REQUIRE_TRUE(!IS_ERR(sender));
    for (int i = 1; i <= signalled_sender::kRecords; ++i)
      EXPECT_EQ(daemon.next(2000).msg()->wseq, (unsigned)i);
    EXPECT_EQ(kthread_stop(sender), 0);
    EXPECT_EQ(remove_rule(1), 0);
  }
  EXPECT_FALSE(signalled());
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_COLLECT fail"), 0);
}

MODULE_CASE(netlink, who_ends_the_sender_ends_its_wait) {
  for (int sig : kEnding) {
    REQUIRE_EQ(install_rule(1, "/"), 0);
    test_daemon daemon(test_daemon::kHello, 1);
    REQUIRE_EQ(daemon.error(), 0);
    const int before = case_log_count("tarn_send_netlink OX_OP_COLLECT fail");
    struct task_struct *sender = signalled_sender::signalled_while_it_waits(sig);
    REQUIRE_TRUE(!IS_ERR(sender));
    for (int i = 0; i < 500 && case_log_count("tarn_send_netlink OX_OP_COLLECT fail") == before;
         ++i)
      schedule_timeout_uninterruptible(10);
    EXPECT_LT(before, case_log_count("tarn_send_netlink OX_OP_COLLECT fail"));
    while (!daemon.idle()) daemon.next(2000);
    EXPECT_EQ(kthread_stop(sender), 0);
    EXPECT_EQ(remove_rule(1), 0);
  }
}

/* A sender waits for the old daemon until that one is gone, while another has registered. */
MODULE_CASE(netlink, a_daemon_that_is_gone_does_not_take_the_next_one_along) {
  tarn_nl_sock->sk_sndtimeo = MAX_SCHEDULE_TIMEOUT;
  atomic_t sent = ATOMIC_INIT(0);
  struct task_struct *sender;
  other_program program(2000, ~0u);
  acting_as it(program);
  {
    test_daemon old(test_daemon::kHello, 1);
    REQUIRE_EQ(old.error(), 0);
    sender = kthread_run(
        [](void *count) {
          char byte = 0;
          while (ox_load(daemon_pid) == 2000) {
            EXPECT_EQ(tarn_send_netlink(&byte, 1, OX_OP_COLLECT, 0, 0), 0);
            atomic_inc(static_cast<atomic_t *>(count));
          }
          while (!kthread_should_stop()) schedule_timeout_interruptible(1);
          return 0;
        },
        &sent, "sender");
    REQUIRE_TRUE(!IS_ERR(sender));
    for (int before = -1; atomic_read(&sent) != before;) { /* until it is stuck */
      before = atomic_read(&sent);
      schedule_timeout_uninterruptible(50);
    }
    ox_store(daemon_pid, 2001u);
    old.close();
  }
  EXPECT_EQ(kthread_stop(sender), 0);
  EXPECT_TRUE(program.signalled());
  EXPECT_EQ(ox_load(daemon_pid), 2001u);
}

/* A full queue, for each kind of answer: the request is served, the answer is lost. */
MODULE_CASE(netlink, an_answer_that_is_lost_is_logged) {
  test_daemon daemon(test_daemon::kHello, 1);
  REQUIRE_EQ(daemon.error(), 0);
  char byte = 0;
  while (!signalled()) tarn_send_netlink(&byte, 1, OX_OP_COLLECT, 0, 0);
  daemon.send(OX_SO_REP_ADD, rule_record(1), sizeof(struct prule));
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_SO_REP_ADD fail"), 1);
  EXPECT_EQ(get_prule_set()->rulenum, 1);
  daemon.send(OX_SO_REP_FLUSH);
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_SO_REP_FLUSH fail"), 1);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  daemon.send(OX_SO_REP_DEL, rule_record(1), sizeof(struct prule));
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_SO_REP_DEL fail"), 1);
  EXPECT_EQ(daemon_pid, (unsigned)current->pid);
}

MODULE_CASE(netlink, a_second_hello_moves_the_channel_without_notice) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  test_daemon first;
  other_program program(2000, ~0u);
  {
    acting_as it(program);
    test_daemon second;
    REQUIRE_EQ(second.error(), 0);
    EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
    const test_message &m = second.next();
    EXPECT_EQ(m.type(), OX_OP_COLLECT);
    EXPECT_EQ(m.head()->nlmsg_pid, 2000u);
    EXPECT_TRUE(first.idle());
    second.send(OX_NL_HELO); /* the same once more changes nothing */
    EXPECT_EQ(daemon_pid, 2000u);
    second.close();
  }
  EXPECT_FALSE(signalled());
  first.send(OX_NL_QUIT); /* from whom does not matter */
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_FALSE(program.signalled());
}

MODULE_CASE(netlink, an_answer_is_twenty_bytes) {
  test_daemon daemon;
  const unsigned pid = static_cast<unsigned>(current->pid);
  static const struct {
    int type;
    unsigned len;
    ox_s32_t result;
  } requests[] = {{OX_SO_REP_ADD, 5, OX_ERR_SIZE},
                  {OX_SO_REP_DEL, 16016, OX_ERR_NOENT},
                  {OX_SO_REP_DEL, 0, OX_ERR_REQUEST},
                  {OX_SO_REP_FLUSH, 3, 0}};
  for (const auto &request : requests) {
    daemon.send(request.type, rule_record(9), request.len);
    const unsigned words[] = {20, static_cast<unsigned>(request.type), 0, pid,
                              static_cast<unsigned>(request.result)};
    const test_message &m = daemon.next();
    EXPECT_EQ(m.received, 20);
    EXPECT_EQ(memcmp(m.bytes, words, sizeof(words)), 0);
  }
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(netlink, a_message_is_as_long_as_its_header_says) {
  test_daemon daemon;
  static struct {
    struct nlmsghdr head;
    struct prule rule;
  } m;
  m.head.nlmsg_type = OX_SO_REP_ADD;
  m.head.nlmsg_len = OX_NLMSG_HDRLEN + 100;
  m.rule = *rule_record(1);
  daemon.send_bytes(&m, sizeof(m));
  EXPECT_TRUE(case_logged("do_add: size 100 != 16016"));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), OX_ERR_SIZE);
  m.head.nlmsg_len = sizeof(m) + 1; /* one byte more than there is */
  daemon.send_bytes(&m, sizeof(m));
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 1);
  m.head.nlmsg_len = sizeof(m);
  daemon.send_bytes(&m, sizeof(m) - 1);
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 2);
  EXPECT_TRUE(daemon.idle());
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  daemon.send_bytes(&m, sizeof(m));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), 0);
}

/* The callback is called with a message in the queue; without one there is an error to report. */
MODULE_CASE(netlink, nothing_to_receive_is_an_error) {
  tarn_nl_sock->sk_rcvtimeo = 1;
  tarn_receive_nl_message(tarn_nl_sock, 0);
  EXPECT_EQ(case_log_level("Error occurred while receiving tarn netlink message; rc = [-11]"),
            kError);
}

namespace {

/* Waits for a message with a signal that does not go away. */
int receive_interrupted(void *done) {
  {
    spin_irq_guard guard(current->sighand->siglock);
    sigemptyset(&current->blocked);
    recalc_sigpending();
  }
  EXPECT_EQ(send_sig(SIGUSR1, current, 1), 0);
  tarn_receive_nl_message(tarn_nl_sock, 0);
  complete(static_cast<struct completion *>(done));
  return 0;
}

}  // namespace

/* A signal is no reason to leave a message behind: the wait for it begins anew. */
MODULE_CASE(netlink, an_interrupted_receipt_is_repeated) {
  test_daemon daemon(test_daemon::kSilent);
  tarn_nl_sock->sk_rcvtimeo = 100;
  struct completion done;
  init_completion(&done);
  REQUIRE_TRUE(!IS_ERR(kthread_run(receive_interrupted, &done, "receiver")));
  REQUIRE_EQ(ox_complete_timedwait(&done, 50), -ETIMEDOUT);
  /* What is sent is taken by the one that waits or by the sender's own call. */
  do {
    daemon.send(OX_NL_RESPONSE);
  } while (ox_complete_timedwait(&done, 1));
  EXPECT_EQ(case_log_count("Error occurred while receiving tarn netlink message; rc = [-4]"), 0);
}

MODULE_CASE(netlink, corrupt_messages_are_dropped) {
  test_daemon daemon(test_daemon::kSilent);
  raw_message m = {};
  m.head.nlmsg_type = OX_NL_HELO;
  m.head.nlmsg_len = 15;
  daemon.send_bytes(&m, sizeof(m));
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 1);
  EXPECT_EQ(case_log_level("Received corrupt netlink message"), kError);
  m.head.nlmsg_len = sizeof(m) + 1;
  daemon.send_bytes(&m, sizeof(m));
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 2);
  m.head.nlmsg_len = 0;
  daemon.send_bytes(&m, sizeof(m));
  m.head.nlmsg_len = 0xFFFFFFFF;
  daemon.send_bytes(&m, sizeof(m));
  m.head.nlmsg_len = 16;
  daemon.send_bytes(&m, 15);
  EXPECT_EQ(case_log_count("Received corrupt netlink message"), 5);
  EXPECT_EQ(daemon_pid, 0u);
  daemon.send_bytes(&m, 16);
  EXPECT_EQ(daemon_pid, (unsigned)current->pid);
}

MODULE_CASE(netlink, unknown_types_are_logged_and_our_own_are_not) {
  test_daemon daemon(test_daemon::kSilent);
  daemon.send(102);
  EXPECT_EQ(case_log_count("Dropping netlink message of unrecognized type [102]"), 1);
  EXPECT_EQ(case_log_level("Dropping netlink message of unrecognized type [102]"), kWarning);
  daemon.send(11);
  EXPECT_EQ(case_log_count("Dropping netlink message of unrecognized type [11]"), 1);
  const int lines = log_length();
  daemon.send(OX_OP_WRITE);
  daemon.send(OX_OP_COLLECT);
  EXPECT_EQ(log_length(), lines);
  EXPECT_EQ(case_log_count("Dropping netlink message of unrecognized type [9]"), 0);
  EXPECT_EQ(case_log_count("Dropping netlink message of unrecognized type [10]"), 0);
}

MODULE_CASE(netlink, only_an_administrator_may_register) {
  test_daemon daemon(test_daemon::kSilent);
  {
    without_capabilities plain;
    daemon.send(OX_NL_HELO);
  }
  EXPECT_EQ(daemon_pid, 0u);
  char line[128];
  snprintf(line, sizeof(line),
           "Dropping netlink message of type [100] from unprivileged process [%d]", current->pid);
  EXPECT_TRUE(case_logged(line));
}

MODULE_CASE(netlink, rules_are_added_deleted_and_flushed_with_an_answer) {
  test_daemon daemon;
  workdir_text text;
  text.include("/a");
  const struct prule *record = rule_record(1, text.get());
  daemon.send(OX_SO_REP_ADD, record, sizeof(*record));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), 0);
  daemon.send(OX_SO_REP_ADD, record, sizeof(*record));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), OX_ERR_EXIST);
  daemon.send(OX_SO_REP_ADD, record, 100);
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), OX_ERR_SIZE);
  {
    prule_ref rule(lookup_rule(1));
    REQUIRE_TRUE(rule);
    EXPECT_EQ(match(&rule->path, "/a/x"), STATE_FINAL);
  }
  daemon.send(OX_SO_REP_DEL, rule_record(1), sizeof(*record));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_DEL), 0);
  daemon.send(OX_SO_REP_DEL, rule_record(1), sizeof(*record));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_DEL), OX_ERR_NOENT);
  daemon.send(OX_SO_REP_DEL);
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_DEL), OX_ERR_REQUEST);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  daemon.send(OX_SO_REP_FLUSH);
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_FLUSH), 0);
  EXPECT_EQ(get_prule_set()->rulenum, 0);
}

/* Too short or too long, each request has its own code for it. */
MODULE_CASE(netlink, rules_of_a_wrong_length_change_nothing) {
  static char payload[2 * sizeof(struct prule)];
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  const unsigned lengths[] = {0, 16, 16015, 16017, 16020, 20000};
  for (unsigned length : lengths) {
    memset(payload, 0, sizeof(payload));
    memcpy(payload, rule_record(2, "L2I="), sizeof(struct prule));
    daemon.send(OX_SO_REP_ADD, payload, length);
    EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), OX_ERR_SIZE);
    char line[64];
    snprintf(line, sizeof(line), "do_add: size %u != 16016", length);
    EXPECT_EQ(case_log_count(line), 1);
    memcpy(payload, rule_record(1), sizeof(struct prule));
    daemon.send(OX_SO_REP_DEL, payload, length);
    EXPECT_EQ(reply_of(daemon, OX_SO_REP_DEL), OX_ERR_REQUEST);
  }
  EXPECT_TRUE(daemon.idle());
  prule_ref first(lookup_rule(1)), second(lookup_rule(2));
  EXPECT_TRUE(first);
  EXPECT_FALSE(second);
  EXPECT_EQ(get_prule_set()->rulenum, 1);
}

MODULE_CASE(netlink, the_senders_address_limit_stays) {
  test_daemon daemon;
  const mm_segment_t before = get_fs();
  daemon.send(OX_SO_REP_ADD, rule_record(1), sizeof(struct prule));
  EXPECT_TRUE(segment_eq(get_fs(), before));
  EXPECT_EQ(reply_of(daemon, OX_SO_REP_ADD), 0);
}

MODULE_CASE(netlink, a_message_without_memory) {
  test_daemon daemon;
  uk_fault_arm(1);
  EXPECT_EQ(tarn_send_netlink(const_cast<char *>("data"), 4, OX_OP_COLLECT, 0, 1), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(case_log_count("Failed to allocate socket buffer"), 1);
  EXPECT_EQ(case_log_level("Failed to allocate socket buffer"), kError);
  uuid_t uuid = {};
  uk_fault_arm(1);
  EXPECT_EQ(tarn_send_stop_rule(uuid), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(case_log_count("Failed to allocate socket buffer"), 2);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(netlink, an_empty_payload_is_a_header) {
  test_daemon daemon;
  EXPECT_EQ(tarn_send_netlink(nullptr, 77, OX_OP_COLLECT, 5, 9), 0);
  const test_message &m = daemon.next();
  EXPECT_EQ(m.received, 16);
  EXPECT_EQ(m.head()->nlmsg_len, 16u);
  EXPECT_EQ(m.head()->nlmsg_flags, 5);
  EXPECT_EQ(m.head()->nlmsg_seq, 9u);
  EXPECT_EQ(tarn_send_netlink(const_cast<char *>("x"), 0, OX_OP_COLLECT, 0, 9), 0);
  EXPECT_EQ(daemon.next().received, 16);
}

MODULE_CASE(netlink, the_socket_waits_a_second) {
  EXPECT_EQ(tarn_nl_sock->sk_sndtimeo, 1000);
}

CASE(netlink, a_unit_that_is_taken) {
  struct sock *rival = netlink_kernel_create(OX_NETLINK_UNIT, 0, nullptr, THIS_MODULE);
  REQUIRE_TRUE(rival != nullptr);
  EXPECT_EQ(tarn_init_netlink(), -EIO);
  EXPECT_EQ(case_log_level("Failed to create netlink socket"), kError);
  sock_release(rival->sk_socket);
  REQUIRE_EQ(tarn_init_netlink(), 0);
  tarn_release_netlink();
  EXPECT_TRUE(case_logged("tarn_release_netlink: release netlink socket"));
  EXPECT_TRUE(tarn_nl_sock == nullptr);
}
