// SPDX-License-Identifier: GPL-2.0
// Opening and closing files.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

// Opens by dentry; consumes nothing of nd.
struct file *open_at(struct nameidata *nd, int flags) {
  return dentry_open(dget(nd->dentry), mntget(nd->mnt), flags);
}

}  // namespace

CASE(open, create) {
  const int umask = current->fs->umask;
  current->fs->umask = 022;
  EXPECT_EQ(name_open("/f", O_CREAT | O_WRONLY, 0666), 0);
  current->fs->umask = umask;
  struct kstat stat;
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFREG | 0644);
  EXPECT_EQ(stat.size, 0);
  EXPECT_EQ(name_open("/f", O_CREAT | O_EXCL | O_WRONLY, 0666), -EEXIST);
  EXPECT_EQ(name_open("/f", O_CREAT | O_WRONLY, 0600), 0);
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.mode, S_IFREG | 0644);
  EXPECT_EQ(name_open("/none/f", O_CREAT | O_WRONLY, 0666), -ENOENT);
  EXPECT_EQ(name_open("/f/", O_CREAT | O_WRONLY, 0666), -EISDIR);
  EXPECT_EQ(name_open("/", O_CREAT | O_RDONLY, 0666), -EISDIR);
}

CASE(open, created_file_is_writable_whatever_its_mode) {
  REQUIRE_EQ(name_mkdir("/d", 0777), 0);
  REQUIRE_EQ(name_chmod("/d", 0777), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_open("/d/f", O_CREAT | O_WRONLY, 0444), 0);
  EXPECT_EQ(name_open("/d/f", O_WRONLY, 0), -EACCES);
  EXPECT_EQ(name_open("/d/f", O_CREAT | O_WRONLY, 0444), -EACCES);
  EXPECT_EQ(name_open("/d/f", O_RDONLY, 0), 0);
}

CASE(open, directories) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  EXPECT_EQ(name_open("/d", O_RDONLY, 0), 0);
  EXPECT_EQ(name_open("/d", O_RDWR, 0), -EISDIR);
  EXPECT_EQ(name_open("/d", O_CREAT | O_RDONLY, 0644), -EISDIR);
  EXPECT_EQ(name_open("/d", O_RDONLY | O_DIRECTORY, 0), 0);
  EXPECT_EQ(name_open("/f", O_RDONLY | O_DIRECTORY, 0), -ENOTDIR);
}

CASE(open, truncate) {
  REQUIRE_EQ(name_write("/f", 0644, "content"), 0);
  struct kstat stat;
  REQUIRE_EQ(name_open("/f", O_WRONLY, 0), 0);
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.size, 7);
  REQUIRE_EQ(name_open("/f", O_WRONLY | O_TRUNC, 0), 0);
  REQUIRE_EQ(name_stat("/f", &stat), 0);
  EXPECT_EQ(stat.size, 0);
  REQUIRE_EQ(name_chmod("/f", 0444), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_open("/f", O_RDONLY | O_TRUNC, 0), -EACCES);
}

CASE(open, links) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  REQUIRE_EQ(name_symlink("f", "/l"), 0);
  REQUIRE_EQ(name_symlink("made", "/dangling"), 0);
  REQUIRE_EQ(name_symlink("loop", "/loop"), 0);
  EXPECT_EQ(name_open("/l", O_RDONLY, 0), 0);
  EXPECT_EQ(name_open("/l", O_RDONLY | O_NOFOLLOW, 0), -ELOOP);
  EXPECT_EQ(name_open("/l", O_CREAT | O_EXCL | O_WRONLY, 0644), -EEXIST);
  EXPECT_EQ(name_open("/l", O_CREAT | O_NOFOLLOW | O_WRONLY, 0644), -ELOOP);
  EXPECT_EQ(name_open("/dangling", O_RDONLY, 0), -ENOENT);
  EXPECT_EQ(name_open("/loop", O_CREAT | O_WRONLY, 0644), -ELOOP);
  REQUIRE_EQ(name_symlink("/", "/top"), 0);
  REQUIRE_EQ(name_symlink("top", "/to_top"), 0);
  // There is no name to create; 2.6.18 finds that out by a name that it has given back.
  const int error = name_open("/to_top", O_CREAT | O_WRONLY, 0644);
  EXPECT_TRUE(error == -EISDIR || error == -ELOOP);
  // A link to nowhere is a name to create under.
  EXPECT_EQ(name_open("/dangling", O_CREAT | O_WRONLY, 0644), 0);
  struct kstat stat;
  REQUIRE_EQ(name_stat("/made", &stat), 0);
  EXPECT_TRUE(S_ISREG(stat.mode));
}

CASE(open, by_dentry) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  struct inode *inode = nd.dentry->d_inode;
  const int before = atomic_read(&nd.dentry->d_count);
  const int mounts = atomic_read(&nd.mnt->mnt_count);

  struct file *file = open_at(&nd, O_RDWR | O_LARGEFILE | O_CREAT | O_EXCL | O_TRUNC);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_EQ(file->f_flags, (unsigned)(O_RDWR | O_LARGEFILE));
  EXPECT_EQ(file->f_mode & (FMODE_READ | FMODE_WRITE), (unsigned)(FMODE_READ | FMODE_WRITE));
  EXPECT_EQ(file->f_pos, 0);
  EXPECT_TRUE(file->f_mapping == inode->i_mapping);
  EXPECT_EQ(file_count(file), 1);
  EXPECT_EQ(atomic_read(&inode->i_writecount), 1);
  get_file(file);
  fput(file);
  EXPECT_EQ(atomic_read(&inode->i_writecount), 1);
  fput(file);
  EXPECT_EQ(atomic_read(&inode->i_writecount), 0);
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), before);
  EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mounts);
  path_release(&nd);
}

CASE(open, failure_gives_the_references_back) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  struct file *denier = filp_open("/f", O_RDONLY, 0);
  REQUIRE_TRUE(!IS_ERR(denier));
  REQUIRE_EQ(deny_write_access(denier), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  const int before = atomic_read(&nd.dentry->d_count);
  const int mounts = atomic_read(&nd.mnt->mnt_count);
  EXPECT_EQ(PTR_ERR(open_at(&nd, O_WRONLY)), (long)-ETXTBSY);
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), before);
  EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mounts);
  path_release(&nd);
  allow_write_access(denier);
  filp_close(denier, NULL);
}

CASE(open, noatime_is_for_the_owner) {
  REQUIRE_EQ(name_write("/f", 0644, "x"), 0);
  EXPECT_EQ(name_open("/f", O_RDONLY | O_NOATIME, 0), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(name_open("/f", O_RDONLY, 0), 0);
  EXPECT_EQ(name_open("/f", O_RDONLY | O_NOATIME, 0), -EPERM);
}

CASE(open, removed_file_stays_usable) {
  REQUIRE_EQ(name_write("/f", 0644, "content"), 0);
  struct file *file = filp_open("/f", O_RDWR | O_LARGEFILE, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  REQUIRE_EQ(name_unlink("/f"), 0);
  struct kstat stat;
  EXPECT_EQ(name_stat("/f", &stat), -ENOENT);
  EXPECT_EQ(vfs_getattr(file->f_vfsmnt, file->f_dentry, &stat), 0);
  EXPECT_EQ(stat.nlink, 0u);
  {
    kernel_buffers use;
    char buf[8] = {};
    loff_t pos = 0;
    EXPECT_EQ(vfs_read(file, buf, 7, &pos), 7);
    EXPECT_STREQ(buf, "content");
  }
  EXPECT_EQ(filp_close(file, NULL), 0);
}
