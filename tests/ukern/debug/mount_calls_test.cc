// SPDX-License-Identifier: GPL-2.0
// mount, umount and the mount table as the hosting program has them.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"
#include "tests/ukern/testfs.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"
#include "ukern/door/uk_fs.h"

static bool has_line(const char *wanted) {
  char line[512];
  for (unsigned i = 0; uk_fs_mount_line(i, line, sizeof(line)) == 0; i++)
    if (strcmp(line, wanted) == 0) return true;
  return false;
}

static int mount_memfs(const char *dir, unsigned long flags = 0) {
  return uk_fs_mount("scratch", dir, "memfs", flags, NULL);
}

CASE(mount_calls, mount_and_umount) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  EXPECT_TRUE(has_line("scratch /mnt memfs rw 0 0"));
  EXPECT_EQ(name_mkdir("/mnt/inside", 0755), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  EXPECT_FALSE(has_line("scratch /mnt memfs rw 0 0"));
  struct kstat stat;
  EXPECT_EQ(name_stat("/mnt/inside", &stat), -ENOENT);
}

CASE(mount_calls, the_root_is_in_the_table) {
  char line[512];
  REQUIRE_EQ(uk_fs_mount_line(0, line, sizeof(line)), 0);
  EXPECT_STREQ(line, "none / memfs rw 0 0");
  EXPECT_EQ(uk_fs_mount_line(1, line, sizeof(line)), -ENOENT);
  EXPECT_EQ(uk_fs_mount_line(0, line, 5), -ERANGE);
}

CASE(mount_calls, errors) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(name_mknod("/file", S_IFREG | 0644, 0), 0);
  EXPECT_EQ(mount_memfs("/nowhere"), -ENOENT);
  EXPECT_EQ(mount_memfs("/file"), -ENOTDIR);
  EXPECT_EQ(mount_memfs(""), -EINVAL);
  EXPECT_EQ(uk_fs_mount("x", "/mnt", "no such type", 0, NULL), -ENODEV);
  EXPECT_EQ(uk_fs_mount("x", "/mnt", NULL, 0, NULL), -EINVAL);
  EXPECT_EQ(mount_memfs("/mnt", MS_MOVE), -EINVAL);
  EXPECT_EQ(uk_fs_mount("/", "/mnt", NULL, MS_BIND | MS_REC, NULL), -EINVAL);
  EXPECT_EQ(uk_fs_mount("/nowhere", "/mnt", NULL, MS_BIND, NULL), -ENOENT);
  EXPECT_EQ(uk_fs_mount(NULL, "/mnt", NULL, MS_BIND, NULL), -EINVAL);
  EXPECT_EQ(uk_fs_mount("/file", "/mnt", NULL, MS_BIND, NULL), -ENOTDIR);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), -EINVAL);
  EXPECT_EQ(uk_fs_umount("/nowhere", 0), -ENOENT);
}

CASE(mount_calls, need_the_capability) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  {
    as_user user(1000, 1000);
    EXPECT_EQ(mount_memfs("/mnt"), -EPERM);
    EXPECT_EQ(uk_fs_umount("/mnt", 0), -EPERM);
    EXPECT_EQ(mount_memfs("/mnt", MS_REMOUNT | MS_RDONLY), -EPERM);
  }
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, a_directory_is_bound_to_a_second_place) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(name_mkdir("/at", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/dir", 0755), 0);
  {
    as_user user(1000, 1000);
    EXPECT_EQ(uk_fs_mount("/mnt/dir", "/at", NULL, MS_BIND, NULL), -EPERM);
  }
  REQUIRE_EQ(uk_fs_mount("/mnt/dir", "/at", NULL, MS_BIND, NULL), 0);
  EXPECT_TRUE(has_line("scratch /at memfs rw 0 0"));
  EXPECT_EQ(name_mkdir("/at/inside", 0755), 0);
  struct kstat stat;
  EXPECT_EQ(name_stat("/mnt/dir/inside", &stat), 0);
  struct nameidata first, second;
  REQUIRE_EQ(path_lookup("/mnt/dir", 0, &first), 0);
  REQUIRE_EQ(path_lookup("/at", 0, &second), 0);
  EXPECT_TRUE(first.dentry == second.dentry);
  EXPECT_FALSE(first.mnt == second.mnt);
  path_release(&second);
  path_release(&first);
  // The super block lives as long as one of the two.
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  EXPECT_EQ(name_stat("/at/inside", &stat), 0);
  EXPECT_EQ(uk_fs_umount("/at", 0), 0);
}

CASE(mount_calls, busy_while_somebody_is_inside) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/dir", 0755), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/mnt/dir", 0, &nd), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), -EBUSY);
  EXPECT_TRUE(may_umount(nd.mnt));
  mntget(nd.mnt);
  EXPECT_FALSE(may_umount(nd.mnt));
  mntput(nd.mnt);
  path_release(&nd);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, busy_while_something_is_mounted_inside) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/in", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt/in"), 0);
  EXPECT_TRUE(has_line("scratch /mnt/in memfs rw 0 0"));
  EXPECT_EQ(uk_fs_umount("/mnt", 0), -EBUSY);
  EXPECT_EQ(uk_fs_umount("/mnt/in", 0), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, one_on_top_of_the_other) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/lower", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  struct kstat stat;
  EXPECT_EQ(name_stat("/mnt/lower", &stat), -ENOENT);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  EXPECT_EQ(name_stat("/mnt/lower", &stat), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, detached_mount_lives_until_its_last_user_goes) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/dir", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt/dir"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/mnt", 0, &nd), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", MNT_DETACH), 0);
  EXPECT_FALSE(has_line("scratch /mnt memfs rw 0 0"));
  EXPECT_FALSE(has_line("scratch /mnt/dir memfs rw 0 0"));
  EXPECT_TRUE(nd.mnt->mnt_parent == nd.mnt);
  char path[64];
  EXPECT_STREQ(d_path(nd.dentry, nd.mnt, path, sizeof(path)), "/");
  path_release(&nd);
}

CASE(mount_calls, expire_takes_two_calls) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", MNT_EXPIRE | MNT_DETACH), -EINVAL);
  EXPECT_EQ(uk_fs_umount("/mnt", MNT_EXPIRE), -EAGAIN);
  struct kstat stat;
  EXPECT_EQ(name_stat("/mnt/.", &stat), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", MNT_EXPIRE), -EAGAIN);
  EXPECT_EQ(uk_fs_umount("/mnt", MNT_EXPIRE), 0);
}

CASE(mount_calls, flags_are_shown) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt", MS_RDONLY | MS_NOSUID | MS_NOATIME | MS_SYNCHRONOUS), 0);
  EXPECT_TRUE(has_line("scratch /mnt memfs ro,sync,nosuid,noatime 0 0"));
  EXPECT_EQ(name_mkdir("/mnt/dir", 0755), -EROFS);
  EXPECT_EQ(mount_memfs("/mnt", MS_REMOUNT | MS_NODEV), 0);
  EXPECT_TRUE(has_line("scratch /mnt memfs rw,nodev 0 0"));
  EXPECT_EQ(name_mkdir("/mnt/dir", 0755), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, no_read_only_with_a_file_open_for_writing) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  struct file *file = filp_open("/mnt/file", O_CREAT | O_WRONLY, 0644);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(mount_memfs("/mnt", MS_REMOUNT | MS_RDONLY), -EBUSY);
  filp_close(file, NULL);
  EXPECT_EQ(mount_memfs("/mnt", MS_REMOUNT | MS_RDONLY), 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

CASE(mount_calls, names_are_escaped) {
  REQUIRE_EQ(name_mkdir("/a b", 0755), 0);
  REQUIRE_EQ(uk_fs_mount("x\ty", "/a b", "memfs", 0, NULL), 0);
  EXPECT_TRUE(has_line("x\\011y /a\\040b memfs rw 0 0"));
  EXPECT_EQ(uk_fs_umount("/a b", 0), 0);
}

CASE(mount_calls, path_through_a_mount) {
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  REQUIRE_EQ(mount_memfs("/mnt"), 0);
  REQUIRE_EQ(name_mkdir("/mnt/dir", 0755), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/mnt/dir", 0, &nd), 0);
  char path[64];
  EXPECT_STREQ(d_path(nd.dentry, nd.mnt, path, sizeof(path)), "/mnt/dir");
  path_release(&nd);
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  EXPECT_TRUE(have_submounts(nd.dentry));
  path_release(&nd);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  EXPECT_FALSE(have_submounts(nd.dentry));
  path_release(&nd);
}

CASE(mount_calls, mount_survives_each_failed_allocation) {
  testfs fs;
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  int err = -ENOMEM;
  for (unsigned long n = 1; n < 200 && err; n++) {
    uk_fault_arm(n);
    err = uk_fs_mount("x", "/mnt", "testfs", 0, NULL);
    uk_fault_arm(0);
    if (err) EXPECT_EQ(err, -ENOMEM);
  }
  EXPECT_EQ(err, 0);
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}
