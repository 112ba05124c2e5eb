// SPDX-License-Identifier: GPL-2.0
// Objects of a mount that lost their names while a node holds them: the lower object stays within
// reach.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"
#include "tests/ukern/node_storm.h"
#include "ukern/door/uk_core.h"
#include "ukern/door/uk_fs.h"

namespace {

// tarn on /mnt over /lower for a scope, and a node on its top.
class stacked {
 public:
  stacked() {
    error_ = name_mkdir("/lower", 0755);
    if (!error_) error_ = name_mkdir("/mnt", 0755);
    if (!error_) error_ = uk_fs_mount("/lower", "/mnt", "tarn", 0, NULL);
    if (!error_) error_ = uk_node_at("/mnt", &top_);
  }
  ~stacked() {
    if (error_) return;
    uk_node_put(top_, 1);
    EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  }
  stacked(const stacked &) = delete;
  stacked &operator=(const stacked &) = delete;
  int error() const { return error_; }
  struct uk_node *top() {
    return top_;
  }

 private:
  int error_;
  struct uk_node *top_ = NULL;
};

}  // namespace

MODULE_CASE(unlinked_node, file_that_was_never_opened_again) {
  stacked mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(name_write("/lower/f", 0644, "text"), 0);
  struct uk_node *f;
  struct uk_stat stat = {};
  REQUIRE_EQ(uk_lookup(mount.top(), "f", &f, &stat), 0);
  REQUIRE_EQ(uk_unlink(mount.top(), "f"), 0);
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.nlink, 0u);
  stat.mode = 0600;
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MODE, &stat, &stat), 0);
  struct uk_file *file;
  EXPECT_EQ(uk_open(f, O_RDONLY, &file), 0);
  char buf[8] = {};
  EXPECT_EQ(uk_read(file, buf, sizeof(buf), 0), 4);
  EXPECT_STREQ(buf, "text");
  uk_release(file);
  uk_node_put(f, 1);
}

// Linking drops the dentries of both names: what is open afterwards has another lower dentry than
// the names.
MODULE_CASE(unlinked_node, open_file_that_had_two_names) {
  stacked mount;
  REQUIRE_EQ(mount.error(), 0);
  struct uk_node *f, *g;
  struct uk_file *file;
  struct uk_stat stat;
  REQUIRE_EQ(uk_create(mount.top(), "f", O_RDWR, 0644, &f, &file, &stat), 0);
  REQUIRE_EQ(uk_link(f, mount.top(), "g", &g, &stat), 0);
  EXPECT_TRUE(f == g);
  EXPECT_EQ(uk_unlink(mount.top(), "f"), 0);
  EXPECT_EQ(uk_unlink(mount.top(), "g"), 0);
  EXPECT_EQ(uk_write(file, "abc", 3, 0, O_RDWR), 3);
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.size, 3ull);
  EXPECT_EQ(uk_getattr(f, file, &stat), 0);
  EXPECT_EQ(uk_fsync(file, 0), 0);
  uk_release(file);
  uk_node_put(f, 2);
}

MODULE_CASE(unlinked_node, removed_directory) {
  stacked mount;
  REQUIRE_EQ(mount.error(), 0);
  struct uk_node *d, *out;
  struct uk_stat stat = {};
  REQUIRE_EQ(uk_mkdir(mount.top(), "d", 0755, &d, &stat), 0);
  REQUIRE_EQ(uk_rmdir(mount.top(), "d"), 0);
  EXPECT_EQ(uk_lookup(d, "x", &out, &stat), -ENOENT);
  EXPECT_EQ(uk_mkdir(d, "x", 0755, &out, &stat), -ENOENT);
  EXPECT_EQ(uk_getattr(d, NULL, &stat), 0);
  stat.mode = 0700;
  EXPECT_EQ(uk_setattr(d, NULL, UK_SET_MODE, &stat, &stat), 0);
  uk_node_put(d, 1);
}

MODULE_CASE(unlinked_node, storm) {
  stacked mount;
  REQUIRE_EQ(mount.error(), 0);
  node_storm::in("/mnt", 500);
}
