// SPDX-License-Identifier: GPL-2.0
// Making, linking, reading and removing names.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

unsigned links(const char *path) {
  struct kstat stat;
  return name_stat(path, &stat) ? 0 : (unsigned)stat.nlink;
}

int text_of(const char *path, char *buf, int size) {
  struct nameidata nd;
  int result = path_lookup(path, 0, &nd);
  if (result) return result;
  kernel_buffers use;
  result = nd.dentry->d_inode->i_op->readlink(nd.dentry, buf, size);
  path_release(&nd);
  return result;
}

}  // namespace

CASE(link, hard_links) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  EXPECT_EQ(links("/f"), 1u);
  EXPECT_EQ(name_link("/f", "/d/g"), 0);
  EXPECT_EQ(links("/f"), 2u);
  EXPECT_EQ(name_link("/f", "/d/g"), -EEXIST);
  EXPECT_EQ(name_link("/d", "/e"), -EPERM);
  EXPECT_EQ(name_link("/none", "/e"), -ENOENT);
  EXPECT_EQ(name_unlink("/f"), 0);
  EXPECT_EQ(links("/d/g"), 1u);
}

CASE(link, symbolic_links) {
  char buf[16] = {};
  REQUIRE_EQ(name_symlink("some/where", "/l"), 0);
  EXPECT_EQ(text_of("/l", buf, sizeof(buf)), 10);
  EXPECT_STREQ(buf, "some/where");
  memset(buf, 0, sizeof(buf));
  EXPECT_EQ(text_of("/l", buf, 4), 4);
  EXPECT_STREQ(buf, "some");
  EXPECT_EQ(name_symlink("x", "/l"), -EEXIST);
  EXPECT_EQ(name_unlink("/l"), 0);
}

CASE(link, readlink_cuts_and_reports) {
  char buf[8] = {};
  kernel_buffers use;
  EXPECT_EQ(vfs_readlink(NULL, buf, 8, "abc"), 3);
  EXPECT_EQ(vfs_readlink(NULL, buf, 2, "xyz"), 2);
  EXPECT_STREQ(buf, "xyc");
  EXPECT_EQ(vfs_readlink(NULL, buf, 8, (const char *)ERR_PTR(-EIO)), -EIO);
}

CASE(link, directories) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  EXPECT_EQ(name_mkdir("/d", 0755), -EEXIST);
  EXPECT_EQ(name_mkdir("/none/d", 0755), -ENOENT);
  REQUIRE_EQ(name_mkdir("/d/e", 0755), 0);
  EXPECT_EQ(links("/d"), 3u);
  EXPECT_EQ(name_rmdir("/d"), -ENOTEMPTY);
  EXPECT_EQ(name_unlink("/d"), -EISDIR);
  EXPECT_EQ(name_rmdir("/none"), -ENOENT);
  EXPECT_EQ(name_rmdir("/d/e"), 0);
  EXPECT_EQ(name_rmdir("/d"), 0);
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  EXPECT_EQ(name_rmdir("/f"), -ENOTDIR);
}

CASE(link, mode_bits_of_new_objects) {
  struct kstat stat;
  REQUIRE_EQ(name_mkdir("/d", 07777), 0);
  REQUIRE_EQ(name_stat("/d", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFDIR | 01777);
  REQUIRE_EQ(name_mknod("/p", S_IFIFO | 0640, 0), 0);
  REQUIRE_EQ(name_stat("/p", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFIFO | 0640);
  REQUIRE_EQ(name_mknod("/c", S_IFCHR | 0600, MKDEV(4, 64)), 0);
  REQUIRE_EQ(name_stat("/c", &stat), 0);
  EXPECT_EQ(stat.rdev, MKDEV(4, 64));
}

CASE(link, nothing_is_made_in_a_removed_directory) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/d", 0, &nd), 0);
  REQUIRE_EQ(name_rmdir("/d"), 0);
  struct inode *dir = nd.dentry->d_inode;
  REQUIRE_TRUE(dir);
  EXPECT_TRUE(IS_DEADDIR(dir));
  mutex_lock(&dir->i_mutex);
  struct qstr name = {};
  name.name = (const unsigned char *)"x";
  name.len = 1;
  name.hash = full_name_hash(name.name, 1);
  struct dentry *dentry = d_alloc(nd.dentry, &name);
  EXPECT_EQ(vfs_mkdir(dir, dentry, 0755), -ENOENT);
  EXPECT_EQ(vfs_create(dir, dentry, 0644, &nd), -ENOENT);
  dput(dentry);
  mutex_unlock(&dir->i_mutex);
  path_release(&nd);
}

CASE(link, exclusion_of_the_other_kind) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  EXPECT_EQ(name_mkdir("/f", 0755), -EEXIST);
  EXPECT_EQ(name_mkdir("/f/d", 0755), -ENOTDIR);
  EXPECT_EQ(name_symlink("x", "/f"), -EEXIST);
  // A slash behind the name of something that is no directory.
  EXPECT_EQ(name_symlink("x", "/new/"), -ENOENT);
  EXPECT_EQ(name_mkdir("/new/", 0755), 0);
}
