/* SPDX-License-Identifier: GPL-2.0 */
/* A mount of the module at /mnt over /lower. Owners undo themselves at the end of their scope, so
 * that a case leaves nothing mounted. */
#ifndef TESTS_MODULE_KIT_MOUNT_H
#define TESTS_MODULE_KIT_MOUNT_H

#include "tests/harness/case.h"
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/files.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"

/* /lower is a file system of its own: a memfs with these options. */
class test_mount {
 public:
  explicit test_mount(const char *lower_options = nullptr) {
    test_mkdir("/lower");
    test_mkdir("/mnt");
    lower_error_ = uk_fs_mount("none", "/lower", "memfs", 0, lower_options);
    error_ = lower_error_ ? lower_error_ : uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr);
    EXPECT_EQ(error_, 0);
  }
  ~test_mount() {
    if (!error_) EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
    if (!lower_error_) EXPECT_EQ(uk_fs_umount("/lower", 0), 0);
  }
  test_mount(const test_mount &) = delete;
  test_mount &operator=(const test_mount &) = delete;

 private:
  int lower_error_;
  int error_;
};

/* The super block of what is mounted at /lower, without a reference. */
inline struct super_block *lower_super() {
  const test_walk lower("/lower");
  return lower.dentry()->d_sb;
}

/* A mount with a rule for everything in it, and the daemon that gets its records. */
struct replicated {
  test_mount mount;
  test_daemon daemon;
  replicated() { EXPECT_EQ(install_rule('r', "/lower"), 0); }
  ~replicated() { do_flush(0); }
};

#endif
