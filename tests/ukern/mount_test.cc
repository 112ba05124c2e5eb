// SPDX-License-Identifier: GPL-2.0
// References on mounts, and attaching one to the name space as far as a module can.
#include "tests/ukern/testfs.h"

CASE(mount, kern_mount_is_attached_nowhere) {
  testfs fs;
  EXPECT_TRUE(fs.mnt->mnt_parent == fs.mnt);
  EXPECT_TRUE(fs.mnt->mnt_mountpoint == fs.root());
  EXPECT_STREQ(fs.mnt->mnt_devname, "testfs");
  EXPECT_EQ(atomic_read(&fs.mnt->mnt_count), 1);
  struct vfsmount *up = mntget(fs.mnt);
  struct dentry *dentry = dget(fs.root());
  EXPECT_EQ(follow_up(&up, &dentry), 0);
  EXPECT_EQ(follow_down(&up, &dentry), 0);
  dput(dentry);
  mntput(up);
}

CASE(mount, mntput_clears_the_expiry_mark) {
  testfs fs;
  mntget(fs.mnt);
  mntget(fs.mnt);
  fs.mnt->mnt_expiry_mark = 1;
  mntput_no_expire(fs.mnt);
  EXPECT_EQ(fs.mnt->mnt_expiry_mark, 1);
  mntput(fs.mnt);
  EXPECT_EQ(fs.mnt->mnt_expiry_mark, 0);
}

CASE(mount, nothing_is_taken_for_a_null_mount) {
  EXPECT_TRUE(mntget(NULL) == NULL);
  mntput(NULL);
}

CASE(mount, add_needs_an_attached_place) {
  testfs fs;
  struct vfsmount *other = kern_mount(&fs.type);
  REQUIRE_TRUE(!IS_ERR(other));
  struct nameidata nd = {};
  nd.mnt = mntget(fs.mnt);
  nd.dentry = dget(fs.root());
  EXPECT_EQ(do_add_mount(other, &nd, 0, NULL), -EINVAL);
  EXPECT_EQ(fs.n.killed, 1);
  path_release(&nd);
}

CASE(mount, add_refuses_a_file_on_a_directory) {
  testfs fs;
  struct vfsmount *other = kern_mount(&fs.type);
  REQUIRE_TRUE(!IS_ERR(other));
  other->mnt_root->d_inode->i_mode = S_IFREG | 0644;
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/", LOOKUP_FOLLOW, &nd), 0);
  EXPECT_EQ(do_add_mount(other, &nd, 0, NULL), -ENOTDIR);
  EXPECT_EQ(fs.n.killed, 1);
  path_release(&nd);
}
