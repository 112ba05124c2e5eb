// SPDX-License-Identifier: GPL-2.0
// Reading, writing and positioning.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

struct file *open_new(const char *path, int flags) {
  return filp_open(path, O_CREAT | O_LARGEFILE | flags, 0644);
}

}  // namespace

CASE(read_write, positions) {
  struct file *file = open_new("/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file));
  {
    kernel_buffers use;
    loff_t pos = 0;
    EXPECT_EQ(vfs_write(file, "abcdef", 6, &pos), 6);
    EXPECT_EQ(pos, 6);
    pos = 2;
    EXPECT_EQ(vfs_write(file, "XY", 2, &pos), 2);
    EXPECT_EQ(pos, 4);
    char buf[16] = {};
    pos = 1;
    EXPECT_EQ(vfs_read(file, buf, 15, &pos), 5);
    EXPECT_STREQ(buf, "bXYef");
    EXPECT_EQ(pos, 6);
    EXPECT_EQ(vfs_read(file, buf, 15, &pos), 0);
    EXPECT_EQ(pos, 6);
  }
  filp_close(file, NULL);
}

CASE(read_write, append) {
  REQUIRE_EQ(name_write("/f", 0644, "abc"), 0);
  struct file *file = filp_open("/f", O_WRONLY | O_APPEND | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  {
    kernel_buffers use;
    loff_t pos = 0;
    EXPECT_EQ(vfs_write(file, "de", 2, &pos), 2);
    EXPECT_EQ(pos, 5);
  }
  filp_close(file, NULL);
  char buf[16];
  REQUIRE_EQ(name_read("/f", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "abcde");
}

CASE(read_write, access_mode) {
  REQUIRE_EQ(name_write("/f", 0644, "abc"), 0);
  kernel_buffers use;
  char buf[4];
  loff_t pos = 0;
  struct file *file = filp_open("/f", O_RDONLY | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(vfs_write(file, "x", 1, &pos), (ssize_t)-EBADF);
  filp_close(file, NULL);
  file = filp_open("/f", O_WRONLY | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(vfs_read(file, buf, 1, &pos), (ssize_t)-EBADF);
  filp_close(file, NULL);
  EXPECT_EQ(pos, 0);
}

CASE(read_write, ranges) {
  struct file *file = open_new("/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file));
  {
    kernel_buffers use;
    char buf[4];
    loff_t pos = -1;
    EXPECT_EQ(vfs_read(file, buf, 1, &pos), (ssize_t)-EINVAL);
    EXPECT_EQ(vfs_write(file, buf, 1, &pos), (ssize_t)-EINVAL);
    pos = 0x7fffffffffffffff;
    EXPECT_EQ(vfs_write(file, buf, 1, &pos), (ssize_t)-EINVAL);
    pos = 0;
    EXPECT_EQ(rw_verify_area(READ, file, &pos, 100), 100);
    EXPECT_EQ(rw_verify_area(READ, file, &pos, 0x80000000UL), 0x7ffff000);
    EXPECT_EQ(rw_verify_area(READ, file, &pos, ~0UL), -EINVAL);
  }
  filp_close(file, NULL);
}

CASE(read_write, kernel_memory_is_not_user_memory) {
  REQUIRE_EQ(name_write("/f", 0644, "abc"), 0);
  struct file *file = filp_open("/f", O_RDWR | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  char buf[4] = {};
  loff_t pos = 0;
  const mm_segment_t old = get_fs();
  set_fs(USER_DS);
  EXPECT_EQ(vfs_read(file, buf, 3, &pos), (ssize_t)-EFAULT);
  EXPECT_EQ(vfs_write(file, buf, 3, &pos), (ssize_t)-EFAULT);
  set_fs(old);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(pos, 0);
  filp_close(file, NULL);
}

CASE(read_write, seek) {
  REQUIRE_EQ(name_write("/f", 0644, "0123456789"), 0);
  struct file *file = filp_open("/f", O_RDONLY | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(vfs_llseek(file, 4, 0), 4);
  EXPECT_EQ(file->f_pos, 4);
  EXPECT_EQ(vfs_llseek(file, 3, 1), 7);
  EXPECT_EQ(vfs_llseek(file, -1, 2), 9);
  EXPECT_EQ(vfs_llseek(file, -20, 1), (loff_t)-EINVAL);
  EXPECT_EQ(file->f_pos, 9);
  EXPECT_EQ(generic_file_llseek(file, 100, 0), 100);
  nonseekable_open(file->f_dentry->d_inode, file);
  EXPECT_EQ(vfs_llseek(file, 0, 0), (loff_t)-ESPIPE);
  filp_close(file, NULL);
}

namespace {

int count_entry(void *arg, const char *, int, loff_t, ino_t, unsigned) {
  ++*(int *)arg;
  return 0;
}

}  // namespace

CASE(read_write, readdir) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/a", 0644, ""), 0);
  REQUIRE_EQ(name_write("/d/b", 0644, ""), 0);
  struct file *dir = filp_open("/d", O_RDONLY | O_DIRECTORY, 0);
  REQUIRE_TRUE(!IS_ERR(dir));
  int count = 0;
  EXPECT_EQ(vfs_readdir(dir, count_entry, &count), 0);
  EXPECT_EQ(count, 4);  // with "." and ".."
  count = 0;
  EXPECT_EQ(vfs_readdir(dir, count_entry, &count), 0);
  EXPECT_EQ(count, 0);
  filp_close(dir, NULL);

  struct file *file = filp_open("/d/a", O_RDONLY, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(vfs_readdir(file, count_entry, &count), -ENOTDIR);
  filp_close(file, NULL);
}

CASE(read_write, removed_directory_has_no_entries) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  struct file *dir = filp_open("/d", O_RDONLY | O_DIRECTORY, 0);
  REQUIRE_TRUE(!IS_ERR(dir));
  REQUIRE_EQ(name_rmdir("/d"), 0);
  int count = 0;
  EXPECT_EQ(vfs_readdir(dir, count_entry, &count), -ENOENT);
  EXPECT_EQ(count, 0);
  filp_close(dir, NULL);
}
