// SPDX-License-Identifier: GPL-2.0
// Names that were changed below, beside the mount, are not acted on as if they were current: an
// operation changes what its names stand for now, or nothing.
#include "tests/module/kit/mount.h"
#include "ukern/fs/memfs.h"
#include "ukern/syscall/syscall.h"

namespace {

// The layer's own call, as the VFS makes it with what it has found above: another look-up would
// notice the change first.
class vfs_call {
 public:
  vfs_call(const char *dir, const char *name) : dir_(dir), name_(name) {}
  int unlink() {
    mutex_guard guard(dir_.inode()->i_mutex);
    return tarn_dir_iops.unlink(dir_.inode(), name_.dentry());
  }
  int rmdir() {
    mutex_guard guard(dir_.inode()->i_mutex);
    return tarn_dir_iops.rmdir(dir_.inode(), name_.dentry());
  }
  int rename_to(const vfs_call &to) {
    return tarn_dir_iops.rename(dir_.inode(), name_.dentry(), to.dir_.inode(), to.name_.dentry());
  }
  struct dentry *dentry() const {
    return name_.dentry();
  }

 private:
  const test_walk dir_, name_;
};

}  // namespace

MODULE_CASE(beside, a_directory_that_was_made_anew_below_is_not_replaced) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/mnt/T"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/S"), 0);
  vfs_call source("/mnt", "/mnt/S"), target("/mnt", "/mnt/T");
  REQUIRE_EQ(test_rmdir("/lower/T"), 0);
  REQUIRE_EQ(test_mkdir("/lower/T"), 0);
  REQUIRE_EQ(test_put("/lower/T/precious", "x"), 1);
  r.daemon.drain();
  EXPECT_EQ(source.rename_to(target), -ESTALE);
  EXPECT_EQ(r.daemon.drain(), 0);
  EXPECT_TRUE(test_holds("/lower/T/precious", "x"));
  EXPECT_TRUE(test_holds("/mnt/T/precious", "x"));
}

MODULE_CASE(beside, a_name_that_was_replaced_below_is_not_removed) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "old"), 3);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  vfs_call file("/mnt", "/mnt/f"), dir("/mnt", "/mnt/d");
  REQUIRE_EQ(test_put("/lower/f2", "new"), 3);
  REQUIRE_EQ(test_rename("/lower/f2", "/lower/f"), 0);
  REQUIRE_EQ(test_rename("/lower/d", "/lower/d2"), 0);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  EXPECT_EQ(file.unlink(), -ESTALE);
  EXPECT_EQ(dir.rmdir(), -ESTALE);
  EXPECT_TRUE(test_holds("/lower/f", "new"));
  EXPECT_TRUE(test_exists("/lower/d"));
  EXPECT_TRUE(test_exists("/lower/d2"));
}

MODULE_CASE(beside, a_target_that_was_moved_below_is_left_alone_where_it_is) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/other"), 0);
  REQUIRE_EQ(test_put("/lower/x", "x"), 1);
  REQUIRE_EQ(test_put("/lower/y", "y"), 1);
  vfs_call x("/mnt", "/mnt/x"), y("/mnt", "/mnt/y");
  REQUIRE_EQ(test_rename("/lower/y", "/lower/other/y"), 0);
  EXPECT_EQ(x.rename_to(y), -ESTALE);
  EXPECT_TRUE(test_holds("/lower/other/y", "y"));
  EXPECT_TRUE(test_holds("/lower/x", "x"));
}

MODULE_CASE(beside, two_mounts_do_not_rename_over_each_other_s_names) {
  replicated r;
  test_mkdir("/second");
  REQUIRE_EQ(uk_fs_mount("/lower", "/second", "tarn", 0, nullptr), 0);
  REQUIRE_EQ(test_mkdir("/lower/p"), 0);
  REQUIRE_EQ(test_mkdir("/lower/q"), 0);
  REQUIRE_EQ(test_put("/lower/p/h", "h"), 1);
  REQUIRE_EQ(test_put("/lower/q/d", "d"), 1);
  {
    vfs_call h("/second/p", "/second/p/h"), d("/second/q", "/second/q/d");
    REQUIRE_EQ(test_rename("/mnt/p/h", "/mnt/p/moved"), 0);
    EXPECT_EQ(d.rename_to(h), -ESTALE);
  }
  EXPECT_TRUE(test_holds("/lower/p/moved", "h"));
  EXPECT_TRUE(test_holds("/lower/q/d", "d"));
  EXPECT_EQ(uk_fs_umount("/second", 0), 0);
}

// The VFS looks whether a directory is moved into itself on the upper dentries alone.
MODULE_CASE(beside, a_directory_does_not_become_its_own_descendant) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/mnt/a"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/a/x"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/y"), 0);
  const test_walk y("/mnt/y");
  vfs_call x("/mnt/a", "/mnt/a/x");
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/mnt/y/z", LOOKUP_PARENT, &nd), 0);
  struct dentry *z = lookup_create(&nd, 1);
  REQUIRE_TRUE(!IS_ERR(z));
  mutex_unlock(&nd.dentry->d_inode->i_mutex);
  REQUIRE_EQ(test_rename("/lower/y", "/lower/a/x/y"), 0);
  const test_walk a("/mnt/a");
  EXPECT_EQ(tarn_dir_iops.rename(a.inode(), x.dentry(), y.inode(), z), -EINVAL);
  dput(z);
  path_release(&nd);
  EXPECT_TRUE(test_exists("/lower/a/x/y"));
}

MODULE_CASE(beside, a_directory_that_was_moved_below_the_target_does_not_hang) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/mnt/a"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/a/x"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/y"), 0);
  vfs_call x("/mnt/a", "/mnt/a/x"), y("/mnt", "/mnt/y");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  EXPECT_EQ(x.rename_to(y), -ESTALE);
  EXPECT_TRUE(test_exists("/lower/y/x"));
}

MODULE_CASE(beside, what_is_mounted_below_is_busy) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/m"), 0);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  vfs_call d("/mnt", "/mnt/d"), m("/mnt", "/mnt/m");
  REQUIRE_EQ(uk_fs_mount("none", "/lower/m", "memfs", 0, nullptr), 0);
  EXPECT_EQ(m.rmdir(), -EBUSY);
  EXPECT_EQ(m.rename_to(d), -EBUSY);
  EXPECT_EQ(d.rename_to(m), -EBUSY);
  EXPECT_EQ(uk_fs_umount("/lower/m", 0), 0);
}

// ------------------------------------------------------------------- what the mount shows of it

MODULE_CASE(beside, known_names_stay_as_they_were) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/gone", "old"), 3);
  REQUIRE_EQ(test_put("/lower/other", "old"), 3);
  const test_walk known("/mnt/gone"), replaced("/mnt/other"), missing("/mnt/new");
  REQUIRE_EQ(missing.error(), -ENOENT);
  REQUIRE_EQ(test_unlink("/lower/gone"), 0);
  REQUIRE_EQ(test_put("/lower/fresh", "new"), 3);
  REQUIRE_EQ(test_rename("/lower/fresh", "/lower/other"), 0);
  REQUIRE_EQ(test_put("/lower/new", "new"), 3);
  EXPECT_TRUE(test_holds("/mnt/gone", "old"));
  EXPECT_TRUE(test_holds("/mnt/other", "old"));
  EXPECT_FALSE(test_exists("/mnt/new"));
}

MODULE_CASE(beside, after_estale_the_next_call_sees_what_is_there) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "f"), 1);
  REQUIRE_EQ(test_put("/lower/gone", "old"), 3);
  REQUIRE_EQ(test_put("/lower/other", "old"), 3);
  const test_walk known("/mnt/gone"), replaced("/mnt/other"), missing("/mnt/new");
  REQUIRE_EQ(test_unlink("/lower/gone"), 0);
  EXPECT_EQ(rename_at(nullptr, "/mnt/f", nullptr, "/mnt/gone"), -ESTALE);
  EXPECT_EQ(rename_at(nullptr, "/mnt/f", nullptr, "/mnt/gone"), 0);
  EXPECT_TRUE(test_holds("/lower/gone", "f"));
  REQUIRE_EQ(test_mkdir("/lower/new"), 0);
  EXPECT_EQ(mkdir_at(nullptr, "/mnt/new", 0755), -ESTALE);
  EXPECT_EQ(mkdir_at(nullptr, "/mnt/new", 0755), -EEXIST);
  REQUIRE_EQ(test_put("/lower/fresh", "new"), 3);
  REQUIRE_EQ(test_rename("/lower/fresh", "/lower/other"), 0);
  EXPECT_EQ(unlink_at(nullptr, "/mnt/other"), -ESTALE);
  EXPECT_TRUE(test_holds("/lower/other", "new"));
  EXPECT_EQ(unlink_at(nullptr, "/mnt/other"), 0);
  EXPECT_FALSE(test_exists("/lower/other"));
}

// ------------------------------------------------------------------------ users of a lower name

namespace {

int (*own_unlink)(struct inode *, struct dentry *);
int users_seen;

int seeing_unlink(struct inode *dir, struct dentry *dentry) {
  users_seen = atomic_read(&dentry->d_count);
  return own_unlink(dir, dentry);
}

// A lower file system that keeps what is in use under another name, as NFS does, counts.
int users_at_removal(const char *path) {
  const test_walk lower("/lower");
  struct inode_operations ops = *lower.inode()->i_op;
  struct inode_operations *own = lower.inode()->i_op;
  own_unlink = ops.unlink;
  ops.unlink = seeing_unlink;
  lower.inode()->i_op = &ops;
  users_seen = 0;
  struct nameidata nd;
  EXPECT_EQ(path_lookup("/mnt", 0, &nd), 0);
  {
    mutex_guard guard(nd.dentry->d_inode->i_mutex, I_MUTEX_PARENT);
    struct dentry *dentry = lookup_one_len(path, nd.dentry, static_cast<int>(strlen(path)));
    EXPECT_EQ(vfs_unlink(nd.dentry->d_inode, dentry), 0);
    dput(dentry);
  }
  path_release(&nd);
  lower.inode()->i_op = own;
  return users_seen;
}

}  // namespace

MODULE_CASE(beside, a_lower_name_has_one_user_unless_the_upper_one_has_more) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  REQUIRE_EQ(test_put("/lower/g", "x"), 1);
  EXPECT_EQ(users_at_removal("f"), 1);
  test_file open("/mnt/g", O_RDWR);
  EXPECT_GT(users_at_removal("g"), 1);
  EXPECT_EQ(open.write("y", 1, 0), 1);
  EXPECT_FALSE(test_exists("/mnt/f"));
  EXPECT_FALSE(test_exists("/mnt/g"));
}

// ------------------------------------------------------------------------------ what came once

MODULE_CASE(beside, a_mount_without_a_source_is_refused) {
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  EXPECT_EQ(uk_fs_mount(nullptr, "/mnt", "tarn", 0, nullptr), -EINVAL);
  EXPECT_EQ(uk_fs_mount("", "/mnt", "tarn", 0, nullptr), -EINVAL);
}

namespace {

unsigned flags_seen;
int (*own_create)(struct inode *, struct dentry *, int, struct nameidata *);
int seeing_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *nd) {
  flags_seen = nd->flags;
  return own_create(dir, dentry, mode, nd);
}
int forgetful_create(struct inode *, struct dentry *, int, struct nameidata *) {
  return 0;
}

}  // namespace

MODULE_CASE(beside, the_lower_file_system_is_not_told_of_an_open) {
  test_mount mount;
  const test_walk lower("/lower");
  struct inode_operations ops = *lower.inode()->i_op;
  struct inode_operations *own = lower.inode()->i_op;
  own_create = ops.create;
  ops.create = seeing_create;
  lower.inode()->i_op = &ops;
  flags_seen = LOOKUP_OPEN;
  EXPECT_EQ(test_put("/mnt/f", "x"), 1);
  EXPECT_FALSE(flags_seen & LOOKUP_OPEN);
  ops.create = forgetful_create;
  EXPECT_EQ(test_put("/mnt/g", "x"), -ESTALE);
  lower.inode()->i_op = own;
}
