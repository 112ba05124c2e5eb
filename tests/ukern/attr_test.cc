// SPDX-License-Identifier: GPL-2.0
// Reading and changing attributes.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

umode_t mode_of(const char *path) {
  struct kstat stat;
  return name_stat(path, &stat) ? 0 : (umode_t)(stat.mode & S_IALLUGO);
}

int make_for(const char *path, uid_t uid, gid_t gid, umode_t mode) {
  int error = name_write(path, 0600, "content");
  if (!error) error = name_chown(path, uid, gid);
  return error ? error : name_chmod(path, mode);
}

}  // namespace

CASE(attr, chmod_is_for_the_owner) {
  REQUIRE_EQ(make_for("/f", 1000, 1000, 0644), 0);
  {
    as_user other(1001, 1001);
    EXPECT_EQ(name_chmod("/f", 0600), -EPERM);
  }
  {
    as_user owner(1000, 1000);
    EXPECT_EQ(name_chmod("/f", 0600), 0);
  }
  EXPECT_EQ(mode_of("/f"), 0600);
  EXPECT_EQ(name_chmod("/f", 0640), 0);
  EXPECT_EQ(mode_of("/f"), 0640);
}

CASE(attr, set_group_id_needs_the_group) {
  REQUIRE_EQ(make_for("/f", 1000, 2000, 0644), 0);
  {
    as_user owner(1000, 1000);
    EXPECT_EQ(name_chmod("/f", 02755), 0);
  }
  EXPECT_EQ(mode_of("/f"), 0755);
  {
    as_user owner(1000, 2000);
    EXPECT_EQ(name_chmod("/f", 02755), 0);
  }
  EXPECT_EQ(mode_of("/f"), 02755);
}

CASE(attr, chown) {
  REQUIRE_EQ(make_for("/f", 1000, 1000, 0644), 0);
  {
    as_user owner(1000, 1000);
    EXPECT_EQ(name_chown("/f", 1001, 1000), -EPERM);
    EXPECT_EQ(name_chown("/f", 1000, 3000), -EPERM);
    EXPECT_EQ(name_chown("/f", 1000, 1000), 0);
  }
  struct kstat stat;
  EXPECT_EQ(name_chown("/f", 1001, 3000), 0);
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.uid, 1001u);
  EXPECT_EQ(stat.gid, 3000u);
}

CASE(attr, kill_set_id_bits) {
  REQUIRE_EQ(make_for("/f", 0, 0, 06755), 0);
  REQUIRE_EQ(mode_of("/f"), 06755);
  struct iattr attr = {};
  attr.ia_valid = ATTR_CTIME | ATTR_KILL_SUID | ATTR_KILL_SGID;
  EXPECT_EQ(name_change("/f", &attr), 0);
  EXPECT_EQ(attr.ia_valid & (unsigned)(ATTR_KILL_SUID | ATTR_KILL_SGID), 0u);
  EXPECT_NE(attr.ia_valid & (unsigned)ATTR_MODE, 0u);
  EXPECT_EQ(mode_of("/f"), 0755);
  // Without group execute the bit is no identity but a lock's mark.
  REQUIRE_EQ(name_chmod("/f", 02644), 0);
  attr.ia_valid = ATTR_CTIME | ATTR_KILL_SGID;
  EXPECT_EQ(name_change("/f", &attr), 0);
  EXPECT_EQ(mode_of("/f"), 02644);
  attr.ia_valid = ATTR_KILL_SUID;
  EXPECT_EQ(name_change("/f", &attr), 0);
}

CASE(attr, times) {
  REQUIRE_EQ(make_for("/f", 1000, 1000, 0666), 0);
  struct iattr attr = {};
  attr.ia_valid = ATTR_ATIME | ATTR_MTIME | ATTR_ATIME_SET | ATTR_MTIME_SET | ATTR_CTIME;
  attr.ia_atime.tv_sec = 100;
  attr.ia_atime.tv_nsec = 1000;
  attr.ia_mtime.tv_sec = 200;
  attr.ia_mtime.tv_nsec = 2000;
  {
    as_user other(1001, 1001);
    struct iattr theirs = attr;
    EXPECT_EQ(name_change("/f", &theirs), -EPERM);
  }
  EXPECT_EQ(name_change("/f", &attr), 0);
  struct kstat stat;
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.atime.tv_sec, 100);
  EXPECT_EQ(stat.mtime.tv_sec, 200);
  EXPECT_EQ(stat.mtime.tv_nsec, 2000);
  EXPECT_LT(200, stat.ctime.tv_sec);
  // Without a value: now.
  attr.ia_valid = ATTR_MTIME;
  EXPECT_EQ(name_change("/f", &attr), 0);
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.atime.tv_sec, 100);
  EXPECT_LT(200, stat.mtime.tv_sec);
}

CASE(attr, size) {
  REQUIRE_EQ(make_for("/f", 0, 0, 0644), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  EXPECT_EQ(do_truncate(nd.dentry, 3, ATTR_MTIME | ATTR_CTIME, NULL), 0);
  EXPECT_EQ(i_size_read(nd.dentry->d_inode), 3);
  EXPECT_EQ(do_truncate(nd.dentry, 6, 0, NULL), 0);
  EXPECT_EQ(do_truncate(nd.dentry, -1, 0, NULL), -EINVAL);
  path_release(&nd);
  char buf[16] = "xxxxxxxxxxxxxxx";
  REQUIRE_EQ(name_read("/f", buf, sizeof(buf)), 0);
  EXPECT_EQ(memcmp(buf, "con\0\0\0", 7), 0);
}

CASE(attr, force_asks_nobody) {
  REQUIRE_EQ(make_for("/f", 1000, 1000, 0644), 0);
  as_user other(1001, 1001);
  struct iattr attr = {};
  attr.ia_valid = ATTR_MODE | ATTR_FORCE;
  attr.ia_mode = S_IFREG | 0600;
  EXPECT_EQ(name_change("/f", &attr), 0);
  EXPECT_EQ(mode_of("/f"), 0600);
}

CASE(attr, stat) {
  REQUIRE_EQ(make_for("/f", 1000, 2000, 0641), 0);
  REQUIRE_EQ(name_link("/f", "/g"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  struct inode *inode = nd.dentry->d_inode;
  struct kstat stat;
  generic_fillattr(inode, &stat);
  EXPECT_EQ(stat.ino, (unsigned long)inode->i_ino);
  EXPECT_EQ(stat.dev, inode->i_sb->s_dev);
  EXPECT_EQ(stat.mode, S_IFREG | 0641);
  EXPECT_EQ(stat.nlink, 2u);
  EXPECT_EQ(stat.uid, 1000u);
  EXPECT_EQ(stat.gid, 2000u);
  EXPECT_EQ(stat.size, 7);
  EXPECT_EQ(vfs_getattr(nd.mnt, nd.dentry, &stat), 0);
  EXPECT_NE(stat.blksize, 0u);
  path_release(&nd);
}

CASE(attr, statfs) {
  struct nameidata nd;
  struct kstatfs figures;
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  EXPECT_EQ(vfs_statfs(nd.dentry, &figures), 0);
  EXPECT_NE(figures.f_bsize, 0);
  EXPECT_NE(figures.f_frsize, 0);
  EXPECT_EQ(vfs_statfs(NULL, &figures), -ENODEV);
  path_release(&nd);
}
