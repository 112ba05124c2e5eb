// SPDX-License-Identifier: GPL-2.0
// Unused dentries and inodes stay below the limit, and all go when they are told to.
#include "tests/ukern/testfs.h"
#include "ukern/door/uk_fs.h"

// Matches no inode, and sets one up without a complaint.
static int never(struct inode *, void *) {
  return 0;
}

static void make_unused(testfs *fs, int count) {
  for (int i = 0; i < count; i++) {
    char name[16];
    sprintf(name, "f%d", i);
    struct dentry *dentry = fs->alloc(fs->root(), name);
    REQUIRE_TRUE(dentry);
    struct inode *inode = iget5_locked(fs->sb(), (unsigned long)i, never, never, NULL);
    REQUIRE_TRUE(inode);
    inode->i_mode = S_IFREG | 0644;
    unlock_new_inode(inode);
    d_add(dentry, inode);
    dput(dentry);
  }
}

CASE(cache_limit, a_thread_frees_what_is_above_it) {
  uk_set_cache_limit(64);
  testfs fs;
  make_unused(&fs, 1000);
  for (int i = 0; i < 500 && (testfs::seen(&dentry_stat.nr_unused) > 64 ||
                              testfs::seen(&inodes_stat.nr_unused) > 64);
       i++)
    msleep(10);
  EXPECT_LE(testfs::seen(&dentry_stat.nr_unused), 64);
  EXPECT_LE(testfs::seen(&inodes_stat.nr_unused), 64);
  EXPECT_TRUE(testfs::seen(&fs.n.released) >= 1000 - 64);
}

CASE(cache_limit, used_ones_stay) {
  uk_set_cache_limit(0);
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  REQUIRE_TRUE(dir);
  dput(fs.add(dir, "file", S_IFREG | 0644));
  for (int i = 0; i < 500 && testfs::seen(&fs.n.released) < 1; i++) msleep(10);
  EXPECT_EQ(testfs::seen(&fs.n.released), 1);
  EXPECT_FALSE(d_unhashed(dir));
  dput(dir);
}

CASE(cache_limit, drop_caches_frees_all) {
  testfs fs;
  make_unused(&fs, 300);
  struct dentry *at = dget(fs.root());
  for (int depth = 0; depth < 10; depth++) {
    struct dentry *next = fs.add(at, "d", S_IFDIR | 0755);
    REQUIRE_TRUE(next);
    dput(at);
    at = next;
  }
  dput(at);
  uk_drop_caches();
  EXPECT_EQ(testfs::seen(&fs.n.released), 310);
  EXPECT_EQ(testfs::seen(&fs.n.cleared), 310);
  EXPECT_EQ(testfs::seen(&inodes_stat.nr_unused), 0);
}
