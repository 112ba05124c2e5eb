// SPDX-License-Identifier: GPL-2.0
// Revalidation by the lower dentry, and the release of the lower path.
#include "tests/module/kit/mount.h"
#include "ukern/fs/memfs.h"

namespace {

int answer;
int asked;
struct dentry *asked_dentry;
struct vfsmount *asked_mnt;

int lower_revalidate(struct dentry *dentry, struct nameidata *nd) {
  asked++;
  asked_dentry = nd ? nd->dentry : dentry;
  asked_mnt = nd ? nd->mnt : nullptr;
  return answer;
}

// The lower dentry of a path has a d_revalidate of the case's until the end of the scope.
class revalidated {
 public:
  revalidated(struct dentry *lower, int result) : lower_(lower), own_(lower->d_op) {
    memset(&ops_, 0, sizeof(ops_));
    if (own_) ops_ = *own_;
    ops_.d_revalidate = lower_revalidate;
    lower_->d_op = &ops_;
    answer = result;
    asked = 0;
  }
  ~revalidated() { lower_->d_op = own_; }
  revalidated(const revalidated &) = delete;
  revalidated &operator=(const revalidated &) = delete;

 private:
  struct dentry *lower_;
  struct dentry_operations *own_;
  struct dentry_operations ops_;
};

struct nameidata at(const test_walk &walk) {
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  nd.dentry = walk.dentry();
  nd.mnt = walk.mnt();
  return nd;
}

}  // namespace

MODULE_CASE(dentry, table_has_exactly_its_slots) {
  EXPECT_NE(tarn_dops.d_revalidate, nullptr);
  EXPECT_NE(tarn_dops.d_release, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_dops), 2);
}

MODULE_CASE(dentry, without_a_lower_opinion_it_is_valid_and_nothing_is_refreshed) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  lower.inode()->i_uid = 99;
  struct nameidata nd = at(upper);
  EXPECT_EQ(tarn_dops.d_revalidate(upper.dentry(), &nd), 1);
  EXPECT_EQ(upper.inode()->i_uid, 0u);
}

MODULE_CASE(dentry, lower_no_is_passed_on_and_the_attributes_are_copied) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  lower.inode()->i_uid = 99;
  const loff_t size = i_size_read(upper.inode());
  i_size_write(lower.inode(), 1000);
  {
    revalidated below(lower.dentry(), 0);
    struct nameidata nd = at(upper);
    EXPECT_EQ(tarn_dops.d_revalidate(upper.dentry(), &nd), 0);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(asked_dentry, lower.dentry());
    EXPECT_EQ(asked_mnt, lower.mnt());
    EXPECT_EQ(nd.dentry, upper.dentry());
    EXPECT_EQ(nd.mnt, upper.mnt());
  }
  i_size_write(lower.inode(), 1);
  EXPECT_EQ(upper.inode()->i_uid, 99u);
  EXPECT_EQ(i_size_read(upper.inode()), size);
}

MODULE_CASE(dentry, lower_yes_is_passed_on) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  revalidated below(tarn_lower_dentry(upper.dentry()), 1);
  struct nameidata nd = at(upper);
  EXPECT_EQ(tarn_dops.d_revalidate(upper.dentry(), &nd), 1);
}

MODULE_CASE(dentry, lookup_without_a_record_still_asks_below) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  revalidated below(tarn_lower_dentry(upper.dentry()), 1);
  EXPECT_EQ(tarn_dops.d_revalidate(upper.dentry(), nullptr), 1);
  EXPECT_EQ(asked, 1);
}

MODULE_CASE(dentry, release_without_a_record_does_nothing) {
  test_mount mount;
  const test_walk upper("/mnt");
  struct qstr text = test_qstr("unbound");
  struct dentry *dentry = d_alloc(upper.dentry(), &text);
  REQUIRE_TRUE(dentry);
  dentry->d_op = &tarn_dops;
  EXPECT_EQ(dentry->d_fsdata, nullptr);
  dput(dentry);
}

MODULE_CASE(dentry, release_gives_the_lower_path_back) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower/f");
  const int alone = atomic_read(&lower.dentry()->d_count);
  { const test_walk upper("/mnt/f"); }
  EXPECT_EQ(atomic_read(&lower.dentry()->d_count), alone + 1);
  uk_drop_caches();
  EXPECT_EQ(atomic_read(&lower.dentry()->d_count), alone);
}

MODULE_CASE(dentry, release_of_a_hashed_dentry_is_a_bug) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  static struct dentry *hashed;
  const test_walk upper("/mnt/f");
  hashed = upper.dentry();
  EXPECT_REPORT([] { tarn_dops.d_release(hashed); }, "BUG");
}

// A lower file system with an opinion of its own: an answer of 0 makes the walk look the name up
// again.
MODULE_CASE(dentry, walk_over_a_revalidating_file_system_looks_up_again) {
  test_mount mount("revalidate");
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower");
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
  memfs_set_revalidate(lower.dentry()->d_sb, 0);
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
  memfs_set_revalidate(lower.dentry()->d_sb, 1);
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
}
