// SPDX-License-Identifier: GPL-2.0
// File system types and super blocks.
#include "tests/ukern/testfs.h"

CASE(super, a_name_is_registered_once) {
  testfs fs;
  struct file_system_type twin = {};
  twin.name = "testfs";
  EXPECT_EQ(register_filesystem(&twin), -EBUSY);
  EXPECT_EQ(unregister_filesystem(&twin), -EINVAL);
}

CASE(super, each_nodev_mount_has_its_own) {
  testfs fs;
  struct vfsmount *other = kern_mount(&fs.type);
  REQUIRE_TRUE(!IS_ERR(other));
  EXPECT_TRUE(other->mnt_sb != fs.sb());
  EXPECT_NE(other->mnt_sb->s_dev, fs.sb()->s_dev);
  EXPECT_TRUE(other->mnt_root == other->mnt_sb->s_root);
  EXPECT_TRUE(other->mnt_parent == other);
  EXPECT_TRUE(other->mnt_sb->s_flags & MS_ACTIVE);
  EXPECT_EQ(atomic_read(&other->mnt_sb->s_active), 1);
  EXPECT_STREQ(other->mnt_sb->s_id, "testfs");
  mntput(other);
  EXPECT_EQ(fs.n.killed, 1);
}

CASE(super, failed_fill_leaves_nothing) {
  testfs fs;
  fs.fill_error = -EMFILE;
  struct vfsmount *mnt = kern_mount(&fs.type);
  EXPECT_EQ(PTR_ERR(mnt), -EMFILE);
  EXPECT_EQ(fs.n.killed, 1);
  EXPECT_EQ(fs.n.put_supers, 0);
}

static int empty_fill(struct super_block *sb, void *, int) {
  static struct super_operations ops = {};
  sb->s_op = &ops;
  struct inode *inode = new_inode(sb);
  if (!inode) return -ENOMEM;
  inode->i_mode = S_IFDIR | 0755;
  sb->s_root = d_alloc_root(inode);
  return sb->s_root ? 0 : -ENOMEM;
}

static int get_single(struct file_system_type *type, int flags, const char *, void *data,
                      struct vfsmount *mnt) {
  return get_sb_single(type, flags, data, empty_fill, mnt);
}

CASE(super, single_mounts_share_one) {
  static struct file_system_type type;  // lock classes are static
  type = {};
  type.name = "single";
  type.get_sb = get_single;
  type.kill_sb = kill_anon_super;
  REQUIRE_EQ(register_filesystem(&type), 0);
  struct vfsmount *one = kern_mount(&type);
  struct vfsmount *two = kern_mount(&type);
  if (!IS_ERR(one) && !IS_ERR(two)) {
    EXPECT_TRUE(one->mnt_sb == two->mnt_sb);
    EXPECT_EQ(atomic_read(&one->mnt_sb->s_active), 2);
    mntput(one);
    EXPECT_TRUE(two->mnt_sb->s_root != NULL);
    mntput(two);
  }
  EXPECT_EQ(unregister_filesystem(&type), 0);
}

CASE(super, shutdown_waits_for_the_last_mount) {
  testfs fs;
  mntget(fs.mnt);
  mntput(fs.mnt);
  EXPECT_EQ(fs.n.killed, 0);
  fs.unmount();
  EXPECT_EQ(fs.n.killed, 1);
  EXPECT_EQ(fs.n.put_supers, 1);
}

struct freezer {
  struct super_block *sb;
  struct completion passed;
};

static int pass_the_freeze(void *data) {
  struct freezer *freezer = (struct freezer *)data;
  vfs_check_frozen(freezer->sb, SB_FREEZE_WRITE);
  complete(&freezer->passed);
  return 0;
}

CASE(super, frozen_super_block_holds_writers_up) {
  testfs fs;
  struct freezer freezer = {};
  freezer.sb = fs.sb();
  init_completion(&freezer.passed);
  vfs_check_frozen(fs.sb(), SB_FREEZE_WRITE);
  __atomic_store_n(&fs.sb()->s_frozen, SB_FREEZE_WRITE, __ATOMIC_RELAXED);
  struct task_struct *task = kthread_run(pass_the_freeze, &freezer, "writer");
  REQUIRE_TRUE(!IS_ERR(task));
  EXPECT_EQ(wait_for_completion_timeout(&freezer.passed, HZ / 20), 0ul);
  __atomic_store_n(&fs.sb()->s_frozen, SB_UNFROZEN, __ATOMIC_RELAXED);
  wake_up(&fs.sb()->s_wait_unfrozen);
  wait_for_completion(&freezer.passed);
}
