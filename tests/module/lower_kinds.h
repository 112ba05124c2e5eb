/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Cases that run over each kind of lower file system: LOWER_CASE(name) registers one in every suite
 * over_<kind>. The case gets the mount: /mnt over /lower, with a rule for /lower and a daemon.
 */
#ifndef TESTS_MODULE_LOWER_KINDS_H
#define TESTS_MODULE_LOWER_KINDS_H

#include "tests/module/kit/mount.h"
#include "tests/ukern/host_dir.h"

enum lower_kind {
  over_memfs,
  over_memfs_without_xattr,
  over_memfs_without_fsync,
  over_memfs_without_direct_io,
  over_memfs_that_revalidates,
  over_nfs, /* memfs with its magic number and a d_revalidate */
  over_hostfs,
  over_tarn, /* which lies over a memfs in turn */
};

class lower_mount {
 public:
  explicit lower_mount(enum lower_kind kind)
      : kind_(kind), host_(kind == over_hostfs ? "/lower" : nullptr) {
    error_ = mount_lower();
    if (!error_) error_ = test_mkdir("/mnt");
    if (!error_) error_ = uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr);
    if (!error_) error_ = install_rule('r', "/lower");
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(test_mkdir("/mnt/d"), 0);
    daemon_.drain();
  }
  ~lower_mount() {
    do_flush(0);
    EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
    if (kind_ != over_hostfs) EXPECT_EQ(uk_fs_umount("/lower", 0), 0);
    if (kind_ == over_tarn) EXPECT_EQ(uk_fs_umount("/base", 0), 0);
  }
  lower_mount(const lower_mount &) = delete;
  lower_mount &operator=(const lower_mount &) = delete;

  int error() const { return error_; }
  enum lower_kind kind() const { return kind_; }
  test_daemon &daemon() { return daemon_; }

 private:
  int mount_lower() {
    if (kind_ == over_hostfs) return host_.error();
    const char *at = kind_ == over_tarn ? "/base" : "/lower";
    int error = test_mkdir(at);
    if (!error) error = uk_fs_mount("none", at, "memfs", 0, memfs_options());
    if (error || kind_ != over_tarn) return error;
    error = test_mkdir("/lower");
    return error ? error : uk_fs_mount("/base", "/lower", "tarn", 0, nullptr);
  }
  const char *memfs_options() const {
    switch (kind_) {
      case over_memfs_without_xattr:
        return "noxattr";
      case over_memfs_without_fsync:
        return "nofsync";
      case over_memfs_without_direct_io:
        return "nodirect";
      case over_memfs_that_revalidates:
        return "revalidate";
      case over_nfs:
        return "nfs,revalidate";
      default:
        return nullptr;
    }
  }

  enum lower_kind kind_;
  host_dir host_; /* /lower itself, where it is hostfs */
  int error_;
  test_daemon daemon_;
};

#define LOWER_CASE_OVER_(kind, name) \
  MODULE_CASE(kind, name) {          \
    lower_mount mount(kind);         \
    REQUIRE_EQ(mount.error(), 0);    \
    case_##name(mount);              \
  }

#define LOWER_CASE(name)                               \
  static void case_##name(lower_mount &);              \
  LOWER_CASE_OVER_(over_memfs, name)                   \
  LOWER_CASE_OVER_(over_memfs_without_xattr, name)     \
  LOWER_CASE_OVER_(over_memfs_without_fsync, name)     \
  LOWER_CASE_OVER_(over_memfs_without_direct_io, name) \
  LOWER_CASE_OVER_(over_memfs_that_revalidates, name)  \
  LOWER_CASE_OVER_(over_nfs, name)                     \
  LOWER_CASE_OVER_(over_hostfs, name)                  \
  LOWER_CASE_OVER_(over_tarn, name)                    \
  static void case_##name(lower_mount &mount)

#endif
