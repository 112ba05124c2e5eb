// SPDX-License-Identifier: GPL-2.0
// A directory that is found at another place than before: it was moved below, or it is mounted
// there below a second time. The VFS takes the locks of two dentries one after the other, so that
// two dentries of one upper directory would be one lock taken twice.
#include "tests/module/kit/mount.h"
#include "tests/ukern/host_dir.h"
#include "ukern/syscall/syscall.h"

namespace {

// /lower/a/x with the file f in it, and /lower/y.
void make_tree() {
  EXPECT_EQ(test_mkdir("/lower/a"), 0);
  EXPECT_EQ(test_mkdir("/lower/a/x"), 0);
  EXPECT_EQ(test_mkdir("/lower/y"), 0);
  EXPECT_EQ(test_put("/lower/a/x/f", "f"), 1);
}

// rename(2), by paths that are walked one after the other.
int rename_by_path(const char *from, const char *to) {
  return rename_at(nullptr, from, nullptr, to);
}

int bind(const char *dir, const char *at) {
  return uk_fs_mount(dir, at, nullptr, MS_BIND, nullptr);
}

int error_at(const char *path) {
  return test_walk(path).error();
}

void expect_rename(test_daemon &daemon, const char *from, const char *to) {
  const test_message &record = daemon.next();
  EXPECT_EQ(record.op(), OX_OP_RENAME);
  if (record.op() != OX_OP_RENAME) return;
  EXPECT_STREQ(record.path1(), from);
  EXPECT_STREQ(record.path2(), to);
}

int dentries_of(struct inode *inode) {
  spin_guard guard(dcache_lock);
  int count = 0;
  struct dentry *dentry;
  list_for_each_entry(dentry, &inode->i_dentry, d_alias) count++;
  return count;
}

}  // namespace

// ------------------------------------------------------------------------------- moved below

MODULE_CASE(places, a_rename_between_both_names_of_a_moved_directory_is_one_inside_it) {
  replicated r;
  make_tree();
  { const test_walk known("/mnt/a/x"); }
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  r.daemon.drain();
  EXPECT_EQ(rename_by_path("/mnt/a/x/f", "/mnt/y/x/g"), 0);
  expect_rename(r.daemon, "/lower/y/x/f", "/lower/y/x/g");
  EXPECT_TRUE(test_holds("/lower/y/x/g", "f"));
  EXPECT_EQ(error_at("/mnt/a/x"), -ENOENT);
}

MODULE_CASE(places, a_directory_in_use_is_found_at_its_new_place) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/z"), 0);
  const test_walk found("/mnt/y/z");
  REQUIRE_EQ(found.error(), 0);
  EXPECT_EQ(found.dentry(), in.dentry());
  EXPECT_EQ(dentries_of(in.inode()), 1);
  EXPECT_STREQ(reinterpret_cast<const char *>(in.dentry()->d_name.name), "z");
  EXPECT_EQ(error_at("/mnt/a/x"), -ENOENT);
  EXPECT_TRUE(test_holds("/mnt/y/z/f", "f"));
}

MODULE_CASE(places, a_directory_renamed_below_in_its_directory_is_found) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/a/z"), 0);
  const test_walk found("/mnt/a/z");
  REQUIRE_EQ(found.error(), 0);
  EXPECT_EQ(found.dentry(), in.dentry());
}

// As after ESTALE: it was dropped, and somebody is in it.
MODULE_CASE(places, a_dropped_directory_in_use_is_found_again) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x");
  d_drop(in.dentry());
  const test_walk found("/mnt/a/x");
  REQUIRE_EQ(found.error(), 0);
  EXPECT_EQ(found.dentry(), in.dentry());
  EXPECT_FALSE(d_unhashed(in.dentry()));
}

MODULE_CASE(places, a_directory_is_not_put_below_itself) {
  replicated r;
  make_tree();
  const test_walk x("/mnt/a/x");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/x"), 0);
  REQUIRE_EQ(test_rename("/lower/a", "/lower/x/a"), 0);
  struct walk_path in = {x.mnt(), x.dentry()};
  struct nameidata nd;
  EXPECT_EQ(path_lookup_from(&in, "a", 0, &nd), -ELOOP);
  EXPECT_EQ(error_at("/mnt/x"), 0);
  EXPECT_EQ(error_at("/mnt/x/a"), 0);
  EXPECT_EQ(error_at("/mnt/a"), -ENOENT);
}

MODULE_CASE(places, a_directory_that_is_mounted_on_stays) {
  replicated r;
  make_tree();
  { const test_walk known("/mnt/a/x"); }
  REQUIRE_EQ(uk_fs_mount("none", "/mnt/a/x", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  EXPECT_EQ(error_at("/mnt/y/x"), -EBUSY);
  EXPECT_EQ(uk_fs_umount("/mnt/a/x", 0), 0);
  EXPECT_EQ(error_at("/mnt/y/x"), 0);
}

// The locks that a move needs are taken in another order than a look-up has its own.
MODULE_CASE(places, a_directory_whose_locks_are_held_is_not_waited_for) {
  replicated r;
  make_tree();
  test_walk in("/mnt/a/x");
  const test_walk a("/mnt/a");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  {
    mutex_guard guard(a.inode()->i_mutex, I_MUTEX_PARENT);
    EXPECT_EQ(error_at("/mnt/y/x"), -ESTALE);
  }
  {
    mutex_guard guard(a.inode()->i_sb->s_vfs_rename_mutex);
    EXPECT_EQ(error_at("/mnt/y/x"), -ESTALE);
    in.drop();
    EXPECT_EQ(error_at("/mnt/y/x"), 0);  // nobody uses it: it need not be moved
  }
  EXPECT_TRUE(test_holds("/mnt/y/x/f", "f"));
}

// A rename looks its last names up with the locks held that a move needs.
MODULE_CASE(places, a_directory_is_looked_up_before_it_goes_elsewhere) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x");
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  EXPECT_EQ(rename_by_path("/mnt/y/x", "/mnt/x"), -ESTALE);
  EXPECT_TRUE(test_exists("/lower/y/x"));
  EXPECT_EQ(error_at("/mnt/y/x"), 0);
  EXPECT_EQ(rename_by_path("/mnt/y/x", "/mnt/x"), 0);
  EXPECT_TRUE(test_holds("/lower/x/f", "f"));
}

// A lower file system may have dropped the dentry that is known above.
MODULE_CASE(places, a_directory_goes_by_its_new_lower_name) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x"), y("/mnt/y");
  test_file file("/mnt/a/x/f", O_RDWR);
  struct dentry *former = tarn_lower_dentry(in.dentry());
  REQUIRE_EQ(test_rename("/lower/a/x", "/lower/y/x"), 0);
  d_drop(former);
  const test_walk found("/mnt/y/x");
  REQUIRE_EQ(found.error(), 0);
  EXPECT_EQ(found.dentry(), in.dentry());
  const test_walk lower("/lower/y/x");
  EXPECT_NE(lower.dentry(), former);
  EXPECT_EQ(tarn_lower_dentry(in.dentry()), lower.dentry());
  // What was known in it goes by the names of before.
  const test_walk f("/mnt/y/x/f"), lower_f("/lower/y/x/f");
  EXPECT_EQ(tarn_lower_dentry(f.dentry()), lower_f.dentry());
  EXPECT_TRUE(test_holds("/mnt/y/x/f", "f"));
}

// hostfs gives a directory that the host has moved a dentry of its own.
MODULE_CASE(places, a_directory_moved_on_the_host_is_one_directory) {
  host_dir host("/lower");
  REQUIRE_EQ(host.error(), 0);
  make_tree();
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr), 0);
  {
    test_daemon daemon;
    REQUIRE_EQ(install_rule('r', "/lower"), 0);
    const test_walk in("/mnt/a/x"), known("/mnt/a/x/f");
    const int a = host_fs_lookup(nullptr, host.fd(), "a");
    const int y = host_fs_lookup(nullptr, host.fd(), "y");
    REQUIRE_EQ(host_fs_rename(nullptr, a, "x", y, "x"), 0);
    host_fs_close(a);
    host_fs_close(y);
    const test_walk found("/mnt/y/x");
    REQUIRE_EQ(found.error(), 0);
    EXPECT_EQ(found.dentry(), in.dentry());
    EXPECT_EQ(dentries_of(in.inode()), 1);
    EXPECT_EQ(error_at("/mnt/a/x"), -ENOENT);
    test_file file("/mnt/y/x/f", O_RDWR);
    daemon.drain();
    EXPECT_EQ(file.write("y", 1, 0), 1);
    EXPECT_STREQ(daemon.next().wr()->data, "/lower/y/x/f");
    daemon.drain();
    EXPECT_EQ(rename_by_path("/mnt/y/x/f", "/mnt/y/g"), 0);
    expect_rename(daemon, "/lower/y/x/f", "/lower/y/g");
    do_flush(0);
  }
  EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
}

namespace {

struct walker {
  const char *path;
  struct completion done;
  int stop;
  int errors;  // others than those that a moved name may have
};

void walk_until_stopped(void *arg) {
  auto *walker = static_cast<struct walker *>(arg);
  while (!ox_load(walker->stop)) {
    const int error = error_at(walker->path);
    if (error && error != -ENOENT && error != -ESTALE) walker->errors++;
  }
}

int walk(void *arg) {
  walk_until_stopped(arg);
  complete(&static_cast<struct walker *>(arg)->done);
  return 0;
}

}  // namespace

MODULE_CASE(places, a_directory_has_one_dentry_however_many_look_for_it) {
  replicated r;
  make_tree();
  const test_walk in("/mnt/a/x");
  static struct walker walkers[2];
  const char *const paths[] = {"/mnt/a/x/f", "/mnt/y/x/f"};
  for (int i = 0; i < 2; i++) {
    walkers[i].path = paths[i];
    init_completion(&walkers[i].done);
    REQUIRE_TRUE(!IS_ERR(kthread_run(walk, &walkers[i], "walker")));
  }
  for (int n = 0; n < 300; n++) {
    EXPECT_EQ(
        n % 2 ? test_rename("/lower/y/x", "/lower/a/x") : test_rename("/lower/a/x", "/lower/y/x"),
        0);
    EXPECT_EQ(dentries_of(in.inode()), 1);
  }
  for (struct walker &walker : walkers) {
    ox_store(walker.stop, 1);
    wait_for_completion(&walker.done);
    EXPECT_EQ(walker.errors, 0);
  }
}

// -------------------------------------------------------------- mounted below a second time

MODULE_CASE(places, nothing_moves_between_two_mounts_of_one_lower_directory) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/p"), 0);
  REQUIRE_EQ(test_mkdir("/lower/q"), 0);
  REQUIRE_EQ(test_put("/lower/p/f", "f"), 1);
  REQUIRE_EQ(bind("/lower/p", "/lower/q"), 0);
  {
    const test_walk in("/mnt/p"), there("/mnt/q");
    EXPECT_NE(in.inode(), there.inode());
    EXPECT_EQ(in.inode()->i_ino, there.inode()->i_ino);
    EXPECT_EQ(tarn_lower_inode(in.inode()), tarn_lower_inode(there.inode()));
    EXPECT_EQ(rename_by_path("/mnt/p/f", "/mnt/q/g"), -EXDEV);
    EXPECT_EQ(rename_by_path("/mnt/q/f", "/mnt/p/g"), -EXDEV);
    EXPECT_EQ(test_link("/mnt/p/f", "/mnt/q/g"), -EXDEV);
  }
  r.daemon.drain();
  // Each place has its own names, and what is changed there goes by them.
  EXPECT_EQ(rename_by_path("/mnt/p/f", "/mnt/p/g"), 0);
  expect_rename(r.daemon, "/lower/p/f", "/lower/p/g");
  EXPECT_EQ(rename_by_path("/mnt/q/g", "/mnt/q/h"), 0);
  expect_rename(r.daemon, "/lower/q/g", "/lower/q/h");
  EXPECT_TRUE(test_holds("/lower/p/h", "f"));
  const test_walk first("/mnt/p/h"), second("/mnt/q/h");
  EXPECT_EQ(first.inode(), second.inode());
  EXPECT_EQ(uk_fs_umount("/lower/q", MNT_DETACH), 0);
}

MODULE_CASE(places, a_mount_of_the_lower_directory_inside_itself_is_another_directory) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/self"), 0);
  REQUIRE_EQ(test_put("/lower/f", "f"), 1);
  REQUIRE_EQ(bind("/lower", "/lower/self"), 0);
  {
    const test_walk root("/mnt"), self("/mnt/self"), d("/mnt/d"), other_d("/mnt/self/d");
    REQUIRE_EQ(self.error(), 0);
    REQUIRE_EQ(other_d.error(), 0);
    EXPECT_NE(root.inode(), self.inode());
    EXPECT_NE(d.inode(), other_d.inode());
    EXPECT_EQ(rename_by_path("/mnt/f", "/mnt/self/g"), -EXDEV);
    EXPECT_EQ(rename_by_path("/mnt/self/f", "/mnt/d/g"), -EXDEV);
    EXPECT_EQ(rename_by_path("/mnt/self/f", "/mnt/self/d/f"), 0);
  }
  EXPECT_TRUE(test_holds("/lower/d/f", "f"));
  EXPECT_EQ(error_at("/mnt/self/self/self"), -ENOENT);
  EXPECT_EQ(uk_fs_umount("/lower/self", MNT_DETACH), 0);
}
