// SPDX-License-Identifier: GPL-2.0
// Dentries, inodes and mounts by calls that a module does not have.
#include <linux/hash.h>
#include "tests/ukern/testfs.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

CASE(vfs_internal, is_subdir) {
  testfs fs;
  struct dentry *a = fs.add(fs.root(), "a", S_IFDIR | 0755);
  struct dentry *b = fs.add(a, "b", S_IFDIR | 0755);
  struct dentry *c = fs.add(fs.root(), "c", S_IFDIR | 0755);
  REQUIRE_TRUE(a && b && c);
  EXPECT_TRUE(is_subdir(b, a));
  EXPECT_TRUE(is_subdir(b, fs.root()));
  EXPECT_TRUE(is_subdir(a, a));
  EXPECT_FALSE(is_subdir(a, b));
  EXPECT_FALSE(is_subdir(b, c));
  dput(c);
  dput(b);
  dput(a);
}

// Without memory for more chains they get longer; with it the next dentry makes up for that.
CASE(vfs_internal, a_hash_that_cannot_grow) {
  constexpr int kMany = 1500;
  testfs fs;
  char text[16];
  int failures = 0;
  for (int i = 0; i < kMany; i++) {
    snprintf(text, sizeof(text), "n%d", i);
    if (i < kMany - 1) uk_fault_arm(2);  // the first is the dentry's own memory
    struct dentry *dentry = fs.alloc(fs.root(), text);
    failures += uk_fault_count() > 1;
    uk_fault_arm(0);
    REQUIRE_TRUE(dentry);
    d_add(dentry, NULL);
    dput(dentry);
  }
  EXPECT_GT(failures, 100);
  for (int i = 0; i < kMany; i++) {
    snprintf(text, sizeof(text), "n%d", i);
    struct dentry *found = testfs::lookup(fs.root(), text);
    REQUIRE_TRUE(found);
    dput(found);
  }
}

// Objects of one kind lie at equal distances, and so do the hashes of names that are counted up.
CASE(vfs_internal, a_large_table_is_used_whole) {
  constexpr unsigned kBits = 12;
  constexpr unsigned long kDistances[] = {1, 16, 187, 256, 2176, 4096, 1ul << 32};
  for (const unsigned long distance : kDistances) {
    static unsigned char used[1u << kBits];
    memset(used, 0, sizeof(used));
    int taken = 0;
    for (unsigned long i = 0; i < sizeof(used); i++) {
      unsigned char *place = &used[hash_long(0x7f0012345670ul + i * distance, kBits)];
      taken += !*place;
      *place = 1;
    }
    EXPECT_GT(taken, (int)sizeof(used) / 2);
  }
}

CASE(vfs_internal, mount_of_an_unknown_type) {
  struct vfsmount *mnt = do_kern_mount("no such type", 0, "none", NULL);
  EXPECT_EQ(PTR_ERR(mnt), -ENODEV);
}

CASE(vfs_internal, special_inodes_have_the_operations_of_their_type) {
  testfs fs;
  struct inode *inode = fs.inode(S_IFREG);
  REQUIRE_TRUE(inode);
  init_special_inode(inode, S_IFCHR | 0600, MKDEV(1, 3));
  EXPECT_TRUE(inode->i_fop == &def_chr_fops);
  init_special_inode(inode, S_IFBLK | 0600, MKDEV(8, 1));
  EXPECT_TRUE(inode->i_fop == &def_blk_fops);
  init_special_inode(inode, S_IFIFO | 0600, 0);
  EXPECT_TRUE(inode->i_fop == &def_fifo_fops);
  init_special_inode(inode, S_IFSOCK | 0600, 0);
  EXPECT_TRUE(inode->i_fop == &bad_sock_fops);
  iput(inode);
}

CASE(vfs_internal, opening_a_special_inode_finds_no_device) {
  testfs fs;
  struct inode *inode = fs.inode(S_IFREG);
  REQUIRE_TRUE(inode);
  const int modes[] = {S_IFCHR, S_IFBLK, S_IFIFO, S_IFSOCK};
  for (int mode : modes) {
    init_special_inode(inode, (umode_t)mode, 0);
    EXPECT_EQ(inode->i_fop->open(inode, NULL), -ENXIO);
  }
  iput(inode);
}
