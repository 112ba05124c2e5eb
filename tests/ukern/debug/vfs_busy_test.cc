// SPDX-License-Identifier: GPL-2.0
// The reports of what is still in use when its file system or the name space goes, and of
// references dropped twice.
#include "tests/ukern/testfs.h"
#include "ukern/sched/boot.h"

#if UKERN_DEBUG

static void leak_a_dentry(void) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(dir, "leaked", S_IFREG | 0644);
  dget(file);
  dput(file);
  dput(dir);
  fs.unmount();
}

CASE(vfs_busy, dentry_is_named_with_its_path) {
  EXPECT_REPORT(leak_a_dentry, "dentry /dir/leaked (file");
}
CASE(vfs_busy, dentry_report_names_the_file_system) {
  EXPECT_REPORT(leak_a_dentry, "dentries in use after unmount of testfs");
}
CASE(vfs_busy, dentry_report_says_who_took_it) {
  EXPECT_REPORT(leak_a_dentry, "leak_a_dentry");
}

static void leak_a_negative_dentry(void) {
  testfs fs;
  fs.add(fs.root(), "nothing", 0);
  fs.unmount();
}

CASE(vfs_busy, negative_dentry) {
  EXPECT_REPORT(leak_a_negative_dentry, "dentry /nothing (negative");
}

static void leak_an_inode(void) {
  testfs fs;
  struct inode *inode = fs.inode(S_IFREG | 0644);
  inode->i_ino = 4711;
  fs.unmount();
}

CASE(vfs_busy, inode_is_named_by_its_number) {
  EXPECT_REPORT(leak_an_inode, "inode 4711 (file, 1 links): 1 references not dropped");
}

static void leak_the_root_mount(void) {
  struct nameidata nd;
  if (path_lookup("/", LOOKUP_FOLLOW, &nd)) return;
  mntget(nd.mnt);
  path_release(&nd);
  ukern_umount_root();
}

CASE(vfs_busy, mount_is_named_at_shutdown) {
  EXPECT_REPORT(leak_the_root_mount, "mounts in use at shutdown");
}
CASE(vfs_busy, mount_report_says_who_took_it) {
  EXPECT_REPORT(leak_the_root_mount, "leak_the_root_mount");
}

static void drop_a_dentry_twice(void) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "twice", S_IFREG | 0644);
  dput(dentry);
  dput(dentry);
}

CASE(vfs_busy, dentry_dropped_twice) {
  EXPECT_REPORT(drop_a_dentry_twice, "dentry \"twice\": a reference is dropped that nobody holds");
}

static void drop_an_inode_twice(void) {
  testfs fs;
  struct inode *inode = fs.inode(S_IFREG | 0644);
  inode->i_ino = 99;
  insert_inode_hash(inode);
  iput(inode);
  iput(inode);
}

CASE(vfs_busy, inode_dropped_twice) {
  EXPECT_REPORT(drop_an_inode_twice,
                "inode 99 of testfs: a reference is dropped that nobody holds");
}

#endif  // UKERN_DEBUG

static void get_a_dentry_nobody_holds(void) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "unused", S_IFREG | 0644);
  dput(dentry);
  dget(dentry);
}

CASE(vfs_busy, dget_needs_a_used_dentry) {
  EXPECT_REPORT(get_a_dentry_nobody_holds, "BUG");
}

static void hash_twice(void) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", 0);
  d_rehash(dentry);
}

CASE(vfs_busy, rehash_needs_an_unhashed_dentry) {
  EXPECT_REPORT(hash_twice, "BUG");
}
