// SPDX-License-Identifier: GPL-2.0
// A disk-like file system from below the VFS: what stays when caches go, link counts, directories
// in pieces.
#include "tests/harness/case.h"
#include <linux/xattr.h>
#include "tests/ukern/open_file.h"

namespace {

void forget_names() {
  struct nameidata nd;
  if (path_lookup("/", 0, &nd)) return;
  shrink_dcache_sb(nd.mnt->mnt_sb);
  path_release(&nd);
}

struct stat_result {
  int error;
  struct kstat stat;
};

stat_result stat_of(const char *path) {
  stat_result result = {};
  struct nameidata nd;
  result.error = path_lookup(path, 0, &nd);
  if (result.error) return result;
  result.error = vfs_getattr(nd.mnt, nd.dentry, &result.stat);
  path_release(&nd);
  return result;
}

struct listing {
  unsigned count, limit;
  unsigned long seen;  // bit per file "fNN"
  int dots;
};

int take(void *arg, const char *name, int len, loff_t, ino_t, unsigned) {
  listing *list = (listing *)arg;
  if (list->count == list->limit) return -EINVAL;
  list->count++;
  if (name[0] == '.') list->dots++;
  if (len == 3 && name[0] == 'f') list->seen |= 1ul << ((name[1] - '0') * 10 + (name[2] - '0'));
  return 0;
}

}  // namespace

CASE(memfs, names_outlive_their_dentries) {
  EXPECT_EQ(name_mkdir("/d", 0750), 0);
  EXPECT_EQ(name_symlink("target", "/d/link"), 0);
  EXPECT_EQ(name_mknod("/d/null", S_IFCHR | 0600, MKDEV(1, 3)), 0);
  forget_names();
  EXPECT_EQ(stat_of("/d").stat.mode, (umode_t)(S_IFDIR | 0750));
  EXPECT_EQ(stat_of("/d/link").stat.size, 6);
  EXPECT_EQ(stat_of("/d/null").stat.rdev, (dev_t)MKDEV(1, 3));
  EXPECT_EQ(stat_of("/d/none").error, -ENOENT);
}

CASE(memfs, link_counts) {
  EXPECT_EQ(name_mkdir("/d", 0755), 0);
  EXPECT_EQ(name_mkdir("/d/sub", 0755), 0);
  EXPECT_EQ(stat_of("/d").stat.nlink, 3u);
  EXPECT_EQ(name_mknod("/d/f", S_IFREG | 0644, 0), 0);
  EXPECT_EQ(name_link("/d/f", "/d/g"), 0);
  forget_names();
  EXPECT_EQ(stat_of("/d/f").stat.nlink, 2u);
  EXPECT_EQ(stat_of("/d/f").stat.ino, stat_of("/d/g").stat.ino);
  EXPECT_EQ(name_unlink("/d/f"), 0);
  EXPECT_EQ(stat_of("/d/g").stat.nlink, 1u);
  EXPECT_EQ(name_rmdir("/d"), -ENOTEMPTY);
  EXPECT_EQ(name_rmdir("/d/sub"), 0);
  EXPECT_EQ(stat_of("/d").stat.nlink, 2u);
}

CASE(memfs, rename_replaces_and_moves) {
  EXPECT_EQ(name_mkdir("/a", 0755), 0);
  EXPECT_EQ(name_mkdir("/b", 0755), 0);
  EXPECT_EQ(name_mkdir("/a/d", 0755), 0);
  EXPECT_EQ(name_mkdir("/b/d", 0755), 0);
  EXPECT_EQ(name_mknod("/b/d/f", S_IFREG | 0644, 0), 0);
  EXPECT_EQ(name_rename("/a/d", "/b/d"), -ENOTEMPTY);
  EXPECT_EQ(name_rename("/b/d", "/a/d"), 0);
  forget_names();
  EXPECT_EQ(stat_of("/a/d/f").error, 0);
  EXPECT_EQ(stat_of("/b/d").error, -ENOENT);
  EXPECT_EQ(stat_of("/b").stat.nlink, 2u);
  EXPECT_EQ(stat_of("/a").stat.nlink, 3u);
}

CASE(memfs, an_open_file_outlives_its_name) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("still", 5, 0), 5);
  EXPECT_EQ(name_unlink("/f"), 0);
  char seen[6] = {};
  EXPECT_EQ(file.read(seen, 5, 0), 5);
  EXPECT_STREQ(seen, "still");
  EXPECT_EQ(stat_of("/f").error, -ENOENT);
}

CASE(memfs, a_directory_is_read_in_pieces_while_it_shrinks) {
  char name[] = "/f00";
  for (int i = 0; i < 40; i++) {
    name[2] = (char)('0' + i / 10);
    name[3] = (char)('0' + i % 10);
    EXPECT_EQ(name_mknod(name, S_IFREG | 0644, 0), 0);
  }
  open_file dir("/", O_RDONLY | O_DIRECTORY);
  REQUIRE_EQ(dir.error(), 0);
  listing list = {};
  list.limit = 10;
  EXPECT_EQ(vfs_readdir(dir.get(), take, &list), 0);
  EXPECT_EQ(list.count, 10u);
  EXPECT_EQ(list.dots, 2);
  EXPECT_EQ(name_unlink("/f00"), 0);
  EXPECT_EQ(name_unlink("/f08"), 0);
  list.limit = 1000;
  EXPECT_EQ(vfs_readdir(dir.get(), take, &list), 0);
  EXPECT_EQ(list.seen, ((1ul << 40) - 1) & ~(1ul << 8));
  EXPECT_EQ(list.dots, 2);
}

CASE(memfs, attributes_come_back_from_the_node) {
  {
    open_file file("/f");
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write("12345", 5, 8192), 5);
    struct iattr attr = {};
    attr.ia_valid = ATTR_MODE | ATTR_UID | ATTR_GID | ATTR_MTIME | ATTR_MTIME_SET;
    attr.ia_mode = S_IFREG | 0604;
    attr.ia_uid = 17;
    attr.ia_gid = 18;
    attr.ia_mtime.tv_sec = 1000;
    attr.ia_mtime.tv_nsec = 123456789;
    mutex_lock(&file.inode()->i_mutex);
    EXPECT_EQ(notify_change(file.get()->f_dentry, &attr), 0);
    mutex_unlock(&file.inode()->i_mutex);
  }
  forget_names();
  const stat_result result = stat_of("/f");
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(result.stat.mode, (umode_t)(S_IFREG | 0604));
  EXPECT_EQ(result.stat.uid, 17u);
  EXPECT_EQ(result.stat.gid, 18u);
  EXPECT_EQ(result.stat.size, 8197);
  EXPECT_EQ(result.stat.blocks, 8ull);
  EXPECT_EQ(result.stat.mtime.tv_sec, 1000);
  EXPECT_EQ(result.stat.mtime.tv_nsec, 123456789);
}

CASE(memfs, extended_attributes) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  struct dentry *dentry = file.get()->f_dentry;
  char name[] = "user.one", other[] = "user.other", value[] = "value", seen[16];
  EXPECT_EQ(vfs_setxattr(dentry, name, value, 5, 0), 0);
  EXPECT_EQ(vfs_setxattr(dentry, name, value, 5, XATTR_CREATE), -EEXIST);
  EXPECT_EQ(vfs_setxattr(dentry, other, value, 5, XATTR_REPLACE), -ENODATA);
  EXPECT_EQ(vfs_getxattr(dentry, name, NULL, 0), 5);
  EXPECT_EQ(vfs_getxattr(dentry, name, seen, 4), -ERANGE);
  EXPECT_EQ(vfs_getxattr(dentry, name, seen, 16), 5);
  EXPECT_EQ(memcmp(seen, "value", 5), 0);
  EXPECT_EQ(vfs_getxattr(dentry, other, seen, 16), -ENODATA);
  EXPECT_EQ(vfs_removexattr(dentry, name), 0);
  EXPECT_EQ(vfs_removexattr(dentry, name), -ENODATA);
}

CASE(memfs, names_have_a_longest_length) {
  char name[NAME_MAX + 3];
  memset(name, 'n', sizeof(name));
  name[0] = '/';
  name[NAME_MAX + 1] = '\0';
  EXPECT_EQ(name_mknod(name, S_IFREG | 0644, 0), 0);
  name[NAME_MAX + 1] = 'n';
  name[NAME_MAX + 2] = '\0';
  EXPECT_EQ(name_mknod(name, S_IFREG | 0644, 0), -ENAMETOOLONG);
}
