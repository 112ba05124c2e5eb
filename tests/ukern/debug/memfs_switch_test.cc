// SPDX-License-Identifier: GPL-2.0
// What tests can take away from memfs, and what then happens.
#include "tests/harness/case.h"
#include <linux/xattr.h>
#include "tests/ukern/open_file.h"
#include "ukern/fs/memfs.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"
#include "ukern/door/uk_fs.h"
#include "ukern/testing/uk_mm.h"

namespace {

struct super_block *root_sb() {
  return current->fs->rootmnt->mnt_sb;
}

}  // namespace

CASE(memfs_switch, a_full_file_system_refuses_blocks) {
  memfs_set_capacity(root_sb(), 2 * PAGE_SIZE);
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(file.write("x", 1, 4096), 1);
  EXPECT_EQ(file.write("x", 1, 8192), -ENOSPC);
  EXPECT_EQ(i_size_read(file.inode()), 4097);
  EXPECT_EQ(file.write("y", 1, 100), 1);
  struct kstatfs st;
  EXPECT_EQ(vfs_statfs(file.get()->f_dentry, &st), 0);
  EXPECT_EQ(st.f_blocks, 2ull);
  EXPECT_EQ(st.f_bfree, 0ull);
  EXPECT_EQ(file.truncate(10), 0);
  EXPECT_EQ(file.write("x", 1, 8192), 1);
}

CASE(memfs_switch, a_short_write_before_the_disk_is_full) {
  memfs_set_capacity(root_sb(), PAGE_SIZE);
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  static char data[3 * 4096];
  EXPECT_EQ(file.write(data, sizeof(data), 0), 4096);
  EXPECT_EQ(file.write(data, sizeof(data), 4096), -ENOSPC);
}

CASE(memfs_switch, operations_that_are_not_there) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  char name[] = "user.x", value[] = "v";
  memfs_set_switches(root_sb(), MEMFS_NO_XATTR | MEMFS_NO_FSYNC | MEMFS_NO_DIRECT | MEMFS_NFS);
  EXPECT_EQ(vfs_setxattr(file.get()->f_dentry, name, value, 1, 0), -EOPNOTSUPP);
  EXPECT_TRUE(!file.inode()->i_fop->fsync);
  EXPECT_TRUE(!file.mapping()->a_ops->direct_IO);
  EXPECT_EQ(file.inode()->i_sb->s_magic, 0x6969ul);
  memfs_set_switches(root_sb(), 0);
  EXPECT_EQ(vfs_setxattr(file.get()->f_dentry, name, value, 1, 0), 0);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
}

CASE(memfs_switch, injected_errors_end_after_their_number) {
  memfs_fail(root_sb(), MEMFS_OP_MKDIR, -EDQUOT, 2);
  EXPECT_EQ(name_mkdir("/d", 0755), -EDQUOT);
  EXPECT_EQ(name_mkdir("/d", 0755), -EDQUOT);
  EXPECT_EQ(name_mkdir("/d", 0755), 0);
  EXPECT_EQ(memfs_calls(root_sb(), MEMFS_OP_MKDIR), 3ul);
}

CASE(memfs_switch, a_failed_write_back_is_told_by_fsync) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  memfs_fail(root_sb(), MEMFS_OP_WRITEPAGE, -EIO, 1);
  EXPECT_EQ(do_fsync(file.get(), 0), -EIO);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
}

CASE(memfs_switch, a_page_that_cannot_be_read) {
  {
    open_file file("/f");
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write("x", 1, 0), 1);
    EXPECT_EQ(do_fsync(file.get(), 0), 0);
    EXPECT_EQ(invalidate_inode_pages(file.mapping()), 1ul);
    memfs_fail(root_sb(), MEMFS_OP_READPAGE, -EIO, 1);
    char seen;
    EXPECT_EQ(file.read(&seen, 1, 0), -EIO);
    EXPECT_EQ(file.read(&seen, 1, 0), 1);
    EXPECT_EQ(seen, 'x');
  }
}

CASE(memfs_switch, revalidation_says_what_the_test_wants) {
  REQUIRE_EQ(name_mkdir("/m", 0755), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/m", "memfs", 0, "revalidate,size=1m"), 0);
  EXPECT_EQ(name_mkdir("/m/d", 0755), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/m/d", 0, &nd), 0);
  struct super_block *sb = nd.mnt->mnt_sb;
  struct dentry *first = nd.dentry;
  path_release(&nd);
  const unsigned long lookups = memfs_calls(sb, MEMFS_OP_LOOKUP);
  REQUIRE_EQ(path_lookup("/m/d", 0, &nd), 0);
  EXPECT_EQ(nd.dentry, first);
  path_release(&nd);
  EXPECT_EQ(memfs_calls(sb, MEMFS_OP_LOOKUP), lookups);
  memfs_set_revalidate(sb, 0);
  EXPECT_EQ(path_lookup("/m/d", 0, &nd), 0);
  path_release(&nd);
  EXPECT_EQ(memfs_calls(sb, MEMFS_OP_LOOKUP), lookups + 1);
  memfs_set_revalidate(sb, 1);
  EXPECT_EQ(uk_fs_umount("/m", 0), 0);
}

CASE(memfs_switch, unknown_mount_options_are_refused) {
  REQUIRE_EQ(name_mkdir("/m", 0755), 0);
  EXPECT_EQ(uk_fs_mount("none", "/m", "memfs", 0, "size=12x"), -EINVAL);
  EXPECT_EQ(uk_fs_mount("none", "/m", "memfs", 0, "colour"), -EINVAL);
}

CASE(memfs_switch, memory_failures_leave_nothing_behind) {
  for (unsigned long n = 1; n < 200; n++) {
    uk_fault_arm(n);
    int error = name_mkdir("/d", 0755);
    if (!error) error = name_mknod("/d/f", S_IFREG | 0644, 0);
    if (!error) {
      open_file file("/d/f");
      error = file.error() ? file.error() : (int)file.write("x", 1, 5000);
      if (error == 1) error = 0;
    }
    const int done = uk_fault_count() < n;
    uk_fault_arm(0);
    // A struct file that cannot be had has an error of its own.
    if (!done && error && error != -ENFILE) EXPECT_EQ(error, -ENOMEM);
    name_unlink("/d/f");
    name_rmdir("/d");
    if (done) return;
  }
  EXPECT_EQ(0, 1);
}
