// SPDX-License-Identifier: GPL-2.0
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/testing/uk_fault.h"
#include "thread.h"

namespace {

char data[9000];

/* A creation that is committed but not yet sent, with a reference on its rule. */
struct tarn_trans *whole_record(struct prule_node *rule) {
  prule_node_get(rule);
  struct tarn_trans *trans = tarn_var_alloc(rule, OX_OP_CREATE, OX_MSG_PARA_LEN + 3);
  if (trans) memcpy(trans_para(trans)->data, "/x", 3);
  return trans;
}

}  // namespace

MODULE_CASE(thread, without_a_daemon_a_record_is_freed) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  prule_ref rule(lookup_rule(1));
  alloc_balance balance;
  struct tarn_trans *trans = whole_record(rule.get());
  REQUIRE_TRUE(trans != nullptr);
  EXPECT_EQ(trans_send(trans), 0);
  EXPECT_EQ(balance(), 0);
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  EXPECT_EQ(atomic_read(&rule->mem_used), 0);
}

MODULE_CASE(thread, a_record_carries_its_number_twice) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  prule_ref rule(lookup_rule(1));
  struct tarn_trans *trans = whole_record(rule.get());
  REQUIRE_TRUE(trans != nullptr);
  trans->seq = 77;
  EXPECT_EQ(trans_send(trans), 0);
  const test_message &m = daemon.next();
  EXPECT_EQ(m.head()->nlmsg_seq, 77u);
  EXPECT_EQ(m.msg()->wseq, 77u);
}

MODULE_CASE(thread, a_write_of_three_pages_sends_three_lengths) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/f");
  prule_ref rule(lookup_rule(1));
  atomic_set(&rule->transnr, 41);
  kernel_ds_guard kernel_addresses;
  EXPECT_EQ(tarn_write_sync(file.get(), data, 9000, 0), 0);
  const unsigned last = 9000 - (OX_PAGE_DATA - 8) - OX_PAGE_DATA;
  const unsigned expected[] = {4096, 4096, last + OX_MSG_WR_LEN};
  for (unsigned len : expected) {
    const test_message &m = daemon.next();
    EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + len);
    EXPECT_EQ(m.head()->nlmsg_seq, 42u);
    EXPECT_EQ(m.wr()->wseq, 42u);
  }
}

MODULE_CASE(thread, a_lost_page_ends_the_write) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/f");
  alloc_balance balance;
  {
    test_daemon daemon(test_daemon::kHello, 1);
    kernel_ds_guard kernel_addresses;
    EXPECT_EQ(tarn_write_sync(file.get(), data, 9000, 0), 0);
    EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_WRITE page fail"), 1);
    /* What came before it is there, the rest of it is not. */
    EXPECT_LT(daemon.drain(), 3);
  }
  EXPECT_EQ(balance(), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->mem_used), 0);
}

MODULE_CASE(thread, a_daemon_that_leaves_between_pages) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/f");
  alloc_balance balance;
  test_daemon().close();
  /* The first page finds the port gone, the others no daemon: all are given back. */
  kernel_ds_guard kernel_addresses;
  EXPECT_EQ(tarn_write_sync(file.get(), data, 9000, 0), 0);
  EXPECT_EQ(daemon_pid, 0u);
  EXPECT_EQ(case_log_count("tarn_send_netlink OX_OP_WRITE page fail"), 0);
  EXPECT_EQ(balance(), 0);
}

MODULE_CASE(thread, the_thread_ends_when_the_module_stops) {
  const unsigned long start = jiffies;
  EXPECT_EQ(tarn_stop_threads(), 0);
  EXPECT_LT(jiffies - start, (unsigned long)g_trans_timeout);
  EXPECT_TRUE(case_logged("tarn_thd_trans: start"));
  EXPECT_TRUE(case_logged("tarn_thd_trans: recv stop event"));
  EXPECT_TRUE(case_logged("tarn_thd_trans: stop"));
  EXPECT_EQ(tarn_stop_threads(), 0); /* nothing is left to stop */
}

MODULE_CASE(thread, there_is_one_of_that_name_and_it_looks_every_ten_seconds) {
  EXPECT_EQ(g_trans_timeout, 10000u);
  struct task_struct *later = kthread_run(
      [](void *) {
        while (!kthread_should_stop()) schedule_timeout_interruptible(1);
        return 0;
      },
      nullptr, "later");
  REQUIRE_TRUE(!IS_ERR(later));
  int found = 0;
  {
    read_guard guard(tasklist_lock);
    for (int pid = later->pid; pid > later->pid - 1000; --pid) {
      const struct task_struct *task = find_task_by_pid(pid);
      if (task) found += strcmp(task->comm, "tarn_trans") == 0;
    }
  }
  EXPECT_EQ(found, 1);
  kthread_stop(later);
}

MODULE_CASE(thread, a_rule_with_waiting_records_stays_on_the_queue) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  struct tarn_trans *first = whole_record(rule.get());
  struct tarn_trans *second = whole_record(rule.get());
  REQUIRE_TRUE(first != nullptr && second != nullptr);
  {
    spin_guard guard(rule->node_lock);
    list_add_tail(&first->list, &rule->transq);
    list_add_tail(&second->list, &rule->transq);
  }
  EXPECT_EQ(tarn_transq_submit(rule.get()), 0);
  set_current_state(TASK_UNINTERRUPTIBLE);
  schedule_timeout(30);
  EXPECT_EQ(tarn_stop_threads(), 0);
  /* In their order, and once on the queue with one reference. */
  EXPECT_TRUE(rule->transq.next == &first->list);
  EXPECT_TRUE(first->list.next == &second->list);
  EXPECT_FALSE(list_empty(&rule->aux_list));
  EXPECT_EQ(atomic_read(&rule->refcnt), 5);
  list_del_init(&rule->aux_list);
  prule_node_put(rule.get());
  list_del_init(&first->list);
  list_del_init(&second->list);
  tarn_trans_free(first, 1);
  tarn_trans_free(second, 1);
}

MODULE_CASE(thread, a_write_of_an_unknown_type_is_a_bug) {
  EXPECT_REPORT(
      [] {
        alignas(8) static char memory[TARN_TRANS_FIELDS + OX_MSG_WR_LEN];
        auto *trans = reinterpret_cast<struct tarn_trans *>(memory);
        trans->msg.op = OX_OP_WRITE;
        trans_wr(trans)->type = 3;
        trans_send(trans);
      },
      "BUG");
}

MODULE_CASE(thread, a_rule_is_on_the_queue_once) {
  EXPECT_EQ(tarn_stop_threads(), 0);
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/a"), 0);
  prule_ref first(lookup_rule(1)), second(lookup_rule(2));
  EXPECT_EQ(tarn_transq_submit(first.get()), 0);
  EXPECT_EQ(tarn_transq_submit(second.get()), 0);
  EXPECT_EQ(tarn_transq_submit(first.get()), 0);
  EXPECT_EQ(atomic_read(&first->refcnt), 3);
  EXPECT_TRUE(g_transq.head.next == &first->aux_list); /* at the end, each */
  EXPECT_TRUE(g_transq.head.prev == &second->aux_list);
  EXPECT_EQ(g_transq.nr, 0u);
  list_del_init(&first->aux_list);
  list_del_init(&second->aux_list);
  prule_node_put(first.get());
  prule_node_put(second.get());
}

CASE(thread, a_start_that_fails_leaves_no_thread) {
  alloc_balance balance;
  int failures = 0;
  for (unsigned long n = 1;; ++n) {
    REQUIRE_TRUE(n < 50);
    uk_fault_arm(n);
    const int result = tarn_trans_init();
    uk_fault_arm(0);
    if (result == 0) break;
    ++failures;
    EXPECT_LT(result, 0);
  }
  EXPECT_GE(failures, 2); /* the records of the threads, the thread */
  EXPECT_EQ(tarn_trans_exit(), 0);
  EXPECT_TRUE(case_logged("tarn_trans_exit: flush g_transq"));
  EXPECT_EQ(balance(), 1); /* the failed block stays counted */
}
