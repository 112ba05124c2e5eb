// SPDX-License-Identifier: GPL-2.0
// Moving names.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

bool exists(const char *path) {
  struct kstat stat;
  return !name_stat(path, &stat);
}

unsigned long ino(const char *path) {
  struct kstat stat;
  return name_stat(path, &stat) ? 0 : (unsigned long)stat.ino;
}

}  // namespace

CASE(rename, within_and_between_directories) {
  REQUIRE_EQ(name_mkdir("/a", 0755), 0);
  REQUIRE_EQ(name_mkdir("/b", 0755), 0);
  REQUIRE_EQ(name_write("/a/f", 0644, "x"), 0);
  const unsigned long number = ino("/a/f");
  EXPECT_EQ(name_rename("/a/f", "/a/g"), 0);
  EXPECT_FALSE(exists("/a/f"));
  EXPECT_EQ(ino("/a/g"), number);
  EXPECT_EQ(name_rename("/a/g", "/b/h"), 0);
  EXPECT_FALSE(exists("/a/g"));
  EXPECT_EQ(ino("/b/h"), number);
  EXPECT_EQ(name_rename("/a/none", "/b/none"), -ENOENT);
}

CASE(rename, dentry_moves_along) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  REQUIRE_EQ(name_rename("/f", "/d/a_name_that_is_too_long_to_be_kept_in_the_dentry_itself"), 0);
  EXPECT_EQ(nd.dentry->d_name.len, 55u);
  EXPECT_EQ(nd.dentry->d_parent->d_name.len, 1u);
  EXPECT_FALSE(d_unhashed(nd.dentry));
  path_release(&nd);
}

CASE(rename, over_something) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_mkdir("/e", 0755), 0);
  REQUIRE_EQ(name_mkdir("/full", 0755), 0);
  REQUIRE_EQ(name_write("/full/x", 0644, "x"), 0);
  REQUIRE_EQ(name_write("/f", 0644, "f"), 0);
  REQUIRE_EQ(name_write("/g", 0644, "g"), 0);
  EXPECT_EQ(name_rename("/f", "/d"), -EISDIR);
  EXPECT_EQ(name_rename("/d", "/f"), -ENOTDIR);
  EXPECT_EQ(name_rename("/d", "/full"), -ENOTEMPTY);
  const unsigned long d = ino("/d");
  EXPECT_EQ(name_rename("/d", "/e"), 0);
  EXPECT_EQ(ino("/e"), d);
  EXPECT_FALSE(exists("/d"));
  char buf[4];
  EXPECT_EQ(name_rename("/f", "/g"), 0);
  REQUIRE_EQ(name_read("/g", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "f");
}

CASE(rename, two_names_of_one_file) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  REQUIRE_EQ(name_link("/f", "/g"), 0);
  EXPECT_EQ(name_rename("/f", "/g"), 0);
  EXPECT_TRUE(exists("/f"));
  EXPECT_TRUE(exists("/g"));
}

CASE(rename, moved_directory_must_be_writable) {
  REQUIRE_EQ(name_mkdir("/a", 0777), 0);
  REQUIRE_EQ(name_mkdir("/b", 0777), 0);
  REQUIRE_EQ(name_chmod("/a", 0777), 0);
  REQUIRE_EQ(name_chmod("/b", 0777), 0);
  REQUIRE_EQ(name_mkdir("/a/d", 0755), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_rename("/a/d", "/a/e"), 0);
  EXPECT_EQ(name_rename("/a/e", "/b/e"), -EACCES);
}

CASE(rename, lock_order) {
  REQUIRE_EQ(name_mkdir("/a", 0755), 0);
  REQUIRE_EQ(name_mkdir("/a/b", 0755), 0);
  REQUIRE_EQ(name_mkdir("/a/b/c", 0755), 0);
  REQUIRE_EQ(name_mkdir("/other", 0755), 0);
  struct nameidata a, b, c, other;
  REQUIRE_EQ(path_lookup("/a", 0, &a), 0);
  REQUIRE_EQ(path_lookup("/a/b", 0, &b), 0);
  REQUIRE_EQ(path_lookup("/a/b/c", 0, &c), 0);
  REQUIRE_EQ(path_lookup("/other", 0, &other), 0);
  // The child of one on the way to the other, whichever comes first.
  EXPECT_TRUE(lock_rename(a.dentry, c.dentry) == b.dentry);
  unlock_rename(a.dentry, c.dentry);
  EXPECT_TRUE(lock_rename(c.dentry, a.dentry) == b.dentry);
  unlock_rename(c.dentry, a.dentry);
  EXPECT_TRUE(lock_rename(a.dentry, b.dentry) == b.dentry);
  unlock_rename(a.dentry, b.dentry);
  EXPECT_FALSE(lock_rename(other.dentry, c.dentry));
  EXPECT_TRUE(mutex_is_locked(&other.dentry->d_inode->i_mutex));
  EXPECT_TRUE(mutex_is_locked(&c.dentry->d_inode->i_mutex));
  unlock_rename(other.dentry, c.dentry);
  EXPECT_FALSE(lock_rename(a.dentry, a.dentry));
  unlock_rename(a.dentry, a.dentry);
  EXPECT_FALSE(mutex_is_locked(&a.dentry->d_inode->i_mutex));
  path_release(&a);
  path_release(&b);
  path_release(&c);
  path_release(&other);
}
