// SPDX-License-Identifier: GPL-2.0
// The module frame: what a start registers, what each failing step undoes and in which order, the
// order of a stop.
#include "tests/module/kit/log.h"
#include "tests/module/kit/mount.h"
#include "ukern/testing/uk_fault.h"

namespace {

bool type_is_free() {
  struct file_system_type other = {.name = "tarn"};
  if (register_filesystem(&other)) return false;
  unregister_filesystem(&other);
  return true;
}

bool channel_is_free() {
  struct sock *sk = netlink_kernel_create(OX_NETLINK_UNIT, 0, nullptr, THIS_MODULE);
  if (!sk) return false;
  sock_release(sk->sk_socket);
  return true;
}

bool options_are_free(int first, int last) {
  struct nf_sockopt_ops options;
  memset(&options, 0, sizeof(options));
  options.pf = PF_INET;
  options.set_optmin = first;
  options.set_optmax = last;
  if (nf_register_sockopt(&options)) return false;
  nf_unregister_sockopt(&options);
  return true;
}

// Nothing of a start that failed is left, and another start works.
void expect_nothing_left() {
  EXPECT_TRUE(type_is_free());
  EXPECT_TRUE(channel_is_free());
  EXPECT_TRUE(options_are_free(OX_SO_RULE_SET_FIRST, OX_SO_RULE_SET_LAST));
  EXPECT_TRUE(options_are_free(OX_SO_DIR_SET_FIRST, OX_SO_DIR_SET_LAST));
  EXPECT_EQ(uk_module_load("tarn"), 0);
  EXPECT_EQ(uk_module_unload("tarn"), 0);
}

// Starts while somebody else holds the socket options from `first` to `last`.
int load_with_options_taken(int first, int last) {
  struct nf_sockopt_ops taken;
  memset(&taken, 0, sizeof(taken));
  taken.pf = PF_INET;
  taken.set_optmin = first;
  taken.set_optmax = last;
  EXPECT_EQ(nf_register_sockopt(&taken), 0);
  const int rc = uk_module_load("tarn");
  nf_unregister_sockopt(&taken);
  return rc;
}

}  // namespace

CASE(main, start_takes_the_type_the_channel_and_the_options) {
  REQUIRE_EQ(uk_module_load("tarn"), 0);
  EXPECT_TRUE(case_logged("Register tarn filesystem success"));
  EXPECT_STREQ(tarn_fs_type.name, "tarn");
  EXPECT_EQ(tarn_fs_type.fs_flags, 0);
  EXPECT_FALSE(type_is_free());
  EXPECT_FALSE(channel_is_free());
  EXPECT_FALSE(options_are_free(OX_SO_RULE_SET_FIRST, OX_SO_RULE_SET_LAST));
  EXPECT_FALSE(options_are_free(OX_SO_DIR_SET_FIRST, OX_SO_DIR_SET_LAST));
  EXPECT_STREQ(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
  EXPECT_EQ(uk_module_unload("tarn"), 0);
  expect_nothing_left();
}

CASE(main, stop_takes_down_capture_rules_directories_channel_type) {
  REQUIRE_EQ(uk_module_load("tarn"), 0);
  REQUIRE_EQ(uk_module_unload("tarn"), 0);
  const long capture = log_line("tarn_trans_exit: flush g_transq");
  const long rules = log_line("prule_exit: flush ruleset");
  const long directories = log_line("dir_exit: flush dirset");
  const long channel = log_line("tarn_release_netlink: release netlink socket");
  const long type = log_line("tarn_exit: unregister tarn system");
  EXPECT_LE(0, capture);
  EXPECT_LT(capture, rules);
  EXPECT_LT(rules, directories);
  EXPECT_LT(directories, channel);
  EXPECT_LT(channel, type);
}

CASE(main, taken_type_name_fails_the_start_with_its_error) {
  struct file_system_type other = {.name = "tarn"};
  REQUIRE_EQ(register_filesystem(&other), 0);
  EXPECT_EQ(uk_module_load("tarn"), -EBUSY);
  unregister_filesystem(&other);
  EXPECT_FALSE(case_logged("Register tarn filesystem success"));
  expect_nothing_left();
}

CASE(main, taken_channel_unregisters_the_type) {
  struct sock *sk = netlink_kernel_create(OX_NETLINK_UNIT, 0, nullptr, THIS_MODULE);
  REQUIRE_TRUE(sk);
  EXPECT_EQ(uk_module_load("tarn"), -EIO);
  sock_release(sk->sk_socket);
  EXPECT_TRUE(case_logged("tarn_init_netlink fail"));
  EXPECT_FALSE(case_logged("tarn_release_netlink: release netlink socket"));
  expect_nothing_left();
}

CASE(main, taken_rule_options_release_the_channel) {
  EXPECT_LT(load_with_options_taken(OX_SO_RULE_SET_FIRST, OX_SO_RULE_SET_LAST), 0);
  EXPECT_TRUE(case_logged("prule_init fail"));
  EXPECT_FALSE(case_logged("prule_exit: flush ruleset"));
  EXPECT_LT(log_line("prule_init fail"), log_line("tarn_release_netlink: release netlink socket"));
  kmem_cache_destroy(hit_rule_cache);  // which a refused registration leaves
  expect_nothing_left();
}

CASE(main, taken_directory_options_release_rules_then_channel) {
  EXPECT_LT(load_with_options_taken(OX_SO_DIR_SET_FIRST, OX_SO_DIR_SET_LAST), 0);
  const long failed = log_line("dir_init fail");
  const long rules = log_line("prule_exit: flush ruleset");
  const long channel = log_line("tarn_release_netlink: release netlink socket");
  EXPECT_LE(0, failed);
  EXPECT_LT(failed, rules);
  EXPECT_LT(rules, channel);
  EXPECT_FALSE(case_logged("dir_exit: flush dirset"));
  expect_nothing_left();
}

// Each allocation of the start fails once. Whatever it was for, the start fails as a whole and
// leaves nothing; where it was the last step's, the directories go before the rules, unlike in a
// stop.
CASE(main, every_failing_allocation_unwinds_the_start) {
  bool last_step_failed = false;
  for (unsigned long n = 1;; n++) {
    const unsigned long long before = log_end();
    uk_fault_arm(n);
    const int rc = uk_module_load("tarn");
    const bool reached = uk_fault_count() >= n;
    uk_fault_arm(0);
    if (!rc) {
      EXPECT_EQ(uk_module_unload("tarn"), 0);
      if (!reached) break;
      continue;
    }
    EXPECT_LT(rc, 0);
    EXPECT_TRUE(type_is_free());
    EXPECT_TRUE(channel_is_free());
    const long failed = log_line("tarn_trans_init fail", before);
    if (failed < 0) continue;
    last_step_failed = true;
    const long directories = log_line("dir_exit: flush dirset", before);
    const long rules = log_line("prule_exit: flush ruleset", before);
    const long channel = log_line("tarn_release_netlink: release netlink socket", before);
    EXPECT_LT(failed, directories);
    EXPECT_LT(directories, rules);
    EXPECT_LT(rules, channel);
  }
  EXPECT_TRUE(last_step_failed);
  expect_nothing_left();
}

// The caches come before everything else: without one of them nothing has been registered or
// printed.
CASE(main, failing_cache_is_out_of_memory_and_prints_nothing) {
  const unsigned long long before = log_end();
  uk_fault_arm(3);
  EXPECT_EQ(uk_module_load("tarn"), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(log_end(), before);
  expect_nothing_left();
}

MODULE_CASE(main, caches_have_their_names_and_sizes) {
  EXPECT_STREQ(kmem_cache_name(tarn_file_info_cache), "tarn_file_cache");
  EXPECT_STREQ(kmem_cache_name(tarn_dentry_info_cache), "tarn_dentry_info_cache");
  EXPECT_STREQ(kmem_cache_name(tarn_inode_info_cache), "tarn_inode_cache");
  EXPECT_STREQ(kmem_cache_name(tarn_sb_info_cache), "tarn_sb_cache");
  EXPECT_EQ(kmem_cache_size(tarn_file_info_cache), sizeof(struct tarn_file_info));
  EXPECT_EQ(kmem_cache_size(tarn_dentry_info_cache), sizeof(struct tarn_dentry_info));
  EXPECT_EQ(kmem_cache_size(tarn_inode_info_cache), sizeof(struct tarn_inode_info));
  EXPECT_EQ(kmem_cache_size(tarn_sb_info_cache), sizeof(struct tarn_sb_info));
}
