// SPDX-License-Identifier: GPL-2.0
// The locks of docs/locking.md: which of them are held around each call of the lower file system,
// and that the lock checker has learned their order and reports the other way round.
#include "tests/ukern/open_file.h"
#include "tests/module/kit/mount.h"
#include "ukern/fs/memfs.h"
#include "ukern/sync/lockcheck.h"
#include "rule_set.h"
#include "dir_set.h"

namespace {

// The locks of one upper directory and one object in it, and of what lies below them.
enum held_lock {
  UPPER_DIR = 1,
  LOWER_DIR = 2,
  UPPER = 4,
  LOWER = 8,
  LOWER_FILE = 16, /* lower_file_mutex of the upper object */
};

struct watched {
  struct inode *dir, *object; /* of the mount */
  struct inode_operations *own_dir_ops, *own_ops;
  struct inode_operations dir_ops, ops;
  const struct file_operations *own_dir_fops, *own_fops;
  struct file_operations dir_fops, fops;
  int calls;
  unsigned held; /* at the last call below */
};
struct watched w;

void note() {
  struct inode *lower_dir = tarn_lower_inode(w.dir), *lower = tarn_lower_inode(w.object);
  w.calls++;
  w.held = 0;
  if (mutex_is_locked(&w.dir->i_mutex)) w.held |= UPPER_DIR;
  if (mutex_is_locked(&lower_dir->i_mutex)) w.held |= LOWER_DIR;
  if (mutex_is_locked(&w.object->i_mutex)) w.held |= UPPER;
  if (mutex_is_locked(&lower->i_mutex)) w.held |= LOWER;
  if (mutex_is_locked(&tarn_inode(w.object)->lower_file_mutex)) w.held |= LOWER_FILE;
}

// The slot of one operation is replaced by a function that notes what is held and goes on.
template <auto Slot, auto Own, typename Signature>
struct noting;
template <auto Slot, auto Own, typename Result, typename... Args>
struct noting<Slot, Own, Result (*)(Args...)> {
  static Result call(Args... args) {
    note();
    return ((w.*Own)->*Slot)(args...);
  }
};
#define WATCH(table, own, slot) \
  w.table.slot = noting<&decltype(w.table)::slot, &watched::own, decltype(w.table.slot)>::call

// /mnt/d/f and what lies below are watched until the end of the scope.
class watching {
 public:
  watching() : dir_("/mnt/d"), object_("/mnt/d/f") {
    w.dir = dir_.inode();
    w.object = object_.inode();
    w.calls = 0;
    struct inode *lower_dir = tarn_lower_inode(w.dir), *lower = tarn_lower_inode(w.object);
    w.own_dir_ops = lower_dir->i_op;
    w.own_ops = lower->i_op;
    w.own_dir_fops = lower_dir->i_fop;
    w.own_fops = lower->i_fop;
    w.dir_ops = *w.own_dir_ops;
    w.ops = *w.own_ops;
    w.dir_fops = *w.own_dir_fops;
    w.fops = *w.own_fops;
    WATCH(dir_ops, own_dir_ops, create);
    WATCH(dir_ops, own_dir_ops, lookup);
    WATCH(dir_ops, own_dir_ops, link);
    WATCH(dir_ops, own_dir_ops, unlink);
    WATCH(dir_ops, own_dir_ops, symlink);
    WATCH(dir_ops, own_dir_ops, mkdir);
    WATCH(dir_ops, own_dir_ops, rmdir);
    WATCH(dir_ops, own_dir_ops, mknod);
    WATCH(dir_ops, own_dir_ops, rename);
    WATCH(dir_fops, own_dir_fops, readdir);
    WATCH(ops, own_ops, getattr);
    WATCH(ops, own_ops, setattr);
    WATCH(ops, own_ops, setxattr);
    WATCH(ops, own_ops, getxattr);
    WATCH(ops, own_ops, listxattr);
    WATCH(ops, own_ops, removexattr);
    WATCH(fops, own_fops, read);
    WATCH(fops, own_fops, write);
    WATCH(fops, own_fops, open);
    WATCH(fops, own_fops, fsync);
    lower_dir->i_op = &w.dir_ops;
    lower->i_op = &w.ops;
    lower_dir->i_fop = &w.dir_fops;
    lower->i_fop = &w.fops;
  }
  ~watching() {
    struct inode *lower_dir = tarn_lower_inode(w.dir), *lower = tarn_lower_inode(w.object);
    lower_dir->i_op = w.own_dir_ops;
    lower->i_op = w.own_ops;
    lower_dir->i_fop = w.own_dir_fops;
    lower->i_fop = w.own_fops;
  }
  watching(const watching &) = delete;
  watching &operator=(const watching &) = delete;

 private:
  const test_walk dir_, object_;
};

// What the last call below was made under; `result` is that of the whole operation.
void expect_held(long result, unsigned locks) {
  EXPECT_EQ(result, 0);
  EXPECT_LT(0, w.calls);
  EXPECT_EQ(w.held, locks);
  w.calls = 0;
}

}  // namespace

MODULE_CASE(locks, names_change_under_both_directories) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  watching watch;
  expect_held(test_name("/mnt/d/missing").error() + ENOENT, UPPER_DIR | LOWER_DIR);
  expect_held(test_put("/mnt/d/made", "x") - 1, UPPER_DIR | LOWER_DIR);
  expect_held(test_mkdir("/mnt/d/sub"), UPPER_DIR | LOWER_DIR);
  expect_held(test_mknod("/mnt/d/fifo", S_IFIFO | 0600, 0), UPPER_DIR | LOWER_DIR);
  expect_held(test_symlink("to", "/mnt/d/link"), UPPER_DIR | LOWER_DIR);
  expect_held(test_rmdir("/mnt/d/sub"), UPPER_DIR | LOWER_DIR);
  expect_held(test_rename("/mnt/d/made", "/mnt/d/moved"), UPPER_DIR | LOWER_DIR);
  {
    const test_walk dir("/mnt/d"), old("/mnt/d/f");
    struct nameidata nd;
    REQUIRE_EQ(path_lookup("/mnt/d/hard", LOOKUP_PARENT, &nd), 0);
    struct dentry *fresh = lookup_create(&nd, 0);
    REQUIRE_TRUE(!IS_ERR(fresh));
    expect_held(vfs_link(old.dentry(), dir.inode(), fresh), UPPER_DIR | LOWER_DIR | UPPER | LOWER);
    dput(fresh);
    mutex_unlock(&nd.dentry->d_inode->i_mutex);
    path_release(&nd);
  }
  {
    const test_node dir("/mnt/d");
    expect_held(uk_unlink(dir.get(), "f"), UPPER_DIR | LOWER_DIR | UPPER | LOWER);
  }
}

MODULE_CASE(locks, rename_holds_both_lower_parents_and_the_rename_mutexes) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/e"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  watching watch;
  static struct inode *other;
  const test_walk e("/lower/e"), upper("/mnt");
  other = e.inode();
  static struct super_block *above;
  above = upper.dentry()->d_sb;
  static bool held;
  w.dir_ops.rename = [](struct inode *old_dir, struct dentry *old, struct inode *new_dir,
                        struct dentry *fresh) -> int {
    note();
    held = mutex_is_locked(&other->i_mutex) && mutex_is_locked(&above->s_vfs_rename_mutex) &&
           mutex_is_locked(&old_dir->i_sb->s_vfs_rename_mutex);
    return w.own_dir_ops->rename(old_dir, old, new_dir, fresh);
  };
  held = false;
  expect_held(test_rename("/mnt/d/f", "/mnt/e/f"), UPPER_DIR | LOWER_DIR);
  EXPECT_TRUE(held);
}

MODULE_CASE(locks, attributes_change_under_the_object_alone) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  watching watch;
  const test_node node("/mnt/d/f");
  struct uk_stat after = {};
  {
    struct inode *inode = w.object;
    const test_walk upper("/mnt/d/f");
    struct iattr ia;
    memset(&ia, 0, sizeof(ia));
    ia.ia_valid = ATTR_MODE;
    ia.ia_mode = S_IFREG | 0600;
    mutex_guard guard(inode->i_mutex);
    expect_held(notify_change(upper.dentry(), &ia), UPPER | LOWER);
  }
  expect_held(uk_getattr(node.get(), nullptr, &after), 0);
  expect_held(uk_setxattr(node.get(), "user.a", "b", 1, 0), UPPER | LOWER);
  expect_held(uk_getxattr(node.get(), "user.a", nullptr, 0) - 1, LOWER);
  expect_held(uk_listxattr(node.get(), nullptr, 0) - 7, LOWER);
  expect_held(uk_removexattr(node.get(), "user.a"), UPPER | LOWER);
}

MODULE_CASE(locks, data_moves_under_the_mutex_of_the_lower_file) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  watching watch;
  test_file file("/mnt/d/f", O_RDWR);
  expect_held(file.error(), 0);
  char byte;
  expect_held(file.read(&byte, 1, 0) - 1, LOWER_FILE);
  expect_held(file.write("y", 1, 0) - 1, UPPER | LOWER_FILE);
  expect_held(uk_fsync(file.get(), 0), UPPER | LOWER);
  test_file dir("/mnt/d", O_RDONLY | O_DIRECTORY);
  const auto skip = [](void *, const char *, unsigned long long, unsigned,
                       unsigned long long) -> int { return 0; };
  expect_held(uk_readdir(dir.get(), 0, skip, nullptr), UPPER_DIR | LOWER_DIR);
}

MODULE_CASE(locks, the_other_calls_are_made_without_any) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  watching watch;
  w.ops.permission = [](struct inode *, int, struct nameidata *) -> int {
    note();
    return 0;
  };
  w.fops.flush = [](struct file *, fl_owner_t) -> int {
    note();
    return 0;
  };
  w.fops.fasync = [](int, struct file *, int) -> int {
    note();
    return 0;
  };
  w.fops.ioctl = [](struct inode *, struct file *, unsigned, unsigned long) -> int {
    note();
    return 0;
  };
  const test_node node("/mnt/d/f");
  expect_held(uk_access(node.get(), MAY_READ), 0);
  open_file file("/mnt/d/f", O_RDWR);
  w.calls = 0;
  expect_held(file.ops()->flush(file.get(), nullptr), 0);
  expect_held(file.ops()->fasync(3, file.get(), 1), 0);
  expect_held(file.ops()->ioctl(file->f_dentry->d_inode, file.get(), 1, 2), 0);

  struct address_space *lower = tarn_lower_inode(w.object)->i_mapping;
  const struct address_space_operations *own = lower->a_ops;
  struct address_space_operations with_bmap = *own;
  with_bmap.bmap = [](struct address_space *, sector_t) -> sector_t {
    note();
    return 0;
  };
  lower->a_ops = &with_bmap;
  expect_held(static_cast<long>(tarn_aops.bmap(w.object->i_mapping, 0)), 0);
  lower->a_ops = own;

  const test_walk below("/lower/d/f"), upper("/mnt/d/f");
  struct dentry_operations *own_dops = below.dentry()->d_op;
  static struct dentry_operations dops;
  dops.d_revalidate = [](struct dentry *, struct nameidata *) -> int {
    note();
    return 1;
  };
  below.dentry()->d_op = &dops;
  struct nameidata nd = {};
  expect_held(tarn_dops.d_revalidate(upper.dentry(), &nd) - 1, 0);
  below.dentry()->d_op = own_dops;
}

#if UKERN_DEBUG

namespace {

struct inode *upper_inode, *lower_inode;
struct super_block *upper_sb, *lower_sb;

// The objects at a path of the mount, kept by the case's walks.
class pair {
 public:
  explicit pair(const char *path) : upper_(path) {
    upper_inode = upper_.inode();
    lower_inode = tarn_lower_inode(upper_inode);
    upper_sb = upper_inode->i_sb;
    lower_sb = lower_inode->i_sb;
  }

 private:
  const test_walk upper_;
};

}  // namespace

MODULE_CASE(locks, lower_directory_is_inside_the_upper_one) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  pair at("/mnt/d");
  EXPECT_REPORT(
      [] {
        mutex_lock_nested(&lower_inode->i_mutex, I_MUTEX_PARENT);
        mutex_lock_nested(&upper_inode->i_mutex, I_MUTEX_PARENT);
      },
      "lock order inversion");
}

MODULE_CASE(locks, lower_object_is_inside_the_upper_one) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  pair at("/mnt/f");
  const test_node node("/mnt/f");
  REQUIRE_EQ(uk_setxattr(node.get(), "user.a", "b", 1, 0), 0);
  EXPECT_REPORT(
      [] {
        mutex_lock(&lower_inode->i_mutex);
        mutex_lock(&upper_inode->i_mutex);
      },
      "lock order inversion");
}

MODULE_CASE(locks, mutex_of_the_lower_file_is_between_the_upper_and_the_lower_object) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  pair at("/mnt/f");
  EXPECT_REPORT(
      [] {
        mutex_lock(&tarn_inode(upper_inode)->lower_file_mutex);
        mutex_lock(&upper_inode->i_mutex);
      },
      "lock order inversion");
  EXPECT_REPORT(
      [] {
        mutex_lock(&lower_inode->i_mutex);
        mutex_lock(&tarn_inode(upper_inode)->lower_file_mutex);
      },
      "lock order inversion");
}

MODULE_CASE(locks, rename_mutex_below_is_inside_the_upper_one) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  REQUIRE_EQ(test_rename("/mnt/f", "/mnt/d/f"), 0);
  pair at("/mnt/d");
  EXPECT_REPORT(
      [] {
        mutex_lock(&lower_sb->s_vfs_rename_mutex);
        mutex_lock(&upper_sb->s_vfs_rename_mutex);
      },
      "lock order inversion");
  EXPECT_REPORT(
      [] {
        mutex_lock(&lower_sb->s_vfs_rename_mutex);
        mutex_lock_nested(&upper_inode->i_mutex, I_MUTEX_PARENT);
      },
      "lock order inversion");
}

MODULE_CASE(locks, size_changes_below_inside_the_upper_one) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  pair at("/mnt/f");
  const test_node node("/mnt/f");
  struct uk_stat want = {}, after = {};
  REQUIRE_EQ(uk_setattr(node.get(), nullptr, UK_SET_SIZE, &want, &after), 0);
  EXPECT_REPORT(
      [] {
        down_write(&lower_inode->i_alloc_sem);
        down_write(&upper_inode->i_alloc_sem);
      },
      "lock order inversion");
}

// Nothing that sleeps is taken under the locks of the two sets.
MODULE_CASE(locks, sets_are_inside_everything_that_sleeps) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  pair at("/mnt/d");
  EXPECT_REPORT(
      [] {
        read_lock(&get_prule_set()->rwlock);
        mutex_lock(&lower_inode->i_mutex);
      },
      "sleeping function called in atomic context");
  EXPECT_REPORT(
      [] {
        read_lock(&get_dir_set()->rwlock);
        mutex_lock(&lower_inode->i_mutex);
      },
      "sleeping function called in atomic context");
}

MODULE_CASE(locks, flushed_rules_and_directories_are_inside_their_sets) {
  EXPECT_EQ(install_rule('r', "/"), 0);
  EXPECT_EQ(install_directory('d', "/data"), 0);
  do_flush(0);
  dir_flush(0);
  EXPECT_REPORT(
      [] {
        spin_lock(&get_prule_set()->flushed.lock);
        read_lock(&get_prule_set()->rwlock);
      },
      "lock order inversion");
  EXPECT_REPORT(
      [] {
        spin_lock(&get_dir_set()->flushed.lock);
        read_lock(&get_dir_set()->rwlock);
      },
      "lock order inversion");
}

// A mount of the layer over another takes locks of one kind twice, the upper one's first.
MODULE_CASE(locks, mount_over_a_mount_is_outside_it) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/top"), 0);
  REQUIRE_EQ(uk_fs_mount("/mnt", "/top", "tarn", 0, nullptr), 0);
  REQUIRE_EQ(test_mkdir("/top/d"), 0);
  REQUIRE_EQ(test_put("/top/d/f", "x"), 1);
  {
    pair at("/top/d");
    EXPECT_EQ(lower_sb->s_type, upper_sb->s_type);
    EXPECT_REPORT(
        [] {
          mutex_lock_nested(&lower_inode->i_mutex, I_MUTEX_PARENT);
          mutex_lock_nested(&upper_inode->i_mutex, I_MUTEX_PARENT);
        },
        "lock order inversion: &tarn_i_mutex_key/1 at depth 2");
  }
  {
    pair at("/top/d/f");
    EXPECT_REPORT(
        [] {
          mutex_lock(&tarn_inode(lower_inode)->lower_file_mutex);
          mutex_lock(&tarn_inode(upper_inode)->lower_file_mutex);
        },
        "lock order inversion: &inode_info->lower_file_mutex at depth 2");
    // Two objects of one mount are of one class, whatever the depth.
    EXPECT_REPORT(
        [] {
          mutex_lock(&upper_inode->i_mutex);
          mutex_lock(&upper_sb->s_root->d_inode->i_mutex);
        },
        "second lock of one class taken without a subclass of its own");
  }
  EXPECT_EQ(uk_fs_umount("/top", 0), 0);
}

#endif
