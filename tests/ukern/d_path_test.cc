// SPDX-License-Identifier: GPL-2.0
// Paths of dentries. The mounts here are attached nowhere, so their own root is the root of all.
#include "tests/ukern/testfs.h"

class page_buffer {
 public:
  page_buffer() : page_((char *)__get_free_page(GFP_KERNEL)) {}
  ~page_buffer() { free_page((unsigned long)page_); }
  page_buffer(const page_buffer &) = delete;
  page_buffer &operator=(const page_buffer &) = delete;
  char *get() { return page_; }

 private:
  char *page_;
};

CASE(d_path, root_and_below) {
  testfs fs;
  page_buffer buf;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(dir, "file", S_IFREG | 0644);
  REQUIRE_TRUE(dir && file && buf.get());
  EXPECT_STREQ(d_path(fs.root(), fs.mnt, buf.get(), PAGE_SIZE), "/");
  EXPECT_STREQ(d_path(dir, fs.mnt, buf.get(), PAGE_SIZE), "/dir");
  EXPECT_STREQ(d_path(file, fs.mnt, buf.get(), PAGE_SIZE), "/dir/file");
  dput(file);
  dput(dir);
}

CASE(d_path, stands_at_the_end_of_the_buffer) {
  testfs fs;
  page_buffer buf;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  REQUIRE_TRUE(dir && buf.get());
  EXPECT_TRUE(d_path(dir, fs.mnt, buf.get(), 100) == buf.get() + 100 - sizeof("/dir"));
  dput(dir);
}

CASE(d_path, unhashed_is_deleted) {
  testfs fs;
  page_buffer buf;
  struct dentry *file = fs.add(fs.root(), "file", S_IFREG | 0644);
  REQUIRE_TRUE(file && buf.get());
  d_drop(file);
  EXPECT_STREQ(d_path(file, fs.mnt, buf.get(), PAGE_SIZE), "/file (deleted)");
  dput(file);
}

CASE(d_path, unhashed_parent_is_not_told) {
  testfs fs;
  page_buffer buf;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(dir, "file", S_IFREG | 0644);
  REQUIRE_TRUE(dir && file && buf.get());
  d_drop(dir);
  EXPECT_STREQ(d_path(file, fs.mnt, buf.get(), PAGE_SIZE), "/dir/file");
  dput(file);
  dput(dir);
}

CASE(d_path, too_long_for_the_buffer) {
  testfs fs;
  page_buffer buf;
  struct dentry *file = fs.add(fs.root(), "file", S_IFREG | 0644);
  REQUIRE_TRUE(file && buf.get());
  // The name of the root of all needs room as well.
  EXPECT_STREQ(d_path(file, fs.mnt, buf.get(), 7), "/file");
  EXPECT_EQ(PTR_ERR(d_path(file, fs.mnt, buf.get(), 6)), -ENAMETOOLONG);
  EXPECT_STREQ(d_path(fs.root(), fs.mnt, buf.get(), 2), "/");
  EXPECT_EQ(PTR_ERR(d_path(fs.root(), fs.mnt, buf.get(), 1)), -ENAMETOOLONG);
  d_drop(file);
  EXPECT_STREQ(d_path(file, fs.mnt, buf.get(), 17), "/file (deleted)");
  EXPECT_EQ(PTR_ERR(d_path(file, fs.mnt, buf.get(), 16)), -ENAMETOOLONG);
  EXPECT_EQ(PTR_ERR(d_path(file, fs.mnt, buf.get(), 8)), -ENAMETOOLONG);
  dput(file);
}

CASE(d_path, through_a_mount) {
  struct nameidata nd;
  page_buffer buf;
  REQUIRE_TRUE(buf.get());
  REQUIRE_EQ(path_lookup("/", LOOKUP_FOLLOW, &nd), 0);
  EXPECT_STREQ(d_path(nd.dentry, nd.mnt, buf.get(), PAGE_SIZE), "/");
  path_release(&nd);
}
