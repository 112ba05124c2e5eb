// SPDX-License-Identifier: GPL-2.0
#include "dir_set.h"
#include "tests/module/kit/memory.h"
#include "tests/module/kit/programs.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/door/uk_net.h"
#include "ukern/testing/uk_fault.h"

namespace {

struct nf_sockopt_ops rival = {};

int set_option(int code, void *buffer, unsigned len) {
  return uk_setsockopt(PF_INET, code, buffer, len);
}

int add_dir(int id, const char *path) {
  struct dir *record = dir_record(id, path);
  user_memory user(record, sizeof(*record));
  return set_option(OX_SO_DIR_ADD, record, sizeof(*record));
}

int del_dir(int id) {
  struct dir *record = dir_record(id, "");
  user_memory user(record, sizeof(*record));
  return set_option(OX_SO_DIR_DEL, record, sizeof(*record));
}

/* The path of the n-th entry, empty past the end. */
const char *entry(int n) {
  struct dir_set *set = get_dir_set();
  read_guard guard(set->rwlock);
  struct dir_node *node;
  list_for_each_entry(node, &set->head, list) {
    if (n-- == 0) return node->dir.repdir;
  }
  return "";
}

}  // namespace

MODULE_CASE(dir, directories_are_added_in_order_and_deleted) {
  EXPECT_EQ(add_dir(0xAB, "/data/rep"), 0);
  EXPECT_EQ(add_dir(2, "/data/two"), 0);
  EXPECT_TRUE(case_logged("dir_add: ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB, /data/rep"));
  EXPECT_EQ(get_dir_set()->dirnum, 2);
  EXPECT_STREQ(entry(0), "/data/rep");
  EXPECT_STREQ(entry(1), "/data/two");
  EXPECT_EQ(del_dir(0xAB), 0);
  EXPECT_TRUE(case_logged("dir_del: ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB, /data/rep"));
  EXPECT_EQ(get_dir_set()->dirnum, 1);
  EXPECT_STREQ(entry(0), "/data/two");
}

MODULE_CASE(dir, a_second_directory_of_one_uuid_is_logged_and_refused) {
  EXPECT_EQ(add_dir(0x11, "/first"), 0);
  EXPECT_EQ(add_dir(0x11, "/second"), OX_ERR_EXIST);
  EXPECT_TRUE(case_logged("dir_add: 11111111-1111-1111-1111-111111111111, /second"));
  EXPECT_EQ(get_dir_set()->dirnum, 1);
  EXPECT_STREQ(entry(0), "/first");
}

MODULE_CASE(dir, uuids_that_agree_up_to_a_zero_byte_are_one) {
  kernel_ds_guard kernel_addresses;
  struct dir *record = dir_record(0, "/first");
  record->uuid[0] = 9;
  record->uuid[5] = 1;
  EXPECT_EQ(dir_add(record, sizeof(*record)), 0);
  record->uuid[5] = 2;
  EXPECT_EQ(dir_add(record, sizeof(*record)), OX_ERR_EXIST);
  record->uuid[5] = 3;
  EXPECT_EQ(dir_del(record, sizeof(*record)), 0);
  EXPECT_TRUE(case_logged("dir_del: 09000000-0001-0000-0000-000000000000, /first"));
  EXPECT_EQ(get_dir_set()->dirnum, 0);
}

MODULE_CASE(dir, a_delete_that_cannot_be) {
  EXPECT_EQ(add_dir(1, "/x"), 0);
  EXPECT_EQ(del_dir(9), OX_ERR_NOENT);
  EXPECT_EQ(get_dir_set()->dirnum, 1);
}

/* Too short or too long: what is behind the record makes it no better. */
MODULE_CASE(dir, records_of_a_wrong_length) {
  EXPECT_EQ(add_dir(1, "/first"), 0);
  static char memory[2 * sizeof(struct dir)];
  user_memory user(memory, sizeof(memory));
  const unsigned lengths[] = {0, 16, 527, 529, 2 * 528};
  for (unsigned length : lengths) {
    memcpy(memory, dir_record(2, "/second"), sizeof(struct dir));
    EXPECT_EQ(set_option(OX_SO_DIR_ADD, memory, length), OX_ERR_SIZE);
    char line[64];
    snprintf(line, sizeof(line), "dir_add: size %u != 528", length);
    EXPECT_EQ(case_log_count(line), 1);
    memcpy(memory, dir_record(1, ""), sizeof(struct dir));
    EXPECT_EQ(set_option(OX_SO_DIR_DEL, memory, length), OX_ERR_REQUEST);
  }
  EXPECT_EQ(get_dir_set()->dirnum, 1);
  EXPECT_STREQ(entry(0), "/first");
  EXPECT_FALSE(case_logged("dir_del: 01010101-0101-0101-0101-010101010101, /first"));
}

MODULE_CASE(dir, memory_that_is_not_the_callers) {
  struct dir *record = dir_record(1, "/x");
  EXPECT_EQ(dir_add(record, sizeof(*record)), 528);
  EXPECT_TRUE(case_logged("dir_add: copy_from_user err, ret=528, 528"));
  EXPECT_EQ(dir_del(record, sizeof(*record)), OX_UUID_LEN);
  EXPECT_EQ(dir_setmirrord("/sbin/x", 8), -EFAULT);
  EXPECT_STREQ(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
}

MODULE_CASE(dir, without_memory_nothing_is_added) {
  kernel_ds_guard kernel_addresses;
  uk_fault_arm(1);
  const int result = dir_add(dir_record(1, "/x"), sizeof(struct dir));
  uk_fault_arm(0);
  EXPECT_EQ(result, OX_ERR_NOMEM);
  EXPECT_TRUE(case_logged("dir_add: kmem_cache_zalloc dirnode_cachep err"));
  EXPECT_EQ(get_dir_set()->dirnum, 0);
}

MODULE_CASE(dir, a_path_without_an_end_is_ended) {
  struct dir *record = dir_record(1, "");
  memset(record->repdir, 'd', sizeof(record->repdir));
  kernel_ds_guard kernel_addresses;
  EXPECT_EQ(dir_add(record, sizeof(*record)), 0);
  EXPECT_EQ(strlen(entry(0)), OX_REPDIR_LEN - 1ul);
}

MODULE_CASE(dir, a_flush_logs_and_removes_all) {
  EXPECT_EQ(add_dir(0x11, "/a"), 0);
  EXPECT_EQ(add_dir(0x22, "/b"), 0);
  EXPECT_EQ(set_option(OX_SO_DIR_FLUSH, nullptr, 0), 0);
  EXPECT_TRUE(case_logged("dir_flush: del dir 11111111-1111-1111-1111-111111111111."));
  EXPECT_TRUE(case_logged("dir_flush: del dir 22222222-2222-2222-2222-222222222222."));
  EXPECT_EQ(get_dir_set()->dirnum, 0);
  EXPECT_STREQ(entry(0), "");
}

MODULE_CASE(dir, a_flush_does_not_wait_for_readers) {
  EXPECT_EQ(add_dir(1, "/a"), 0);
  EXPECT_EQ(add_dir(2, "/b"), 0);
  struct dir_set *set = get_dir_set();
  {
    read_guard reading(set->rwlock);
    struct dir_node *node;
    int seen = 0;
    list_for_each_entry(node, &set->head, list) {
      if (seen++ == 0) EXPECT_EQ(dir_flush(0), 0);
      EXPECT_EQ(node->dir.repdir[0], '/');
    }
    EXPECT_EQ(seen, 2);
  }
  EXPECT_EQ(add_dir(1, "/c"), 0);
  EXPECT_EQ(set->dirnum, 1);
}

MODULE_CASE(dir, the_daemons_path) {
  char path[] = "/sbin/mirrord";
  user_memory user(path, sizeof(path));
  EXPECT_STREQ(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, path, 0), 0);
  EXPECT_STREQ(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, path, sizeof(path)), (int)sizeof(path));
  EXPECT_STREQ(mirrord_full_name, "/sbin/mirrord");
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, path, 3), 3); /* the NUL ends it, not the length */
  EXPECT_STREQ(mirrord_full_name, "/sbin/mirrord");
}

MODULE_CASE(dir, a_long_path_of_the_daemon_is_cut) {
  static char path[2000];
  memset(path, 'p', sizeof(path) - 1);
  user_memory user(path, sizeof(path));
  EXPECT_EQ(set_option(OX_SO_SET_DAEMON, path, sizeof(path)), (int)sizeof(path));
  EXPECT_EQ(strlen(mirrord_full_name), OX_DAEMON_PATH_LEN - 1ul);
}

MODULE_CASE(dir, unknown_codes_are_logged) {
  EXPECT_EQ(set_option(194, nullptr, 0), OX_ERR_REQUEST);
  EXPECT_EQ(set_option(195, nullptr, 0), OX_ERR_REQUEST);
  EXPECT_EQ(case_log_count("do_dir_set_ctl: unknown request 194"), 1);
  EXPECT_EQ(case_log_count("do_dir_set_ctl: unknown request 195"), 1);
  EXPECT_EQ(set_option(196, nullptr, 0), -ENOPROTOOPT);
  int len = 0;
  EXPECT_EQ(uk_getsockopt(PF_INET, 190, nullptr, &len), -ENOPROTOOPT);
}

MODULE_CASE(dir, only_an_administrator_may_ask) {
  EXPECT_EQ(add_dir(1, "/a"), 0);
  without_capabilities plain;
  for (int code = 190; code <= 195; ++code) EXPECT_EQ(set_option(code, nullptr, 528), -EPERM);
  EXPECT_EQ(get_dir_set()->dirnum, 1);
}

MODULE_CASE(dir, a_directory_is_a_prefix_of_a_path_without_a_separator) {
  REQUIRE_EQ(test_mkdir("/data"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  bound_dentry file("/data/repx");
  REQUIRE_EQ(file.error(), 0);
  REQUIRE_EQ(uk_fs_mount("/data", "/mnt", "tarn", 0, nullptr), 0);
  struct uk_node *mount;
  REQUIRE_EQ(uk_node_at("/mnt", &mount), 0);
  EXPECT_EQ(add_dir(1, "/data/rep"), 0);
  EXPECT_EQ(uk_rename(mount, "repx", mount, "moved"), -EACCES);
  EXPECT_EQ(del_dir(1), 0);
  EXPECT_EQ(uk_rename(mount, "repx", mount, "moved"), 0);
  uk_node_put(mount, 1);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(dir, a_start_that_fails_says_at_what) {
  uk_fault_arm(1);
  EXPECT_EQ(dir_init(), OX_ERR_NOMEM);
  uk_fault_arm(0);
  EXPECT_TRUE(case_logged("dir_init: kmem_cache_create error."));
  rival.pf = PF_INET;
  rival.set_optmin = 195;
  rival.set_optmax = 196;
  REQUIRE_EQ(nf_register_sockopt(&rival), 0);
  EXPECT_EQ(dir_init(), -EBUSY);
  EXPECT_TRUE(case_logged("dir_init: register sockopt error!"));
  nf_unregister_sockopt(&rival);
  REQUIRE_EQ(dir_init(), 0);
  EXPECT_TRUE(case_logged("Register dir sockopt success"));
  /* Its cache has the name, which no other may have then. */
  EXPECT_TRUE(kmem_cache_create("dirnode_cachep", 64, 0, 0, nullptr, nullptr) == nullptr);
  dir_exit();
  EXPECT_TRUE(case_logged("dir_exit: flush dirset"));
}
