// SPDX-License-Identifier: GPL-2.0
// Extended attributes.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"
#include <linux/xattr.h>

namespace {

struct dentry *held(const char *path) {
  struct nameidata nd;
  if (path_lookup(path, 0, &nd)) return NULL;
  struct dentry *dentry = dget(nd.dentry);
  path_release(&nd);
  return dentry;
}

int set(struct dentry *dentry, const char *name, const char *value, int flags) {
  return vfs_setxattr(dentry, (char *)name, (void *)value, strlen(value), flags);
}

ssize_t get(struct dentry *dentry, const char *name, char *buf, size_t size) {
  return vfs_getxattr(dentry, (char *)name, buf, size);
}

}  // namespace

CASE(xattr, set_get_remove) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  struct dentry *f = held("/f");
  REQUIRE_TRUE(f);
  char buf[16] = {};
  EXPECT_EQ(get(f, "user.a", buf, sizeof(buf)), (ssize_t)-ENODATA);
  EXPECT_EQ(set(f, "user.a", "value", 0), 0);
  EXPECT_EQ(get(f, "user.a", NULL, 0), 5);
  EXPECT_EQ(get(f, "user.a", buf, sizeof(buf)), 5);
  EXPECT_STREQ(buf, "value");
  EXPECT_EQ(get(f, "user.a", buf, 2), (ssize_t)-ERANGE);
  EXPECT_EQ(set(f, "user.a", "v", XATTR_CREATE), -EEXIST);
  EXPECT_EQ(set(f, "user.b", "v", XATTR_REPLACE), -ENODATA);
  EXPECT_EQ(set(f, "user.a", "v", XATTR_REPLACE), 0);
  EXPECT_EQ(vfs_removexattr(f, (char *)"user.a"), 0);
  EXPECT_EQ(vfs_removexattr(f, (char *)"user.a"), -ENODATA);
  dput(f);
}

CASE(xattr, user_space_is_for_files_and_directories) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_symlink("x", "/l"), 0);
  REQUIRE_EQ(name_mkdir("/t", 0777), 0);
  REQUIRE_EQ(name_chmod("/t", 01777), 0);
  struct dentry *d = held("/d"), *l = held("/l"), *t = held("/t");
  REQUIRE_TRUE(d && l && t);
  EXPECT_EQ(set(d, "user.a", "v", 0), 0);
  EXPECT_EQ(set(l, "user.a", "v", 0), -EPERM);
  EXPECT_EQ(set(t, "user.a", "v", 0), -EPERM);
  dput(d);
  dput(l);
  dput(t);
}

CASE(xattr, permissions) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  struct dentry *f = held("/f");
  REQUIRE_TRUE(f);
  EXPECT_EQ(set(f, "user.a", "v", 0), 0);
  EXPECT_EQ(set(f, "trusted.a", "v", 0), 0);
  {
    char buf[4];
    as_user user(1000, 1000);
    EXPECT_EQ(get(f, "user.a", buf, sizeof(buf)), 1);
    EXPECT_EQ(set(f, "user.a", "w", 0), -EACCES);
    EXPECT_EQ(vfs_removexattr(f, (char *)"user.a"), -EACCES);
    EXPECT_EQ(get(f, "trusted.a", buf, sizeof(buf)), (ssize_t)-EPERM);
    EXPECT_EQ(set(f, "trusted.a", "w", 0), -EPERM);
  }
  {
    as_user owner(f->d_inode->i_uid, f->d_inode->i_gid);
    EXPECT_EQ(set(f, "security.a", "w", 0), -EPERM);
    EXPECT_EQ(vfs_removexattr(f, (char *)"security.a"), -EPERM);
  }
  f->d_inode->i_flags |= S_IMMUTABLE;
  EXPECT_EQ(set(f, "user.a", "w", 0), -EPERM);
  f->d_inode->i_flags &= ~S_IMMUTABLE;
  dput(f);
}
