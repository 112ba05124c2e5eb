// SPDX-License-Identifier: GPL-2.0
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

/* A name record with these strings; `second` may be null. */
void expect_para(const test_message &m, int op, const char *first, const char *second, int mode) {
  REQUIRE_EQ(m.type(), OX_OP_COLLECT);
  const struct ox_msg_para *para = m.para();
  const unsigned len1 = static_cast<unsigned>(strlen(first)) + 1;
  const unsigned len2 = second ? static_cast<unsigned>(strlen(second)) + 1 : 0;
  EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + OX_MSG_PARA_LEN + len1 + len2);
  EXPECT_EQ(m.head()->nlmsg_flags, 0);
  EXPECT_EQ(m.received, (long)NLMSG_ALIGN(m.head()->nlmsg_len));
  for (long i = m.head()->nlmsg_len; i < m.received; ++i) EXPECT_EQ(m.bytes[i], 0);
  EXPECT_EQ(para->op, op);
  EXPECT_EQ(para->os, 1);
  EXPECT_EQ(para->cp, 0);
  EXPECT_NE(para->seq, 0u);
  EXPECT_EQ(para->wseq, m.head()->nlmsg_seq);
  EXPECT_EQ(para->dlen1, len1);
  EXPECT_EQ(para->dlen2, len2);
  EXPECT_EQ(para->mode, (unsigned)mode);
  EXPECT_STREQ(para->data, first);
  if (second) EXPECT_STREQ(para->data + len1, second);
}

}  // namespace

MODULE_CASE(meta_capture, a_change_outside_the_rules_makes_no_record) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/b/x", nullptr, 0), 0);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(meta_capture, a_name_without_a_second_string) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/a"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_RMDIR, "/a/b", nullptr, 0), 0);
  expect_para(daemon.next(), OX_OP_RMDIR, "/a/b", nullptr, 0);
}

MODULE_CASE(meta_capture, a_creation_has_path_and_mode) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/new");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(tarn_sync_1dentry(OX_OP_CREATE, file.get(), 0100640), 0);
  expect_para(daemon.next(), OX_OP_CREATE, "/new", nullptr, 0100640);
  EXPECT_EQ(tarn_sync_1dentry(OX_OP_MKDIR, file.get(), 0755), 0);
  expect_para(daemon.next(), OX_OP_MKDIR, "/new", nullptr, 0755);
}

MODULE_CASE(meta_capture, a_link_has_both_paths) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/old"), 0);
  bound_dentry from("/old"), to("/new");
  EXPECT_EQ(tarn_sync_2dentry(OX_OP_LINK, from.get(), to.get()), 0);
  expect_para(daemon.next(), OX_OP_LINK, "/old", "/new", 0);
}

MODULE_CASE(meta_capture, a_symbolic_link_has_its_target_as_it_was_given) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry link("/link");
  EXPECT_EQ(tarn_sym_sync(link.get(), "../else/where//x", 4095), 0);
  expect_para(daemon.next(), OX_OP_SYMLINK, "/link", "../else/where//x", 4095);
  EXPECT_EQ(tarn_sym_sync(link.get(), "", 4095), 0);
  expect_para(daemon.next(), OX_OP_SYMLINK, "/link", "", 4095);
}

MODULE_CASE(meta_capture, a_rename_goes_to_the_rules_of_both_paths) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/from"), 0);
  REQUIRE_EQ(install_rule(2, "/to"), 0);
  REQUIRE_EQ(install_rule(3, "/other"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_RENAME, "/from/x", "/to/y", 0100644), 0);
  const test_message &second = daemon.next();
  EXPECT_EQ(second.msg()->uuid[0], 2);
  expect_para(second, OX_OP_RENAME, "/from/x", "/to/y", 0100644);
  const test_message &first = daemon.next();
  EXPECT_EQ(first.msg()->uuid[0], 1);
  expect_para(first, OX_OP_RENAME, "/from/x", "/to/y", 0100644);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(meta_capture, every_attribute_is_in_the_record) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/file");
  struct iattr attr = {};
  attr.ia_valid = ATTR_MODE;
  attr.ia_mode = 0100751;
  attr.ia_uid = 0x80000001u;
  attr.ia_gid = 1002;
  attr.ia_size = 0x123456789All;
  attr.ia_atime.tv_sec = 1000;
  attr.ia_atime.tv_nsec = 1999;
  attr.ia_mtime.tv_sec = 2000;
  attr.ia_mtime.tv_nsec = 999999999;
  attr.ia_ctime.tv_sec = 3000;
  attr.ia_ctime.tv_nsec = 0;
  EXPECT_EQ(tarn_attr_sync(file.get(), &attr), 0);
  const test_message &m = daemon.next();
  REQUIRE_EQ(m.type(), OX_OP_COLLECT);
  EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + 100u + 6);
  const struct ox_msg_attr *record = m.attr();
  EXPECT_EQ(record->op, OX_OP_SETATTR);
  EXPECT_EQ(record->dlen1, 12u);
  EXPECT_EQ(record->dlen2, 6u);
  EXPECT_EQ(record->com.ia_valid, ATTR_MODE);
  EXPECT_EQ(record->com.ia_mode, 0100751);
  EXPECT_EQ(record->com.ia_size, 0x123456789Aull);
  EXPECT_EQ(record->com.ia_atime, 1000000001ull);
  EXPECT_EQ(record->com.ia_mtime, 2000999999ull);
  EXPECT_EQ(record->com.ia_ctime, 3000000000ull);
  EXPECT_EQ(record->com.len, 56);
  EXPECT_EQ(record->com.type, 0);
  EXPECT_EQ(record->sec.ia_modeshadow, 0100751u);
  EXPECT_EQ(record->sec.ia_uid, 0x80000001u);
  EXPECT_EQ(record->sec.ia_gid, 1002u);
  EXPECT_STREQ(record->name, "/file");
}

MODULE_CASE(meta_capture, two_rules_number_their_own_records) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  daemon.next();
  REQUIRE_EQ(install_rule(2, "/"), 0);
  bound_dentry file("/file");
  struct iattr attr = {};
  EXPECT_EQ(tarn_attr_sync(file.get(), &attr), 0);
  const test_message &second = daemon.next();
  EXPECT_EQ(second.msg()->uuid[0], 2);
  EXPECT_EQ(second.msg()->wseq, 1u);
  const test_message &first = daemon.next();
  EXPECT_EQ(first.msg()->uuid[0], 1);
  EXPECT_EQ(first.msg()->wseq, 2u);
}

MODULE_CASE(meta_capture, a_record_that_cannot_be_made_stops_its_rule_for_good) {
  test_daemon daemon;
  REQUIRE_EQ(install_rule(1, "/"), 0);
  REQUIRE_EQ(install_rule(2, "/"), 0);
  uk_fault_arm(2); /* hits, the record of the last hit */
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_TRUE(case_logged("tarn_para_sync: tarn_para_alloc fail"));
  EXPECT_EQ(daemon.next().type(), OX_OP_STOP_RULE);
  EXPECT_EQ(daemon.next().msg()->uuid[0], 1);

  bound_dentry file("/file");
  struct iattr attr = {};
  EXPECT_EQ(tarn_attr_sync(file.get(), &attr), 0); /* memory is back, the rule is not */
  EXPECT_EQ(daemon.next().type(), OX_OP_STOP_RULE);
  EXPECT_EQ(daemon.next().type(), OX_OP_COLLECT);
  uk_fault_arm(3); /* path, hits, record */
  remove_rule(2);
  uk_fault_arm(3);
  EXPECT_EQ(tarn_attr_sync(file.get(), &attr), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_TRUE(case_logged("__tarn_attr_sync: tarn_var_alloc fail"));
  EXPECT_EQ(daemon.next().type(), OX_OP_STOP_RULE);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(meta_capture, memory_is_balanced) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  bound_dentry file("/file");
  struct iattr attr = {};
  alloc_balance balance;
  EXPECT_EQ(tarn_attr_sync(file.get(), &attr), 0);
  EXPECT_EQ(tarn_sync_2dentry(OX_OP_LINK, file.get(), file.get()), 0);
  EXPECT_EQ(balance(), 0);
  EXPECT_EQ(atomic_read(&g_option.mem_used), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->mem_used), 0);
  EXPECT_EQ(rule->bytes_send, 62ull + 12);
}
