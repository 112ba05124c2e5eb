// SPDX-License-Identifier: GPL-2.0
// Which calls move which of an object's times. The times are set back first, so that the grain of
// the file system's clock does not matter.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

constexpr long old_second = 1000;
enum moved { ATIME = 1, MTIME = 2, CTIME = 4 };

// The access and modification times; the change time is set beside the calls.
void set_back(const char *path) {
  struct nameidata nd;
  REQUIRE_EQ(path_lookup(path, 0, &nd), 0);
  struct inode *inode = nd.dentry->d_inode;
  mutex_lock(&inode->i_mutex);
  inode->i_atime.tv_sec = inode->i_mtime.tv_sec = inode->i_ctime.tv_sec = old_second;
  inode->i_atime.tv_nsec = inode->i_mtime.tv_nsec = inode->i_ctime.tv_nsec = 0;
  mutex_unlock(&inode->i_mutex);
  path_release(&nd);
}

unsigned moved(const char *path) {
  struct kstat stat = {};
  EXPECT_EQ(name_stat(path, &stat), 0);
  return (stat.atime.tv_sec > old_second ? ATIME : 0) |
         (stat.mtime.tv_sec > old_second ? MTIME : 0) |
         (stat.ctime.tv_sec > old_second ? CTIME : 0);
}

ssize_t write_some(const char *path, size_t len, int flags) {
  kernel_buffers use;
  struct file *file = filp_open(path, flags | O_LARGEFILE, 0);
  if (IS_ERR(file)) return PTR_ERR(file);
  loff_t pos = 0;
  const ssize_t n = vfs_write(file, "text", len, &pos);
  filp_close(file, NULL);
  return n;
}

int skip_entry(void *, const char *, int, loff_t, ino_t, unsigned) {
  return 0;
}

}  // namespace

CASE(time_stamp, data) {
  REQUIRE_EQ(name_write("/f", 0644, "old text"), 0);
  char buf[16];
  set_back("/f");
  EXPECT_EQ(name_read("/f", buf, sizeof(buf)), 0);
  EXPECT_EQ(moved("/f"), ATIME + 0u);
  set_back("/f");
  EXPECT_EQ(write_some("/f", 0, O_WRONLY), 0);
  EXPECT_EQ(moved("/f"), 0u);
  EXPECT_EQ(write_some("/f", 4, O_WRONLY), 4);
  EXPECT_EQ(moved("/f"), MTIME + CTIME + 0u);
  set_back("/f");
  struct iattr size = {};
  size.ia_valid = ATTR_SIZE | ATTR_MTIME | ATTR_CTIME;
  size.ia_size = 2;
  EXPECT_EQ(name_change("/f", &size), 0);
  EXPECT_EQ(moved("/f"), MTIME + CTIME + 0u);
}

CASE(time_stamp, attributes) {
  REQUIRE_EQ(name_write("/f", 0644, "text"), 0);
  set_back("/f");
  struct iattr mode = {};
  mode.ia_valid = ATTR_MODE | ATTR_CTIME;
  mode.ia_mode = S_IFREG | 0600;
  EXPECT_EQ(name_change("/f", &mode), 0);
  EXPECT_EQ(moved("/f"), CTIME + 0u);
}

CASE(time_stamp, names) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_mkdir("/e", 0755), 0);
  set_back("/d");
  EXPECT_EQ(name_write("/d/f", 0644, "text"), 0);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), MTIME + CTIME + 0u);
  set_back("/d");
  EXPECT_EQ(name_mkdir("/d/sub", 0755), 0);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), MTIME + CTIME + 0u);
  set_back("/d");
  set_back("/d/f");
  EXPECT_EQ(name_link("/d/f", "/d/g"), 0);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), MTIME + CTIME + 0u);
  EXPECT_EQ(moved("/d/f"), CTIME + 0u);
  set_back("/d");
  set_back("/e");
  EXPECT_EQ(name_rename("/d/g", "/e/g"), 0);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), MTIME + CTIME + 0u);
  EXPECT_EQ(moved("/e") & (MTIME | CTIME), MTIME + CTIME + 0u);
  set_back("/d/f");
  set_back("/e");
  EXPECT_EQ(name_unlink("/e/g"), 0);
  EXPECT_EQ(moved("/e") & (MTIME | CTIME), MTIME + CTIME + 0u);
  EXPECT_EQ(moved("/d/f"), CTIME + 0u);
  set_back("/d");
  EXPECT_EQ(name_rmdir("/d/sub"), 0);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), MTIME + CTIME + 0u);
  set_back("/d");
  EXPECT_EQ(name_rmdir("/d"), -ENOTEMPTY);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), 0u);
}

CASE(time_stamp, directory_that_is_read) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  set_back("/d");
  struct file *dir = filp_open("/d", O_RDONLY | O_DIRECTORY, 0);
  REQUIRE_TRUE(!IS_ERR(dir));
  EXPECT_EQ(vfs_readdir(dir, skip_entry, NULL), 0);
  filp_close(dir, NULL);
  EXPECT_EQ(moved("/d") & (MTIME | CTIME), 0u);
}
