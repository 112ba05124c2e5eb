// SPDX-License-Identifier: GPL-2.0
// Binding of upper to lower objects: lookup, the one inode of many names, refreshed attributes,
// permission.
#include "tests/module/kit/mount.h"
#include "tests/ukern/as_user.h"
#include "tests/ukern/threads.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

void forget_upper_names() {
  uk_drop_caches();
}

}  // namespace

MODULE_CASE(inode, missing_name_is_a_negative_dentry_that_a_creation_binds) {
  test_mount mount;
  EXPECT_EQ(test_walk("/mnt/f").error(), -ENOENT);
  struct dentry *dentry = test_cached("/mnt", "f");
  struct dentry *lower = test_cached("/lower", "f");
  REQUIRE_TRUE(dentry && lower);
  EXPECT_EQ(dentry->d_inode, nullptr);
  EXPECT_EQ(lower->d_inode, nullptr);
  EXPECT_EQ(tarn_lower_dentry(dentry), lower);

  EXPECT_EQ(test_put("/mnt/f", "x"), 1);
  {
    const test_walk walk("/mnt/f");
    EXPECT_EQ(walk.error(), 0);
    EXPECT_EQ(walk.dentry(), dentry);
    EXPECT_EQ(tarn_lower_dentry(walk.dentry()), lower);
    EXPECT_EQ(tarn_lower_inode(walk.inode()), lower->d_inode);
  }
  dput(lower);
  dput(dentry);
}

MODULE_CASE(inode, two_names_of_one_lower_file_are_one_upper_inode) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_link("/lower/a", "/lower/b"), 0);
  const test_walk a("/mnt/a");
  const test_walk b("/mnt/b");
  REQUIRE_TRUE(!a.error() && !b.error());
  EXPECT_NE(a.dentry(), b.dentry());
  EXPECT_EQ(a.inode(), b.inode());
  EXPECT_EQ(a.inode()->i_ino, tarn_lower_inode(a.inode())->i_ino);
}

// An inode that is in the cache takes over what has changed below as a new one does.
MODULE_CASE(inode, each_lookup_of_an_inode_refreshes_it) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_link("/lower/a", "/lower/b"), 0);
  const test_walk a("/mnt/a");
  const test_walk lower("/lower/a");
  lower.inode()->i_uid = 77;
  i_size_write(lower.inode(), 1234);
  EXPECT_EQ(a.inode()->i_uid, 0u);
  const test_walk b("/mnt/b");
  REQUIRE_EQ(b.error(), 0);
  EXPECT_EQ(b.inode(), a.inode());
  EXPECT_EQ(a.inode()->i_uid, 77u);
  EXPECT_EQ(i_size_read(a.inode()), 1234);
  i_size_write(lower.inode(), 1);
}

namespace {

struct interposing {
  struct dentry *lower, *dentry;
  enum tarn_interpose_flag flag;
  int result;
  struct completion begin;
};

void interpose(void *arg) {
  auto *i = static_cast<struct interposing *>(arg);
  wait_for_completion(&i->begin);
  i->result = tarn_interpose(i->lower, i->dentry, i->dentry->d_sb, i->flag);
}

bool is_refreshed(struct inode *inode, struct inode *lower) {
  return inode->i_mode == lower->i_mode && inode->i_uid == lower->i_uid &&
         inode->i_mtime.tv_sec == lower->i_mtime.tv_sec && inode->i_nlink == lower->i_nlink &&
         i_size_read(inode) == i_size_read(lower) && inode->i_blocks == lower->i_blocks;
}

}  // namespace

// A name leads to its inode when the inode has its attributes, not a moment earlier: whoever walks
// by would see the old ones. The dentry gets its inode under dcache_lock, so while that is held
// here the refresh has been made and the binding has not.
MODULE_CASE(inode, attributes_are_there_before_the_name_leads_to_them) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk root("/mnt"), lower("/lower/f"), upper("/mnt/f");
  struct inode *below = lower.inode();
  const enum tarn_interpose_flag flags[] = {TARN_SPLICE, TARN_INSTANTIATE};
  for (unsigned n = 0; n < ARRAY_SIZE(flags); n++) {
    below->i_mode = S_IFREG | (0600 + n);
    below->i_uid = 77 + n;
    below->i_mtime.tv_sec = 12345 + n;
    i_size_write(below, 54321 + n);
    below->i_blocks = 999 + n;
    EXPECT_FALSE(is_refreshed(upper.inode(), below));
    struct qstr text = test_qstr("other");
    static struct interposing i;
    i.lower = lower.dentry();
    i.dentry = d_alloc(root.dentry(), &text);
    i.flag = flags[n];
    REQUIRE_TRUE(i.dentry);
    init_completion(&i.begin);
    struct ThreadTeam team;
    REQUIRE_TRUE(thread_team_start(&team, 1, interpose, &i));
    bool refreshed;
    {
      spin_guard guard(dcache_lock);
      complete(&i.begin);
      const unsigned long start = jiffies;
      do {
        refreshed = is_refreshed(upper.inode(), below);
      } while (!refreshed && jiffies - start < 10000);
      EXPECT_EQ(i.dentry->d_inode, nullptr);
    }
    EXPECT_TRUE(refreshed);
    thread_team_wait(&team, 1);
    EXPECT_EQ(i.result, 0);
    EXPECT_EQ(i.dentry->d_inode, upper.inode());
    d_drop(i.dentry);
    dput(i.dentry);
  }
  i_size_write(below, 1);
}

MODULE_CASE(inode, name_that_cannot_be_looked_up_below_is_dropped) {
  test_mount mount;
  const test_walk upper("/mnt");
  const test_walk lower("/lower");
  struct qstr text = test_qstr("f");
  struct dentry *dentry = d_alloc(upper.dentry(), &text);
  REQUIRE_TRUE(dentry);
  d_rehash(dentry);
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_LOOKUP, -EIO, 1);
  mutex_lock(&upper.inode()->i_mutex);
  EXPECT_EQ(PTR_ERR(tarn_dir_iops.lookup(upper.inode(), dentry, nullptr)), -EIO);
  mutex_unlock(&upper.inode()->i_mutex);
  EXPECT_TRUE(d_unhashed(dentry));
  dput(dentry);
}

MODULE_CASE(inode, denied_writing_is_cleared_on_a_regular_file_and_logged_once) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/program", "x"), 1);
  const test_walk lower("/lower/program");
  REQUIRE_EQ(lower.error(), 0);
  atomic_set(&lower.inode()->i_writecount, -1);
  { const test_walk upper("/mnt/program"); }
  EXPECT_EQ(atomic_read(&lower.inode()->i_writecount), 0);
  EXPECT_EQ(case_log_count("tarn_lookup: program's lower_inode->i_writecount=-1, adjust it"), 1);
}

// Each of several programs that run it denies it once; none of that is left.
MODULE_CASE(inode, denied_writing_is_cleared_however_often_it_was_denied) {
  test_mount mount;
  const int counts[] = {-2, -3, -1000, INT_MIN};
  for (unsigned i = 0; i < ARRAY_SIZE(counts); i++) {
    char below[16], above[16], line[96];
    snprintf(below, sizeof(below), "/lower/p%u", i);
    snprintf(above, sizeof(above), "/mnt/p%u", i);
    REQUIRE_EQ(test_put(below, "x"), 1);
    const test_walk lower(below);
    REQUIRE_EQ(lower.error(), 0);
    atomic_set(&lower.inode()->i_writecount, counts[i]);
    { const test_walk upper(above); }
    EXPECT_EQ(atomic_read(&lower.inode()->i_writecount), 0);
    snprintf(line, sizeof(line), "tarn_lookup: p%u's lower_inode->i_writecount=%d, adjust it", i,
             counts[i]);
    EXPECT_EQ(case_log_count(line), 1);
  }
}

MODULE_CASE(inode, denied_writing_of_a_directory_or_device_is_left_alone) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mknod("/lower/dev", S_IFCHR | 0644, 0x0103), 0);
  const test_walk dir("/lower/d");
  const test_walk dev("/lower/dev");
  atomic_set(&dir.inode()->i_writecount, -1);
  atomic_set(&dev.inode()->i_writecount, -2);
  {
    const test_walk upper_dir("/mnt/d");
    const test_walk upper_dev("/mnt/dev");
    EXPECT_EQ(upper_dir.error(), 0);
    EXPECT_EQ(upper_dev.error(), 0);
  }
  EXPECT_EQ(atomic_read(&dir.inode()->i_writecount), -1);
  EXPECT_EQ(atomic_read(&dev.inode()->i_writecount), -2);
  EXPECT_FALSE(case_logged("tarn_lookup: d's lower_inode->i_writecount=-1, adjust it"));
  EXPECT_FALSE(case_logged("tarn_lookup: dev's lower_inode->i_writecount=-2, adjust it"));
  atomic_set(&dir.inode()->i_writecount, 0);
  atomic_set(&dev.inode()->i_writecount, 0);
}

MODULE_CASE(inode, count_of_writers_is_not_touched) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower/f");
  atomic_set(&lower.inode()->i_writecount, 2);
  { const test_walk upper("/mnt/f"); }
  EXPECT_EQ(atomic_read(&lower.inode()->i_writecount), 2);
  EXPECT_FALSE(case_logged("tarn_lookup: f's lower_inode->i_writecount=2, adjust it"));
  atomic_set(&lower.inode()->i_writecount, 0);
  forget_upper_names();
  { const test_walk upper("/mnt/f"); }
  EXPECT_EQ(atomic_read(&lower.inode()->i_writecount), 0);
  EXPECT_FALSE(case_logged("tarn_lookup: f's lower_inode->i_writecount=0, adjust it"));
}

MODULE_CASE(inode, lower_mount_point_is_followed_down) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/sub"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower/sub", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(test_put("/lower/sub/f", "inside"), 6);
  {
    const test_walk lower("/lower/sub");
    const test_walk upper("/mnt/sub");
    REQUIRE_EQ(upper.error(), 0);
    EXPECT_EQ(tarn_lower_dentry(upper.dentry()), lower.dentry());
    EXPECT_EQ(tarn_lower_mnt(upper.dentry()), lower.mnt());
    EXPECT_EQ(lower.dentry(), lower.mnt()->mnt_root);
  }
  EXPECT_TRUE(test_holds("/mnt/sub/f", "inside"));
  forget_upper_names();  // which hold the mount
  EXPECT_EQ(uk_fs_umount("/lower/sub", 0), 0);
}

// To the last of several mounts on one place.
MODULE_CASE(inode, lower_mounts_on_each_other_are_followed_down) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/sub"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower/sub", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower/sub", "memfs", 0, nullptr), 0);
  {
    const test_walk lower("/lower/sub");
    const test_walk upper("/mnt/sub");
    REQUIRE_EQ(upper.error(), 0);
    EXPECT_EQ(tarn_lower_dentry(upper.dentry()), lower.dentry());
    EXPECT_EQ(tarn_lower_mnt(upper.dentry()), lower.mnt());
  }
  forget_upper_names();  // which hold the mount
  EXPECT_EQ(uk_fs_umount("/lower/sub", 0), 0);
  EXPECT_EQ(uk_fs_umount("/lower/sub", 0), 0);
}

MODULE_CASE(inode, character_device_has_the_lower_number_and_type) {
  test_mount mount;
  REQUIRE_EQ(test_mknod("/lower/dev", S_IFCHR | 0640, 0x0107), 0);
  const test_walk lower("/lower/dev");
  const test_walk upper("/mnt/dev");
  REQUIRE_TRUE(!lower.error() && !upper.error());
  EXPECT_TRUE(S_ISCHR(upper.inode()->i_mode));
  EXPECT_EQ(upper.inode()->i_rdev, lower.inode()->i_rdev);
  EXPECT_EQ(upper.inode()->i_fop, &def_chr_fops);
  EXPECT_EQ(upper.inode()->i_op, &tarn_main_iops);
}

MODULE_CASE(inode, each_kind_has_its_tables) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  REQUIRE_EQ(test_mknod("/lower/fifo", S_IFIFO | 0644, 0), 0);
  const test_walk file("/mnt/f");
  const test_walk dir("/mnt/d");
  const test_walk link("/mnt/l");
  const test_walk fifo("/mnt/fifo");
  EXPECT_EQ(file.inode()->i_op, &tarn_main_iops);
  EXPECT_EQ(file.inode()->i_fop, &tarn_main_fops);
  EXPECT_EQ(file.inode()->i_mapping->a_ops, &tarn_aops);
  EXPECT_EQ(dir.inode()->i_op, &tarn_dir_iops);
  EXPECT_EQ(dir.inode()->i_fop, &tarn_dir_fops);
  EXPECT_EQ(link.inode()->i_op, &tarn_symlink_iops);
  EXPECT_TRUE(S_ISFIFO(fifo.inode()->i_mode));
  EXPECT_EQ(fifo.inode()->i_fop, &def_fifo_fops);
  EXPECT_EQ(file.dentry()->d_op, &tarn_dops);
  EXPECT_EQ(dir.dentry()->d_op, &tarn_dops);
}

MODULE_CASE(inode, tables_have_exactly_their_slots) {
  const struct inode_operations *const tables[] = {&tarn_dir_iops, &tarn_symlink_iops,
                                                   &tarn_main_iops};
  for (const struct inode_operations *table : tables) {
    EXPECT_NE(table->permission, nullptr);
    EXPECT_EQ(table->permission, tarn_main_iops.permission);
    EXPECT_NE(table->setattr, nullptr);
    EXPECT_EQ(table->setattr, tarn_main_iops.setattr);
    EXPECT_NE(table->setxattr, nullptr);
    EXPECT_EQ(table->setxattr, tarn_main_iops.setxattr);
    EXPECT_NE(table->getxattr, nullptr);
    EXPECT_EQ(table->getxattr, tarn_main_iops.getxattr);
    EXPECT_NE(table->listxattr, nullptr);
    EXPECT_EQ(table->listxattr, tarn_main_iops.listxattr);
    EXPECT_NE(table->removexattr, nullptr);
    EXPECT_EQ(table->removexattr, tarn_main_iops.removexattr);
  }
  EXPECT_NE(tarn_dir_iops.create, nullptr);
  EXPECT_NE(tarn_dir_iops.lookup, nullptr);
  EXPECT_NE(tarn_dir_iops.link, nullptr);
  EXPECT_NE(tarn_dir_iops.unlink, nullptr);
  EXPECT_NE(tarn_dir_iops.symlink, nullptr);
  EXPECT_NE(tarn_dir_iops.mkdir, nullptr);
  EXPECT_NE(tarn_dir_iops.rmdir, nullptr);
  EXPECT_NE(tarn_dir_iops.mknod, nullptr);
  EXPECT_NE(tarn_dir_iops.rename, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_dir_iops), 15);
  EXPECT_NE(tarn_symlink_iops.readlink, nullptr);
  EXPECT_NE(tarn_symlink_iops.follow_link, nullptr);
  EXPECT_NE(tarn_symlink_iops.put_link, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_symlink_iops), 9);
  EXPECT_NE(tarn_main_iops.getattr, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_main_iops), 7);
}

MODULE_CASE(inode, file_reports_the_lower_attributes_as_they_are_now) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  lower.inode()->i_mode = S_IFREG | 0751;
  struct uk_stat stat;
  REQUIRE_EQ(test_stat("/mnt/f", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFREG | 0751u);
  EXPECT_EQ(upper.inode()->i_mode, S_IFREG | 0644);
}

MODULE_CASE(inode, directory_reports_its_copied_attributes_until_it_is_looked_up_again) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d", 0755), 0);
  struct uk_stat stat;
  REQUIRE_EQ(test_stat("/mnt/d", &stat), 0);
  const test_walk lower("/lower/d");
  lower.inode()->i_mode = S_IFDIR | 0711;
  REQUIRE_EQ(test_stat("/mnt/d", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFDIR | 0755u);
  forget_upper_names();
  REQUIRE_EQ(test_stat("/mnt/d", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFDIR | 0711u);
}

MODULE_CASE(inode, permission_is_the_lower_inode_s) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower/f");
  const test_walk upper("/mnt/f");
  lower.inode()->i_mode = S_IFREG | 0600;
  EXPECT_EQ(upper.inode()->i_mode, S_IFREG | 0644);
  as_user user(1000, 1000);
  EXPECT_EQ(test_file("/mnt/f", O_RDONLY).error(), -EACCES);
  lower.inode()->i_mode = S_IFREG | 0644;
  EXPECT_EQ(test_file("/mnt/f", O_RDONLY).error(), 0);
}

MODULE_CASE(inode, permission_lends_the_lower_path_and_takes_it_back) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  static struct nameidata *asked_with, lent;
  struct inode_operations *own = lower.inode()->i_op;
  struct inode_operations watched = *own;
  watched.permission = [](struct inode *, int, struct nameidata *nd) -> int {
    asked_with = nd;
    if (nd) lent = *nd;
    return -EUCLEAN;
  };
  lower.inode()->i_op = &watched;
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  nd.dentry = upper.dentry();
  nd.mnt = upper.mnt();
  EXPECT_EQ(tarn_main_iops.permission(upper.inode(), MAY_READ, &nd), -EUCLEAN);
  EXPECT_EQ(asked_with, &nd);
  EXPECT_EQ(lent.dentry, lower.dentry());
  EXPECT_EQ(lent.mnt, lower.mnt());
  EXPECT_EQ(nd.dentry, upper.dentry());
  EXPECT_EQ(nd.mnt, upper.mnt());
  EXPECT_EQ(tarn_main_iops.permission(upper.inode(), MAY_READ, nullptr), -EUCLEAN);
  EXPECT_EQ(asked_with, nullptr);
  lower.inode()->i_op = own;
}

MODULE_CASE(inode, attributes_of_a_file_are_asked_by_its_lower_path) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  static struct vfsmount *asked_mnt;
  static struct dentry *asked_dentry;
  struct inode_operations *own = lower.inode()->i_op;
  struct inode_operations watched = *own;
  watched.getattr = [](struct vfsmount *mnt, struct dentry *dentry, struct kstat *) -> int {
    asked_mnt = mnt;
    asked_dentry = dentry;
    return -EUCLEAN;
  };
  lower.inode()->i_op = &watched;
  struct kstat stat;
  EXPECT_EQ(tarn_main_iops.getattr(upper.mnt(), upper.dentry(), &stat), -EUCLEAN);
  lower.inode()->i_op = own;
  EXPECT_EQ(asked_mnt, lower.mnt());
  EXPECT_EQ(asked_dentry, lower.dentry());
}

MODULE_CASE(inode, lookup_takes_over_the_directory_s_access_time) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk root("/mnt");
  const test_walk lower("/lower");
  lower.inode()->i_atime.tv_sec = 12345;
  { const test_walk upper("/mnt/f"); }
  EXPECT_EQ(root.inode()->i_atime.tv_sec, 12345);
}

MODULE_CASE(inode, lower_inode_that_is_going_is_stale) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower/f");
  const test_walk upper("/mnt");
  struct qstr text = test_qstr("f");
  struct dentry *dentry = d_alloc(upper.dentry(), &text);
  REQUIRE_TRUE(dentry);
  lower.inode()->i_state |= I_FREEING;
  EXPECT_EQ(tarn_interpose(lower.dentry(), dentry, upper.dentry()->d_sb, TARN_SPLICE), -ESTALE);
  lower.inode()->i_state &= ~I_FREEING;
  dput(dentry);
}

// Each allocation of a lookup fails once: the error is "no memory", or "no access" for the inode,
// and every reference is given back (what is not is reported when the case ends).
MODULE_CASE(inode, every_failing_allocation_of_a_lookup_is_undone) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  bool without_memory = false;
  bool without_inode = false;
  for (unsigned long n = 1;; n++) {
    forget_upper_names();
    int rc;
    {
      uk_fault_arm(n);
      const test_walk walk("/mnt/f");
      rc = walk.error();
      uk_fault_arm(0);
    }
    if (!rc) break;
    without_memory |= rc == -ENOMEM;
    without_inode |= rc == -EACCES;
    EXPECT_TRUE(rc == -ENOMEM || rc == -EACCES);
    EXPECT_EQ(test_cached("/mnt", "f"), nullptr);
  }
  EXPECT_TRUE(without_memory);
  EXPECT_TRUE(without_inode);
}
