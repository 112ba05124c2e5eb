// SPDX-License-Identifier: GPL-2.0
// Each struct translation, with a value of its own in every field.
#include "tarnd/fuse/translate.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tarnd/channel/control.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/process/task.h"

namespace tarnd {
namespace {

uk_stat sample_stat() {
  uk_stat from{};
  from.ino = 0x100000001ull;
  from.size = 0x200000002ull;
  from.blocks = 0x300000003ull;
  from.rdev = 0x404;
  from.dev = 0x505;
  from.mode = S_IFREG | 06741;
  from.nlink = 7;
  from.uid = 0x80000008u;
  from.gid = 0x90000009u;
  from.blksize = 4096;
  from.atime = {0x1100000011ll, 111};
  from.mtime = {-12, 222222222};
  from.ctime = {13, 999999999};
  return from;
}

TEST(Translate, stat) {
  const struct stat to = to_stat(sample_stat());
  EXPECT_EQ(to.st_ino, 0x100000001ull);
  EXPECT_EQ(to.st_size, 0x200000002ll);
  EXPECT_EQ(to.st_blocks, 0x300000003ll);
  EXPECT_EQ(to.st_rdev, 0x404u);
  EXPECT_EQ(to.st_dev, 0x505u);
  EXPECT_EQ(to.st_mode, static_cast<mode_t>(S_IFREG | 06741));
  EXPECT_EQ(to.st_nlink, 7u);
  EXPECT_EQ(to.st_uid, 0x80000008u);
  EXPECT_EQ(to.st_gid, 0x90000009u);
  EXPECT_EQ(to.st_blksize, 4096);
  EXPECT_EQ(to.st_atim.tv_sec, 0x1100000011ll);
  EXPECT_EQ(to.st_atim.tv_nsec, 111);
  EXPECT_EQ(to.st_mtim.tv_sec, -12);
  EXPECT_EQ(to.st_mtim.tv_nsec, 222222222);
  EXPECT_EQ(to.st_ctim.tv_sec, 13);
  EXPECT_EQ(to.st_ctim.tv_nsec, 999999999);
}

TEST(Translate, wanted_attributes) {
  struct stat from {};
  from.st_ino = 1;
  from.st_nlink = 2;
  from.st_mode = S_IFDIR | 0753;
  from.st_uid = 0x80000008u;
  from.st_gid = 0x90000009u;
  from.st_size = 0x200000002ll;
  from.st_atim = {0x1100000011ll, 111};
  from.st_mtim = {-12, 222222222};
  from.st_ctim = {13, 999999999};
  const uk_stat to = to_uk_stat(from);
  EXPECT_EQ(to.mode, static_cast<unsigned>(S_IFDIR | 0753));
  EXPECT_EQ(to.uid, 0x80000008u);
  EXPECT_EQ(to.gid, 0x90000009u);
  EXPECT_EQ(to.size, 0x200000002ull);
  EXPECT_EQ(to.atime.sec, 0x1100000011ll);
  EXPECT_EQ(to.atime.nsec, 111u);
  EXPECT_EQ(to.mtime.sec, -12);
  EXPECT_EQ(to.mtime.nsec, 222222222u);
  // What setattr cannot ask for.
  EXPECT_EQ(to.ino, 0u);
  EXPECT_EQ(to.nlink, 0u);
  EXPECT_EQ(to.ctime.sec, 0);
  EXPECT_EQ(to.ctime.nsec, 0u);
}

TEST(Translate, statfs) {
  struct uk_statfs from {};
  from.blocks = 0x100000001ull;
  from.bfree = 0x200000002ull;
  from.bavail = 0x300000003ull;
  from.files = 0x400000004ull;
  from.ffree = 0x500000005ull;
  from.bsize = 65536;
  from.frsize = 512;
  from.namelen = 143;
  from.type = 0xabcd;
  struct statvfs to = to_statvfs(from);
  EXPECT_EQ(to.f_blocks, 0x100000001ull);
  EXPECT_EQ(to.f_bfree, 0x200000002ull);
  EXPECT_EQ(to.f_bavail, 0x300000003ull);
  EXPECT_EQ(to.f_files, 0x400000004ull);
  EXPECT_EQ(to.f_ffree, 0x500000005ull);
  EXPECT_EQ(to.f_favail, 0x500000005ull);
  EXPECT_EQ(to.f_bsize, 65536u);
  EXPECT_EQ(to.f_frsize, 512u);
  EXPECT_EQ(to.f_namemax, 143u);

  // Figures without a fragment size are in blocks.
  from.frsize = 0;
  to = to_statvfs(from);
  EXPECT_EQ(to.f_frsize, 65536u);
}

TEST(Translate, each_set_bit) {
  EXPECT_EQ(to_uk_set(0), 0u);
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_MODE), unsigned{UK_SET_MODE});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_UID), unsigned{UK_SET_UID});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_GID), unsigned{UK_SET_GID});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_SIZE), unsigned{UK_SET_SIZE});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_ATIME), unsigned{UK_SET_ATIME});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_MTIME), unsigned{UK_SET_MTIME});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_ATIME_NOW), unsigned{UK_SET_ATIME_NOW});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_MTIME_NOW), unsigned{UK_SET_MTIME_NOW});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW), unsigned{UK_SET_ATIME_NOW});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW), unsigned{UK_SET_MTIME_NOW});
  EXPECT_EQ(to_uk_set(FUSE_SET_ATTR_CTIME | FUSE_SET_ATTR_FORCE | FUSE_SET_ATTR_KILL_SUID), 0u);
  EXPECT_EQ(to_uk_set(-1), unsigned{UK_SET_MODE | UK_SET_UID | UK_SET_GID | UK_SET_SIZE |
                                    UK_SET_ATIME_NOW | UK_SET_MTIME_NOW});
}

TEST(Translate, open_flags) {
  EXPECT_EQ(to_open_flags(O_RDWR | O_CREAT | O_EXCL | O_NOCTTY), O_RDWR);
  EXPECT_EQ(to_open_flags(O_WRONLY | O_TRUNC | O_APPEND), O_WRONLY | O_TRUNC | O_APPEND);
  EXPECT_EQ(to_open_flags(O_NONBLOCK | O_SYNC | O_CLOEXEC), O_NONBLOCK | O_DSYNC);
  EXPECT_EQ(to_open_flags(O_DIRECT), UK_O_DIRECT);
  EXPECT_EQ(to_open_flags(O_DIRECTORY), UK_O_DIRECTORY);
  EXPECT_EQ(to_open_flags(O_NOFOLLOW), UK_O_NOFOLLOW);
  EXPECT_EQ(to_open_flags(UK_OPEN_TO_RUN), UK_OPEN_TO_RUN);
  EXPECT_EQ(to_create_flags(O_RDWR | O_CREAT | O_EXCL | O_NOCTTY), O_RDWR | O_CREAT | O_EXCL);
}

TEST(Translate, entry_mode) {
  EXPECT_EQ(to_entry_mode(DT_REG), static_cast<mode_t>(S_IFREG));
  EXPECT_EQ(to_entry_mode(DT_DIR), static_cast<mode_t>(S_IFDIR));
  EXPECT_EQ(to_entry_mode(DT_LNK), static_cast<mode_t>(S_IFLNK));
  EXPECT_EQ(to_entry_mode(DT_CHR), static_cast<mode_t>(S_IFCHR));
  EXPECT_EQ(to_entry_mode(DT_BLK), static_cast<mode_t>(S_IFBLK));
  EXPECT_EQ(to_entry_mode(DT_FIFO), static_cast<mode_t>(S_IFIFO));
  EXPECT_EQ(to_entry_mode(DT_SOCK), static_cast<mode_t>(S_IFSOCK));
  EXPECT_EQ(to_entry_mode(DT_UNKNOWN), 0u);
}

TEST(Translate, entry) {
  auto *node = reinterpret_cast<uk_node *>(0x1230);
  const CacheTimeouts timeouts(std::chrono::milliseconds(1500));
  uk_stat stat = sample_stat();
  stat.nlink = 1;
  const fuse_entry_param to = to_entry(timeouts, node, stat);
  EXPECT_EQ(to.ino, 0x1230u);
  EXPECT_EQ(to.generation, 0u);
  EXPECT_EQ(to.attr.st_ino, 0x100000001ull);
  EXPECT_EQ(to.attr_timeout, 1.5);
  EXPECT_EQ(to.entry_timeout, 1.5);
  const fuse_entry_param not_kept =
      to_entry(CacheTimeouts(std::chrono::milliseconds(0)), node, sample_stat());
  EXPECT_EQ(not_kept.attr_timeout, CacheTimeouts::kLeastAttrTimeout);
  EXPECT_EQ(not_kept.entry_timeout, 0);
}

TEST(Translate, no_name_of_a_file_with_several_is_kept) {
  auto *node = reinterpret_cast<uk_node *>(0x1230);
  const CacheTimeouts timeouts(std::chrono::milliseconds(1500));
  uk_stat stat = sample_stat();
  stat.nlink = 2;
  stat.mode = S_IFREG | 0644;
  EXPECT_EQ(to_entry(timeouts, node, stat).entry_timeout, 0);
  EXPECT_EQ(to_entry(timeouts, node, stat).attr_timeout, 1.5);
  stat.mode = S_IFDIR | 0755;
  EXPECT_EQ(to_entry(timeouts, node, stat).entry_timeout, 1.5);
}

TEST(Translate, credentials) {
  Identity who;
  who.pid = 11;
  who.uid = 12;
  who.gid = 13;
  who.capabilities = 0x1400;
  who.groups = {15, 16, 17};
  who.find_exe = [](int, char *, unsigned long) { return 18l; };
  const uk_cred cred = to_cred(who);
  EXPECT_EQ(cred.pid, 11);
  EXPECT_EQ(cred.uid, 12u);
  EXPECT_EQ(cred.gid, 13u);
  EXPECT_EQ(cred.cap_effective, 0x1400u);
  ASSERT_EQ(cred.ngroups, 3u);
  EXPECT_EQ(cred.groups[0], 15u);
  EXPECT_EQ(cred.groups[1], 16u);
  EXPECT_EQ(cred.groups[2], 17u);
  EXPECT_EQ(cred.exe, nullptr);
  ASSERT_NE(cred.find_exe, nullptr);
  EXPECT_EQ(cred.find_exe(0, nullptr, 0), 18);
}

TEST(Translate, mount_line) {
  EXPECT_EQ(to_mount_line("/a\\040b /mnt/c tarn rw,dir=/ab 0 0"), "/a\\040b /mnt/c rw,dir=/ab\n");
  EXPECT_EQ(to_mount_line("/a\\040b /mnt/c tarn rw,noatime,dir=/a b\\x\n0 0 0 0"),
            "/a\\040b /mnt/c rw,noatime,dir=/a\\040b\\134x\\0120\\0400\n");
  EXPECT_EQ(to_mount_line("/ / hostfs rw 0 0"), "");
  EXPECT_EQ(to_mount_line(""), "");
}

}  // namespace
}  // namespace tarnd
