// SPDX-License-Identifier: GPL-2.0
// Mode bits, capabilities and the special marks of inodes.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

int may(const char *path, int mask) {
  struct nameidata nd;
  int error = path_lookup(path, 0, &nd);
  if (error) return error;
  error = permission(nd.dentry->d_inode, mask, &nd);
  path_release(&nd);
  return error;
}

int make(const char *path, umode_t mode, uid_t uid, gid_t gid) {
  int error = name_write(path, 0600, "x");
  if (!error) error = name_chown(path, uid, gid);
  return error ? error : name_chmod(path, mode);
}

void set_flag(const char *path, unsigned flag) {
  struct nameidata nd;
  REQUIRE_EQ(path_lookup(path, 0, &nd), 0);
  nd.dentry->d_inode->i_flags |= flag;
  path_release(&nd);
}

void clear_flag(const char *path, unsigned flag) {
  struct nameidata nd;
  REQUIRE_EQ(path_lookup(path, 0, &nd), 0);
  nd.dentry->d_inode->i_flags &= ~flag;
  path_release(&nd);
}

}  // namespace

CASE(permission, owner_group_other) {
  REQUIRE_EQ(make("/f", 0640, 1000, 2000), 0);
  {
    as_user owner(1000, 1);
    EXPECT_EQ(may("/f", MAY_READ | MAY_WRITE), 0);
    EXPECT_EQ(may("/f", MAY_EXEC), -EACCES);
  }
  {
    as_user group(1001, 2000);
    EXPECT_EQ(may("/f", MAY_READ), 0);
    EXPECT_EQ(may("/f", MAY_WRITE), -EACCES);
    EXPECT_EQ(may("/f", MAY_READ | MAY_WRITE), -EACCES);
  }
  as_user other(1001, 2001);
  EXPECT_EQ(may("/f", MAY_READ), -EACCES);
}

CASE(permission, first_class_that_applies_decides) {
  REQUIRE_EQ(make("/f", 0077, 1000, 2000), 0);
  {
    as_user owner(1000, 2000);
    EXPECT_EQ(may("/f", MAY_READ), -EACCES);
  }
  REQUIRE_EQ(name_chmod("/f", 0707), 0);
  as_user group(1001, 2000);
  EXPECT_EQ(may("/f", MAY_READ), -EACCES);
}

CASE(permission, root_may_execute_only_programs) {
  REQUIRE_EQ(make("/f", 0000, 1000, 1000), 0);
  EXPECT_EQ(may("/f", MAY_READ | MAY_WRITE), 0);
  EXPECT_EQ(may("/f", MAY_EXEC), -EACCES);
  REQUIRE_EQ(name_chmod("/f", 0001), 0);
  EXPECT_EQ(may("/f", MAY_EXEC), 0);
  REQUIRE_EQ(name_mkdir("/d", 0000), 0);
  EXPECT_EQ(may("/d", MAY_EXEC), 0);
}

CASE(permission, read_search_capability) {
  REQUIRE_EQ(make("/f", 0000, 1, 1), 0);
  REQUIRE_EQ(name_mkdir("/d", 0000), 0);
  as_user user(1000, 1000);
  cap_raise(current->cap_effective, CAP_DAC_READ_SEARCH);
  EXPECT_EQ(may("/f", MAY_READ), 0);
  EXPECT_EQ(may("/f", MAY_WRITE), -EACCES);
  EXPECT_EQ(may("/d", MAY_READ | MAY_EXEC), 0);
  EXPECT_EQ(may("/d", MAY_WRITE | MAY_EXEC), -EACCES);
}

CASE(permission, immutable) {
  REQUIRE_EQ(make("/f", 0666, 0, 0), 0);
  set_flag("/f", S_IMMUTABLE);
  EXPECT_EQ(may("/f", MAY_WRITE), -EACCES);
  EXPECT_EQ(may("/f", MAY_READ), 0);
  EXPECT_EQ(name_unlink("/f"), -EPERM);
  clear_flag("/f", S_IMMUTABLE);
  EXPECT_EQ(name_unlink("/f"), 0);
}

CASE(permission, append_only) {
  REQUIRE_EQ(make("/f", 0666, 0, 0), 0);
  set_flag("/f", S_APPEND);
  EXPECT_EQ(name_open("/f", O_WRONLY, 0), -EPERM);
  EXPECT_EQ(name_open("/f", O_WRONLY | O_APPEND | O_TRUNC, 0), -EPERM);
  EXPECT_EQ(name_open("/f", O_WRONLY | O_APPEND, 0), 0);
  EXPECT_EQ(name_link("/f", "/g"), -EPERM);
  EXPECT_EQ(name_unlink("/f"), -EPERM);
  clear_flag("/f", S_APPEND);
}

CASE(permission, sticky_directory) {
  REQUIRE_EQ(name_mkdir("/t", 0777), 0);
  REQUIRE_EQ(name_chmod("/t", 01777), 0);
  {
    as_user one(1000, 1000);
    REQUIRE_EQ(name_write("/t/f", 0666, "x"), 0);
  }
  {
    as_user two(1001, 1001);
    EXPECT_EQ(name_unlink("/t/f"), -EPERM);
    EXPECT_EQ(name_rename("/t/f", "/t/g"), -EPERM);
  }
  {
    as_user one(1000, 1000);
    EXPECT_EQ(name_unlink("/t/f"), 0);
  }
}

CASE(permission, directory_must_be_writable) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0666, "x"), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_write("/d/g", 0644, "x"), -EACCES);
  EXPECT_EQ(name_mkdir("/d/e", 0755), -EACCES);
  EXPECT_EQ(name_unlink("/d/f"), -EACCES);
  EXPECT_EQ(name_symlink("x", "/d/l"), -EACCES);
  EXPECT_EQ(name_write("/d/f", 0644, "y"), 0);
}

CASE(permission, writers_and_deniers_exclude_each_other) {
  REQUIRE_EQ(make("/f", 0755, 0, 0), 0);
  struct file *reader = filp_open("/f", O_RDONLY, 0);
  REQUIRE_TRUE(!IS_ERR(reader));
  struct inode *inode = reader->f_dentry->d_inode;
  EXPECT_EQ(deny_write_access(reader), 0);
  EXPECT_EQ(get_write_access(inode), -ETXTBSY);
  EXPECT_EQ(name_open("/f", O_WRONLY, 0), -ETXTBSY);
  EXPECT_EQ(name_open("/f", O_RDONLY | O_TRUNC, 0), -ETXTBSY);
  EXPECT_EQ(deny_write_access(reader), 0);
  EXPECT_EQ(atomic_read(&inode->i_writecount), -2);
  allow_write_access(reader);
  allow_write_access(reader);
  EXPECT_EQ(get_write_access(inode), 0);
  EXPECT_EQ(deny_write_access(reader), -ETXTBSY);
  put_write_access(inode);
  EXPECT_EQ(atomic_read(&inode->i_writecount), 0);
  filp_close(reader, NULL);
}

CASE(permission, mknod_of_devices_needs_a_capability) {
  REQUIRE_EQ(name_mkdir("/d", 0777), 0);
  REQUIRE_EQ(name_chmod("/d", 0777), 0);
  EXPECT_EQ(name_mknod("/d/null", S_IFCHR | 0666, MKDEV(1, 3)), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_mknod("/d/zero", S_IFCHR | 0666, MKDEV(1, 5)), -EPERM);
  EXPECT_EQ(name_mknod("/d/fifo", S_IFIFO | 0666, 0), 0);
}
