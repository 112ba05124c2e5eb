// SPDX-License-Identifier: GPL-2.0
// Mounting over a lower directory, the super block's figures, and the mount table.
#include "tests/module/kit/mount.h"
#include "ukern/testing/uk_fault.h"

namespace {

// The mount table's line of a mount point.
bool mount_line(const char *dir, char *line, unsigned long size) {
  char middle[256];
  snprintf(middle, sizeof(middle), " %s ", dir);
  for (unsigned i = 0; uk_fs_mount_line(i, line, size) == 0; i++) {
    if (strstr(line, middle)) return true;
  }
  return false;
}

}  // namespace

MODULE_CASE(super, table_has_exactly_its_slots) {
  EXPECT_NE(tarn_sops.alloc_inode, nullptr);
  EXPECT_NE(tarn_sops.destroy_inode, nullptr);
  EXPECT_EQ(tarn_sops.drop_inode, generic_delete_inode);
  EXPECT_NE(tarn_sops.put_super, nullptr);
  EXPECT_NE(tarn_sops.statfs, nullptr);
  EXPECT_NE(tarn_sops.clear_inode, nullptr);
  EXPECT_NE(tarn_sops.show_options, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_sops), 7);
}

MODULE_CASE(super, missing_source_fails_and_leaves_no_super_block) {
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  EXPECT_EQ(uk_fs_mount("/nothing", "/mnt", "tarn", 0, nullptr), -ENOENT);
  EXPECT_TRUE(list_empty(&tarn_fs_type.fs_supers));
}

MODULE_CASE(super, source_that_is_no_directory_fails_and_leaves_no_super_block) {
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(test_put("/file", "x"), 1);
  EXPECT_EQ(uk_fs_mount("/file", "/mnt", "tarn", 0, nullptr), -ENOTDIR);
  // Nor can a file be mounted over a file, which the name space itself would allow.
  REQUIRE_EQ(test_put("/place", "x"), 1);
  EXPECT_EQ(uk_fs_mount("/file", "/place", "tarn", 0, nullptr), -ENOTDIR);
  EXPECT_TRUE(list_empty(&tarn_fs_type.fs_supers));
}

MODULE_CASE(super, mount_shows_what_the_lower_directory_holds) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "below"), 5);
  EXPECT_TRUE(test_holds("/mnt/d/f", "below"));
  EXPECT_EQ(test_put("/mnt/d/g", "above"), 5);
  EXPECT_TRUE(test_holds("/lower/d/g", "above"));
}

MODULE_CASE(super, options_are_ignored_and_the_mount_table_shows_the_lower_directory) {
  REQUIRE_EQ(test_mkdir("/data"), 0);
  REQUIRE_EQ(test_mkdir("/data/deep"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(uk_fs_mount("/data/deep", "/mnt", "tarn", 0, "nonsense=1,more"), 0);
  char line[512];
  EXPECT_TRUE(mount_line("/mnt", line, sizeof(line)));
  EXPECT_TRUE(strstr(line, " tarn rw"));
  EXPECT_TRUE(strstr(line, ",dir=/data/deep "));
  EXPECT_FALSE(strstr(line, "nonsense"));
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

MODULE_CASE(super, source_may_be_a_link_to_a_directory) {
  REQUIRE_EQ(test_mkdir("/data"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(test_put("/data/f", "x"), 1);
  REQUIRE_EQ(test_symlink("/data", "/link"), 0);
  REQUIRE_EQ(uk_fs_mount("/link", "/mnt", "tarn", 0, nullptr), 0);
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

MODULE_CASE(super, statfs_reports_the_lower_figures) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "some data"), 9);
  const test_node upper("/mnt");
  const test_node lower("/lower");
  REQUIRE_TRUE(upper.get() && lower.get());
  struct uk_statfs above = {};
  struct uk_statfs below = {};
  REQUIRE_EQ(uk_statfs(upper.get(), &above), 0);
  REQUIRE_EQ(uk_statfs(lower.get(), &below), 0);
  EXPECT_EQ(memcmp(&above, &below, sizeof(above)), 0);
}

MODULE_CASE(super, super_block_takes_the_lower_limits) {
  test_mount mount;
  const test_walk upper("/mnt");
  const test_walk lower("/lower");
  REQUIRE_TRUE(!upper.error() && !lower.error());
  struct super_block *above = upper.dentry()->d_sb;
  struct super_block *below = lower.dentry()->d_sb;
  EXPECT_EQ(tarn_lower_sb(above), below);
  EXPECT_EQ(above->s_maxbytes, below->s_maxbytes);
  EXPECT_EQ(above->s_blocksize, below->s_blocksize);
  EXPECT_EQ(above->s_blocksize_bits, below->s_blocksize_bits);
  EXPECT_EQ(above->s_bdev, below->s_bdev);
  EXPECT_EQ(tarn_lower_dentry(above->s_root), below->s_root);
}

MODULE_CASE(super, root_is_called_slash_and_is_its_own_parent) {
  test_mount mount;
  const test_walk upper("/mnt");
  REQUIRE_EQ(upper.error(), 0);
  const struct dentry *root = upper.dentry()->d_sb->s_root;
  EXPECT_EQ(upper.dentry(), root);
  EXPECT_STREQ(reinterpret_cast<const char *>(root->d_name.name), "/");
  EXPECT_EQ(root->d_name.len, 1u);
  EXPECT_EQ(root->d_name.hash, 0u);
  EXPECT_EQ(root->d_parent, root);
  EXPECT_EQ(root->d_op, &tarn_dops);
}

MODULE_CASE(super, two_mounts_of_one_directory_are_two_super_blocks) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/mnt2"), 0);
  REQUIRE_EQ(uk_fs_mount("/lower", "/mnt2", "tarn", 0, nullptr), 0);
  EXPECT_EQ(test_put("/mnt/f", "x"), 1);
  EXPECT_TRUE(test_holds("/mnt2/f", "x"));
  EXPECT_EQ(uk_fs_umount("/mnt2", 0), 0);
}

// The three allocations of a super block: what came before the one that fails stays with the super
// block.
MODULE_CASE(super, failing_fill_super_leaves_what_it_had_allocated) {
  auto *sb = static_cast<struct super_block *>(kmalloc(sizeof(struct super_block), GFP_KERNEL));
  REQUIRE_TRUE(sb);

  memset(sb, 0, sizeof(*sb));
  uk_fault_arm(1);
  EXPECT_EQ(tarn_fill_super(sb, nullptr, 0), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(sb->s_fs_info, nullptr);
  EXPECT_EQ(sb->s_root, nullptr);

  memset(sb, 0, sizeof(*sb));
  uk_fault_arm(2);
  EXPECT_EQ(tarn_fill_super(sb, nullptr, 0), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_NE(sb->s_fs_info, nullptr);
  EXPECT_EQ(sb->s_root, nullptr);
  kmem_cache_free(tarn_sb_info_cache, sb->s_fs_info);

  memset(sb, 0, sizeof(*sb));
  uk_fault_arm(3);
  EXPECT_EQ(tarn_fill_super(sb, nullptr, 0), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_NE(sb->s_fs_info, nullptr);
  EXPECT_NE(sb->s_root, nullptr);
  EXPECT_EQ(sb->s_root->d_fsdata, nullptr);
  dput(sb->s_root);
  kmem_cache_free(tarn_sb_info_cache, sb->s_fs_info);
  kfree(sb);
}

// The root's inode is the mount's last allocation but for what the name space needs. Its failure
// has the binding's error, and every reference of the lookup is given back once: the lower mount
// can go.
MODULE_CASE(super, root_that_cannot_be_bound_gives_the_lower_directory_back) {
  REQUIRE_EQ(test_mkdir("/lower"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower", "memfs", 0, nullptr), 0);
  uk_fault_arm(0);
  REQUIRE_EQ(uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr), 0);
  const unsigned long points = uk_fault_count();
  REQUIRE_EQ(uk_fs_umount("/mnt", 0), 0);

  bool refused = false;
  for (unsigned long n = points; n > 0 && !refused; n--) {
    uk_fault_arm(n);
    const int rc = uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr);
    uk_fault_arm(0);
    refused = rc == -EACCES;
    if (!rc) EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
    EXPECT_TRUE(list_empty(&tarn_fs_type.fs_supers));
  }
  EXPECT_TRUE(refused);
  EXPECT_EQ(uk_fs_umount("/lower", 0), 0);
}

MODULE_CASE(super, unmount_gives_back_the_shared_lower_files) {
  {
    test_mount mount;
    REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
    const test_walk walk("/mnt/f");
    EXPECT_NE(tarn_inode(walk.inode())->lower_file, nullptr);
  }
  EXPECT_TRUE(list_empty(&tarn_fs_type.fs_supers));
}

MODULE_CASE(super, shared_lower_file_without_a_dentry_is_a_bug) {
  test_mount mount;
  static struct super_block *sb;
  const test_walk upper("/mnt");
  sb = upper.dentry()->d_sb;
  EXPECT_REPORT(
      [] {
        static struct file file;
        struct inode *inode = tarn_sops.alloc_inode(sb);
        tarn_inode(inode)->lower_file = &file;
        tarn_sops.destroy_inode(inode);
      },
      "BUG");
}

#if UKERN_DEBUG

// The page of a mount table line whose lower path does not fit into it is not given back.
MODULE_CASE(super, lower_path_that_is_too_long_is_the_mount_table_s_error) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/mnt2"), 0);
  REQUIRE_EQ(uk_fs_mount("/lower/d", "/mnt2", "tarn", 0, nullptr), 0);
  {
    const test_walk deep("/mnt2");
    struct dentry *lower = tarn_lower_dentry(deep.dentry());
    const struct qstr own = lower->d_name;
    test_buffer name(8192, 'n');
    lower->d_name.name = reinterpret_cast<const unsigned char *>(name.get());
    lower->d_name.len = 5000;
    EXPECT_EQ(tarn_sops.show_options(nullptr, deep.mnt()), -ENAMETOOLONG);
    lower->d_name = own;
  }
  EXPECT_EQ(uk_fs_umount("/mnt2", 0), 0);
  EXPECT_LEAK("of order 0 is still allocated, count 1");
}

#endif
