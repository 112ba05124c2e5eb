// SPDX-License-Identifier: GPL-2.0
// What the module writes to the kernel log, to the letter and with its level. Text is a level only
// at the beginning of a line: behind an unfinished line it is a part of that line like any other.
// So a line that begins behind "#" is "#text" when it has no level and "#<3>text" when it has one.
#include "dir.h"
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/log.h"
#include "tests/module/kit/programs.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/testing/uk_fault.h"
#include "thread.h"

namespace {

/* The first line that `action` writes, behind "#"; only that when it writes none. */
template <typename Action>
const char *line_of(Action action) {
  static char text[512];
  struct uk_klog_line line;
  const unsigned long long from = log_end();
  printk("#");
  action();
  if (uk_klog_read(from, 0, &line, text, sizeof(text)) == 1) return text;
  printk("\n");
  uk_klog_read(from, 0, &line, text, sizeof(text));
  return text;
}

/* The same with the first, the second, ... allocation of `action` failing, until that is `line` or
 * there are no more: prepare() before each run. What came last. */
template <typename Prepare, typename Action>
const char *line_of_failure(const char *line, Prepare prepare, Action action) {
  static char last[512];
  last[0] = '\0';
  bool failed = true;
  for (unsigned long n = 1; failed && strcmp(last, line) != 0; ++n) {
    prepare();
    const char *written = line_of([&] {
      uk_fault_arm(n);
      action();
      failed = uk_fault_count() >= n;
      uk_fault_arm(0);
    });
    if (failed && written[1]) strcpy(last, written);
  }
  return last;
}

void nothing() {}

/* What the worker thread writes comes when it likes. */
void wait_for(const char *line) {
  for (int i = 0; i < 5000 && !case_logged(line); ++i) msleep(1);
}

int set_option(int code) {
  return uk_setsockopt(PF_INET, code, nullptr, 0);
}

}  // namespace

MODULE_CASE(log_lines, of_rules) {
  wait_for("tarn_thd_trans: start");
  const struct prule *record = rule_record(1);
  EXPECT_STREQ(line_of([=] { do_add(record, 5); }), "#do_add: size 5 != 16016");
  EXPECT_STREQ(line_of([=] { do_add(record, sizeof(*record)); }),
               "#do_add: copy_from_user err, ret=16016, 16016");
  const auto add = [] { install_rule(1, "/a"); };
  const auto remove = [] { remove_rule(1); };
  const char *lines[] = {"#do_add: kmem_cache_zalloc rulenode_cachep err",
                         "#create reppath error!"};
  for (const char *line : lines) EXPECT_STREQ(line_of_failure(line, remove, add), line);
  EXPECT_STREQ(line_of([] { set_option(178); }), "#do_ox_set_ctl: unknown request 178");
  const auto get = [] {
    int len = 24;
    uk_getsockopt(PF_INET, 180, nullptr, &len);
  };
  EXPECT_STREQ(line_of(get), "#do_ox_get_ctl: unknown request 180");
  EXPECT_STREQ(line_of(add), "#"); /* and what works is no line */
  EXPECT_STREQ(line_of(add), "#");
  EXPECT_STREQ(line_of(remove), "#");
  EXPECT_STREQ(line_of(remove), "#");
  EXPECT_STREQ(line_of([] { set_option(OX_SO_REP_FLUSH); }), "#");
}

MODULE_CASE(log_lines, of_directories) {
  wait_for("tarn_thd_trans: start");
  const struct dir *record = dir_record(0x11, "/x");
  const auto add = [=] { dir_add(record, sizeof(*record)); };
  const auto remove = [=] { dir_del(record, sizeof(*record)); };
  EXPECT_STREQ(line_of([=] { dir_add(record, 5); }), "#dir_add: size 5 != 528");
  EXPECT_STREQ(line_of(add), "#dir_add: copy_from_user err, ret=528, 528");
  EXPECT_STREQ(line_of([] { set_option(194); }), "#do_dir_set_ctl: unknown request 194");
  kernel_ds_guard kernel_addresses;
  const char *no_memory = "#dir_add: kmem_cache_zalloc dirnode_cachep err";
  EXPECT_STREQ(line_of_failure(no_memory, nothing, add), no_memory);
  EXPECT_STREQ(line_of(add), "#dir_add: 11111111-1111-1111-1111-111111111111, /x");
  EXPECT_STREQ(line_of(remove), "#dir_del: 11111111-1111-1111-1111-111111111111, /x");
  EXPECT_STREQ(line_of(remove), "#");
  add();
  EXPECT_STREQ(line_of([] { set_option(OX_SO_DIR_FLUSH); }),
               "#dir_flush: del dir 11111111-1111-1111-1111-111111111111.");
  EXPECT_STREQ(line_of([] { set_option(OX_SO_DIR_FLUSH); }), "#");
}

/* A failure stops the rule for good, so each has a rule of its own. */
MODULE_CASE(log_lines, of_capture) {
  wait_for("tarn_thd_trans: start");
  static char data[9000];
  bound_dentry file("/f");
  REQUIRE_EQ(file.error(), 0);
  struct dentry *dentry = file.get();
  const auto new_rule = [] {
    remove_rule(1);
    EXPECT_EQ(install_rule(1, "/"), 0);
  };
  const auto write = [=](size_t count) {
    kernel_ds_guard kernel_addresses;
    tarn_write_sync(dentry, data, count, 0);
  };
  const char *line = "#tarn_para_sync: tarn_para_alloc fail";
  EXPECT_STREQ(
      line_of_failure(line, new_rule, [] { tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0); }),
      line);
  line = "#__tarn_attr_sync: tarn_var_alloc fail";
  EXPECT_STREQ(line_of_failure(line, new_rule,
                               [=] {
                                 const struct iattr attr = {};
                                 tarn_attr_sync(dentry, &attr);
                               }),
               line);
  line = "#tarn_write_sync: tarn_wrtrans_alloc fail";
  EXPECT_STREQ(line_of_failure(line, new_rule, [=] { write(10); }), line);
  line = "#tarn_wrtrans_alloc: trans_allocpages failed, rc=-12";
  EXPECT_STREQ(line_of_failure(line, new_rule, [=] { write(9000); }), line);
  new_rule();
  EXPECT_STREQ(line_of([=] { tarn_write_sync(dentry, data, 10, 0); }), /* not the user's memory */
               "#tarn_wrtrans_alloc: Copy from user failed");
  EXPECT_EQ(case_log_level("tarn_write_sync: tarn_wrtrans_alloc fail"), 4);
  new_rule();
  EXPECT_STREQ(line_of([=] { tarn_write_sync(dentry, data, 9000, 0); }),
               "#tarn_wrtrans_alloc: trans_allocpages failed, rc=-14");
  new_rule();
  EXPECT_STREQ(line_of([=] { write(10); }), "#");
}

MODULE_CASE(log_lines, of_sending) {
  wait_for("tarn_thd_trans: start");
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/f");
  REQUIRE_EQ(file.error(), 0);
  const auto change = [] { tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0); };
  char line[160];
  {
    test_daemon daemon;
    EXPECT_STREQ(line_of(change), "#");
    const uuid_t uuid = {};
    line_of_failure("#<3>Failed to allocate socket buffer", nothing,
                    [&uuid] { tarn_send_stop_rule(uuid); });
    EXPECT_TRUE(case_logged("#<3>Failed to allocate socket buffer"));
    daemon.close();
  }
  snprintf(line, sizeof(line),
           "#<3>Failed send tarn netlink message to pid(%d); ret = -111, process not existed, back "
           "to 0",
           current->pid);
  EXPECT_STREQ(line_of(change), line);
  snprintf(line, sizeof(line), "Send kill signal(58) to process(%d); rc = -111", current->pid);
  EXPECT_EQ(case_log_level(line), 3);

  test_daemon slow(test_daemon::kHello, 1);
  REQUIRE_EQ(slow.error(), 0);
  tarn_nl_sock->sk_sndtimeo = 1;
  for (int i = 0; i < 1000 && case_log_level("tarn_send_netlink OX_OP_COLLECT fail") < 0; ++i) {
    snprintf(line, sizeof(line), "%s", line_of(change));
  }
  char expected[160];
  snprintf(expected, sizeof(expected),
           "#<3>Failed send tarn netlink message to pid(%d); ret = -11, back to 0", current->pid);
  EXPECT_STREQ(line, expected);
  snprintf(line, sizeof(line), "Send kill signal(58) to process(%d); rc = -11", current->pid);
  EXPECT_EQ(case_log_level(line), 3);
  {
    static char data[9000];
    kernel_ds_guard kernel_addresses;
    tarn_write_sync(file.get(), data, sizeof(data), 0);
  }
  slow.send(OX_SO_REP_ADD, rule_record(2), sizeof(struct prule));
  slow.send(OX_SO_REP_DEL, rule_record(2), sizeof(struct prule));
  slow.send(OX_SO_REP_FLUSH);
  const char *const plain[] = {
      "tarn_send_netlink OX_OP_COLLECT fail", "tarn_send_netlink OX_OP_WRITE page fail",
      "tarn_send_netlink OX_SO_REP_ADD fail", "tarn_send_netlink OX_SO_REP_DEL fail",
      "tarn_send_netlink OX_SO_REP_FLUSH fail"};
  for (const char *text : plain) EXPECT_EQ(case_log_level(text), 4);
}

MODULE_CASE(log_lines, of_receiving) {
  wait_for("tarn_thd_trans: start");
  test_daemon daemon(test_daemon::kSilent);
  char line[160];
  snprintf(line, sizeof(line), "#tarn_process_nl_helo: daemon_pid = %d", current->pid);
  EXPECT_STREQ(line_of([&] { daemon.send(OX_NL_HELO); }), line);
  EXPECT_STREQ(line_of([&] { daemon.send(OX_NL_QUIT); }), "#tarn_process_nl_quit: daemon_pid = 0");
  EXPECT_STREQ(line_of([&] { daemon.send(OX_NL_RESPONSE); }), "#tarn_process_nl_response");
  EXPECT_STREQ(line_of([&] { daemon.send(OX_OP_WRITE); }), "#");
  EXPECT_STREQ(line_of([&] { daemon.send(102); }),
               "#<4>Dropping netlink message of unrecognized type [102]");
  EXPECT_STREQ(line_of([&] { daemon.send_bytes("short", 5); }),
               "#<3>Received corrupt netlink message");
  snprintf(line, sizeof(line),
           "#<4>Dropping netlink message of type [100] from unprivileged process [%d]",
           current->pid);
  EXPECT_STREQ(line_of([&] {
                 without_capabilities plain;
                 daemon.send(OX_NL_HELO);
               }),
               line);
  tarn_nl_sock->sk_rcvtimeo = 1;
  EXPECT_STREQ(line_of([] { tarn_receive_nl_message(tarn_nl_sock, 0); }),
               "#<3>Error occurred while receiving tarn netlink message; rc = [-11]");
}

MODULE_CASE(log_lines, of_the_layer) {
  wait_for("tarn_thd_trans: start");
  REQUIRE_EQ(test_mkdir("/data"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  {
    bound_dentry lower("/data/f");
    REQUIRE_EQ(lower.error(), 0);
    REQUIRE_EQ(uk_fs_mount("/data", "/mnt", "tarn", 0, nullptr), 0);
    atomic_set(&tarn_lower_dentry(lower.get())->d_inode->i_writecount, -1);
    struct file *file = nullptr;
    EXPECT_STREQ(line_of([&] { file = filp_open("/mnt/f", O_RDWR, 0); }),
                 "#tarn_lookup: f's lower_inode->i_writecount=-1, adjust it");
    REQUIRE_TRUE(!IS_ERR(file));

    struct address_space *mapping = tarn_lower_inode(file->f_dentry->d_inode)->i_mapping;
    const struct address_space_operations *own = mapping->a_ops;
    struct address_space_operations without = *own;
    without.direct_IO = nullptr;
    mapping->a_ops = &without;
    struct kiocb iocb;
    init_sync_kiocb(&iocb, file);
    EXPECT_STREQ(line_of([&] { tarn_aops.direct_IO(READ, &iocb, nullptr, 0, 0); }),
                 "#tarn_direct_IO: lower_file not support O_DIRECT yet");
    mapping->a_ops = own;
    filp_close(file, nullptr);
  }
  EXPECT_EQ(install_directory(1, "/data"), 0);
  struct uk_node *mount;
  REQUIRE_EQ(uk_node_at("/mnt", &mount), 0);
  EXPECT_STREQ(line_of([=] { uk_rename(mount, "f", mount, "g"); }), "#tarn_rename:block /data/f");
  dir_flush(0);
  uk_node_put(mount, 1);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

namespace {

struct nf_sockopt_ops rival;

/* The first line of a start that finds one of its socket options taken. */
const char *line_beside_rival(int option, int (*start)()) {
  memset(&rival, 0, sizeof(rival));
  rival.pf = PF_INET;
  rival.set_optmin = option;
  rival.set_optmax = option + 1;
  EXPECT_EQ(nf_register_sockopt(&rival), 0);
  const char *line = line_of([=] { EXPECT_NE(start(), 0); });
  nf_unregister_sockopt(&rival);
  return line;
}

}  // namespace

CASE(log_lines, of_the_parts_start_and_stop) {
  const auto start_rules = [] { (void)!prule_init(); };
  const char *line = "#prule_init: kmem_cache_create error.";
  EXPECT_STREQ(line_of_failure(line, nothing, start_rules), line);
  line = "#hit rule cache create error.";
  EXPECT_STREQ(line_of_failure(line, nothing, start_rules), line);
  EXPECT_STREQ(line_beside_rival(188, prule_init), "#prule_init: register sockopt error!");
  kmem_cache_destroy(hit_rule_cache); /* which a refused registration leaves */
  EXPECT_STREQ(line_of(start_rules), "#Register prule sockopt success");
  EXPECT_STREQ(line_of(prule_exit), "#prule_exit: flush ruleset");

  const auto start_directories = [] { (void)!dir_init(); };
  line = "#dir_init: kmem_cache_create error.";
  EXPECT_STREQ(line_of_failure(line, nothing, start_directories), line);
  EXPECT_STREQ(line_beside_rival(195, dir_init), "#dir_init: register sockopt error!");
  EXPECT_STREQ(line_of(start_directories), "#Register dir sockopt success");
  EXPECT_STREQ(line_of(dir_exit), "#dir_exit: flush dirset");

  const auto start_channel = [] { (void)!tarn_init_netlink(); };
  line = "#<3>Failed to create netlink socket";
  EXPECT_STREQ(line_of_failure(line, nothing, start_channel), line);
  EXPECT_STREQ(line_of(start_channel), "#Create tarn_nl netlink socket success");
  EXPECT_STREQ(line_of(tarn_release_netlink), "#tarn_release_netlink: release netlink socket");

  EXPECT_STREQ(line_of([] {
                 EXPECT_EQ(tarn_trans_init(), 0);
                 wait_for("#tarn_thd_trans: start");
               }),
               "#tarn_thd_trans: start");
  EXPECT_STREQ(line_of([] { tarn_stop_threads(); }), "#tarn_thd_trans: recv stop event");
  EXPECT_EQ(case_log_level("tarn_thd_trans: stop"), 4);
  EXPECT_STREQ(line_of([] { tarn_trans_exit(); }), "#tarn_trans_exit: flush g_transq");

  char leaked[64];
  snprintf(leaked, sizeof(leaked), "#Leaked alloc: %d", atomic_read(&g_total_alloc));
  EXPECT_STREQ(line_of([] { ox_mem_exit(); }), leaked);
}

/* The whole start fails at one allocation after the other, and then it does not. */
CASE(log_lines, of_the_start_have_no_level_but_one) {
  int result = -1;
  for (unsigned long n = 1; result && n < 100; ++n) {
    uk_fault_arm(n);
    result = uk_module_load("tarn");
    uk_fault_arm(0);
  }
  REQUIRE_EQ(result, 0);
  EXPECT_EQ(uk_module_unload("tarn"), 0);
  EXPECT_STREQ(line_of([] { EXPECT_EQ(uk_module_load("tarn"), 0); }),
               "#Register tarn filesystem success");
  EXPECT_EQ(uk_module_unload("tarn"), 0);
  const char *const plain[] = {"tarn_init_netlink fail",
                               "prule_init fail",
                               "dir_init fail",
                               "tarn_trans_init fail",
                               "tarn_thd_trans: start",
                               "tarn_trans_exit: flush g_transq",
                               "tarn_exit: unregister tarn system"};
  for (const char *text : plain) EXPECT_EQ(case_log_level(text), 4);
  struct uk_klog_line line;
  char text[512];
  unsigned long long from = 0;
  for (; uk_klog_read(from, 0, &line, text, sizeof(text)) == 1; from = line.number + 1) {
    const bool graver = !strcmp(text, "Failed to create netlink socket");
    EXPECT_EQ(line.level, graver ? 3u : 4u);
  }
}
