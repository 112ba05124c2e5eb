// SPDX-License-Identifier: GPL-2.0
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

int mem_used() {
  return atomic_read(&g_option.mem_used);
}

}  // namespace

MODULE_CASE(trans, a_path_of_no_rule_makes_no_record) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  alloc_balance balance;
  found_hits hits("/b/c");
  EXPECT_EQ(hits.count(), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/b/c", nullptr, 0), 0);
  EXPECT_EQ(balance(), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->transnr), 0);
}

MODULE_CASE(trans, a_path_of_no_rule_costs_the_hit_array_only) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  uk_fault_arm(0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/b/c", nullptr, 0), 0);
  EXPECT_EQ(uk_fault_count(), 1ul);
}

MODULE_CASE(trans, the_first_32_rules_are_hit_in_list_order) {
  for (int id = 1; id <= 33; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  found_hits hits("/a/x");
  REQUIRE_EQ(hits.count(), 32);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(hits.id(i), i + 1);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
  for (int id = 1; id <= 33; ++id) {
    prule_ref rule(lookup_rule(id));
    EXPECT_EQ(atomic_read(&rule->transnr), id <= 32 ? 1 : 0);
  }
}

MODULE_CASE(trans, records_go_out_from_the_last_hit_to_the_first) {
  test_daemon daemon;
  for (int id = 1; id <= 3; ++id) REQUIRE_EQ(install_rule(id, "/a"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
  for (int id = 3; id >= 1; --id) EXPECT_EQ(daemon.next().msg()->uuid[0], id);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(trans, either_path_hits) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  REQUIRE_EQ(install_rule(2, "/b"), 0);
  EXPECT_EQ(found_hits("/a/x").count(), 1);
  EXPECT_EQ(found_hits("/a/x", "/b/x").count(), 2);
  EXPECT_EQ(found_hits("/c/x", "/b/x").count(), 1);
  EXPECT_EQ(found_hits("/c/x", "/c/y").count(), 0);
}

MODULE_CASE(trans, a_stopped_rule_is_told_of_every_change) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(7, "/a"), 0);
  prule_ref rule(lookup_rule(7));
  prule_stop(rule.get());
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/elsewhere", nullptr, 0), 0);
  for (int i = 0; i < 2; ++i) {
    const test_message &notice = daemon.next();
    EXPECT_EQ(notice.type(), OX_OP_STOP_RULE);
    EXPECT_EQ(notice.received, 32);
    EXPECT_EQ(notice.head()->nlmsg_len, 32u);
    EXPECT_EQ(notice.head()->nlmsg_flags, 0);
    EXPECT_EQ(notice.head()->nlmsg_seq, 0u);
    EXPECT_EQ(notice.head()->nlmsg_pid, (unsigned)current->pid);
    EXPECT_EQ(memcmp(notice.payload<char>(), rule->rule.uuid, OX_UUID_LEN), 0);
  }
  EXPECT_TRUE(daemon.idle());
  EXPECT_EQ(atomic_read(&rule->transnr), 0);
}

MODULE_CASE(trans, records_are_numbered_from_one) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  for (unsigned n = 1; n <= 5; ++n) {
    EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), 0);
    const test_message &record = daemon.next();
    EXPECT_EQ(record.msg()->wseq, n);
    EXPECT_EQ(record.head()->nlmsg_seq, n);
  }
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->transnr), 5);
}

MODULE_CASE(trans, lengths_by_operation) {
  struct tarn_trans trans;
  memset(static_cast<void *>(&trans), 0, sizeof(trans));
  trans.msg.l1 = 0x00050003;
  trans.msg.l2 = 7;
  for (int op = 0; op <= 7; ++op) {
    trans.msg.op = static_cast<ox_u8_t>(op);
    EXPECT_EQ(trans_msglen(&trans), 44u + 3 + 5);
  }
  trans.msg.op = OX_OP_WRITE;
  EXPECT_EQ(trans_msglen(&trans), 60u + 5 + 7);
  trans.msg.op = OX_OP_SETATTR;
  trans.msg.l1 = 12;
  EXPECT_EQ(trans_msglen(&trans), 88u + 12 + 7);
  /* What 16 bits do not hold. */
  trans.msg.l2 = 0x3200000;
  EXPECT_EQ(trans_msglen(&trans), 88u + 12 + 0x3200000);
  trans.msg.l1 = 0xFFFFFFFE;
  for (int op = 0; op <= 7; ++op) {
    trans.msg.op = static_cast<ox_u8_t>(op);
    EXPECT_EQ(trans_msglen(&trans), 44u + 0xFFFE + 0xFFFF);
  }
  trans.msg.op = OX_OP_WRITE;
  EXPECT_EQ(trans_msglen(&trans), 60u + 0xFFFF + 0x3200000);
  trans.msg.op = 10;
  EXPECT_EQ(trans_msglen(&trans), 0u);
  trans.msg.op = 255;
  EXPECT_EQ(trans_msglen(&trans), 0u);
}

MODULE_CASE(trans, what_a_record_is_charged_is_taken_back) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  alloc_balance balance;
  const ox_u32_t ops[] = {OX_OP_CREATE, OX_OP_SETATTR, OX_OP_WRITE};
  ox_u64_t captured = 0;
  for (ox_u32_t op : ops) {
    prule_node_get(rule.get());
    struct tarn_trans *trans = tarn_var_alloc(rule.get(), op, 150);
    REQUIRE_TRUE(trans != nullptr);
    EXPECT_EQ(trans->msg.op, op);
    EXPECT_EQ(trans->msg.os, 1);
    EXPECT_EQ(trans->msg.cp, 0);
    EXPECT_EQ(trans->seq, 0);
    EXPECT_TRUE(list_empty(&trans->list));
    EXPECT_EQ(trans_msglen(trans), 150u);
    EXPECT_EQ(mem_used(), 150 + TARN_TRANS_FIELDS);
    EXPECT_EQ(atomic_read(&rule->mem_used), 150 + TARN_TRANS_FIELDS);
    captured += 150 - OX_MSG_LEN;
    EXPECT_EQ(rule->bytes_send, captured);
    EXPECT_EQ(tarn_trans_free(trans, 1), 0);
    EXPECT_EQ(mem_used(), 0);
    EXPECT_EQ(atomic_read(&rule->mem_used), 0);
  }
  EXPECT_EQ(rule->bytes_send, captured);
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  EXPECT_EQ(balance(), 0);
}

/* Records, and what a rule has captured in all, may be larger than 16 and 32 bits tell. */
MODULE_CASE(trans, charges_above_64_kib) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  const ox_u32_t lengths[] = {65535, 65536, 65537, 120000};
  const ox_u32_t ops[] = {OX_OP_SETATTR, OX_OP_WRITE};
  ox_u64_t captured = rule->bytes_send = 0xFFFF0000;
  for (ox_u32_t op : ops) {
    for (ox_u32_t len : lengths) {
      prule_node_get(rule.get());
      struct tarn_trans *trans = tarn_var_alloc(rule.get(), op, len);
      REQUIRE_TRUE(trans != nullptr);
      EXPECT_EQ(trans_msglen(trans), len);
      EXPECT_EQ(mem_used(), (int)(len + TARN_TRANS_FIELDS));
      EXPECT_EQ(atomic_read(&rule->mem_used), (int)(len + TARN_TRANS_FIELDS));
      captured += len - OX_MSG_LEN;
      EXPECT_EQ(rule->bytes_send, captured);
      EXPECT_EQ(tarn_trans_free(trans, 1), 0);
      EXPECT_EQ(mem_used(), 0);
      EXPECT_EQ(atomic_read(&rule->mem_used), 0);
    }
  }
  EXPECT_GT(captured, 0x100000000ull);
}

/* Long names, until they are together more than 16 and 32 bits tell. */
MODULE_CASE(trans, names_above_64_kib) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  prule_ref rule(lookup_rule(1));
  static char path[3000];
  memset(path, 'n', sizeof(path) - 1);
  path[0] = '/';
  const ox_u64_t begin = 0xFFFFF000;
  rule->bytes_send = begin;
  for (ox_u64_t n = 1; n <= 20; ++n) {
    EXPECT_EQ(tarn_para_sync(OX_OP_RENAME, path, path, 0), 0);
    EXPECT_EQ(rule->bytes_send, begin + n * 2 * sizeof(path));
    EXPECT_EQ(mem_used(), 0);
    EXPECT_EQ(atomic_read(&rule->mem_used), 0);
  }
}

MODULE_CASE(trans, without_memory_for_the_hits_the_change_is_lost) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  uk_fault_arm(1);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/a/x", nullptr, 0), -ENOMEM);
  uk_fault_arm(0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(rule->status, PRULE_ACTIVE);
}

MODULE_CASE(trans, lower_paths) {
  REQUIRE_EQ(test_mkdir("/d"), 0);
  bound_dentry file("/d/file");
  REQUIRE_EQ(file.error(), 0);
  char *buf = nullptr;
  const char *path = tarn_path_get(&buf, file.get());
  REQUIRE_TRUE(path != nullptr);
  EXPECT_STREQ(path, "/d/file");
  EXPECT_TRUE(path >= buf && path < buf + OX_PATH_MAX);
  EXPECT_EQ(tarn_path_put(buf), 0);
}

MODULE_CASE(trans, a_dentry_without_a_lower_path_is_not_captured) {
  bound_dentry file("/file");
  REQUIRE_EQ(file.error(), 0);
  REQUIRE_EQ(install_rule(1, "/"), 0);
  char *buf = nullptr;
  struct iattr attr = {};

  struct dentry *dentry = file.get();
  void *record = dentry->d_fsdata;
  dentry->d_fsdata = nullptr; /* not bound */
  EXPECT_TRUE(tarn_path_get(&buf, dentry) == nullptr);
  EXPECT_TRUE(buf == nullptr);
  EXPECT_EQ(tarn_sync_1dentry(OX_OP_CREATE, dentry, 0), 0);
  EXPECT_EQ(tarn_sync_2dentry(OX_OP_LINK, dentry, dentry), 0);
  EXPECT_EQ(tarn_sym_sync(dentry, "x", 0), 0);
  EXPECT_EQ(tarn_attr_sync(dentry, &attr), 0);
  EXPECT_EQ(tarn_write_sync(dentry, "x", 1, 0), 0);

  dentry->d_fsdata = record;
  struct path &lower = tarn_dentry(dentry)->lower_path;
  const struct path bound = lower;
  lower.dentry = nullptr; /* its record is there, but not what it is for */
  EXPECT_TRUE(tarn_path_get(&buf, dentry) == nullptr);
  lower = bound;
  lower.mnt = nullptr;
  EXPECT_TRUE(tarn_path_get(&buf, dentry) == nullptr);
  lower = bound;
  dentry->d_op = nullptr; /* another file system's */
  EXPECT_TRUE(tarn_path_get(&buf, dentry) == nullptr);
  dentry->d_op = &tarn_dops;
  uk_fault_arm(1);
  EXPECT_TRUE(tarn_path_get(&buf, dentry) == nullptr);
  uk_fault_arm(0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->transnr), 0);
}

/* Further down than a path of the longest length reaches. */
MODULE_CASE(trans, what_has_no_path_of_the_longest_length_uses_up_a_number) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  char name[201];
  memset(name, 'n', 200);
  name[200] = '\0';
  struct uk_node *dir;
  REQUIRE_EQ(uk_node_at("/", &dir), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  for (int len = 0; len < OX_PATH_MAX; len += 201) {
    struct uk_node *made;
    struct uk_stat stat;
    REQUIRE_EQ(uk_mkdir(dir, name, 0755, &made, &stat), 0);
    uk_node_put(dir, 1);
    dir = made;
    mutex_guard guard(nd.dentry->d_inode->i_mutex);
    struct dentry *child = lookup_one_len(name, nd.dentry, 200);
    REQUIRE_TRUE(!IS_ERR(child));
    dput(nd.dentry);
    nd.dentry = child;
  }
  uk_node_put(dir, 1);

  struct tarn_dentry_info info = {{nd.mnt, nd.dentry}};
  struct dentry upper;
  memset(&upper, 0, sizeof(upper));
  upper.d_op = &tarn_dops;
  upper.d_fsdata = &info;
  char *buf = nullptr;
  EXPECT_TRUE(tarn_path_get(&buf, &upper) == nullptr);
  EXPECT_TRUE(buf == nullptr);
  test_daemon daemon;
  REQUIRE_EQ(install_rule(2, "/other"), 0);
  EXPECT_EQ(tarn_sync_1dentry(OX_OP_MKDIR, &upper, 0755), 0);
  path_release(&nd);
  EXPECT_TRUE(daemon.idle());
  prule_ref rule(lookup_rule(1)), other(lookup_rule(2));
  EXPECT_EQ(atomic_read(&rule->transnr), 1);
  EXPECT_EQ(rule->status, PRULE_ACTIVE);
  EXPECT_EQ(atomic_read(&other->transnr), 0);
}

MODULE_CASE(trans, a_submitted_rule_is_taken_off_the_queue) {
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(tarn_transq_submit(rule.get()), 0);
  for (int i = 0; i < 500 && atomic_read(&rule->refcnt) != 2; ++i) {
    set_current_state(TASK_UNINTERRUPTIBLE);
    schedule_timeout(10);
  }
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  spin_guard guard(g_transq.lock);
  EXPECT_TRUE(list_empty(&g_transq.head));
  EXPECT_EQ(g_transq.nr, 0u);
}

MODULE_CASE(trans, the_limits_are_set) {
  EXPECT_EQ(g_option.mem_max, 1073741824);
  EXPECT_EQ(mem_used(), 0);
}
