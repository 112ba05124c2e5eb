// SPDX-License-Identifier: GPL-2.0
// hostfs with no room for a directory or a file that nobody uses: each is closed after each use,
// and is still the same one at the next.
#include "tests/harness/case.h"
#include "tests/ukern/host_dir.h"
#include "tests/ukern/open_file.h"
#include "ukern/fs/hostfs.h"
#include "ukern/fs/hostfs_internal.h"

namespace {

// No idle directory or file is left open as long as this stands.
class no_idle_inodes {
 public:
  no_idle_inodes() { hostfs_set_idle_inodes(0, 0); }
  ~no_idle_inodes() { hostfs_set_idle_inodes(1000, 1000); }
  no_idle_inodes(const no_idle_inodes &) = delete;
  no_idle_inodes &operator=(const no_idle_inodes &) = delete;
};

// A directory that somebody is in.
class inside {
 public:
  explicit inside(const char *path) : error_(uk_node_at(path, &node_)) {}
  ~inside() {
    if (!error_) uk_node_put(node_, 1);
  }
  inside(const inside &) = delete;
  inside &operator=(const inside &) = delete;
  int error() const { return error_; }
  int mkdir(const char *name) {
    struct uk_node *made = NULL;
    const int error = uk_mkdir(node_, name, 0755, &made, NULL);
    if (!error) uk_node_put(made, 1);
    return error;
  }
  int look_up(const char *name) {
    struct uk_node *found = NULL;
    const int error = uk_lookup(node_, name, &found, NULL);
    if (!error) uk_node_put(found, 1);
    return error;
  }
  int stat(struct uk_stat *to) { return uk_getattr(node_, NULL, to); }

 private:
  struct uk_node *node_ = NULL;
  int error_;
};

// Only root opens by handle.
bool can_be_closed() {
  const struct host_identity other = {54321, 54321, 0, nullptr, 0};
  return host_fs_can_be(&other);
}

bool is_closed(const char *path) {
  struct nameidata nd;
  if (path_lookup(path, 0, &nd)) return false;
  const bool closed = hostfs_i(nd.dentry->d_inode)->fd < 0;
  path_release(&nd);
  return closed;
}

}  // namespace

CASE(hostfs_held, an_idle_directory_is_closed_and_opened_again) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  EXPECT_EQ(name_mkdir("/h/a", 0755), 0);
  EXPECT_EQ(name_mkdir("/h/a/b", 0755), 0);
  inside a("/h/a"), b("/h/a/b");
  REQUIRE_EQ(a.error() | b.error(), 0);
  EXPECT_EQ(is_closed("/h/a"), can_be_closed());
  EXPECT_EQ(b.mkdir("c"), 0);
  EXPECT_EQ(b.look_up("c"), 0);
  EXPECT_EQ(name_rename("/h/a/b/c", "/h/a/d"), 0);
  EXPECT_EQ(a.look_up("d"), 0);
  EXPECT_EQ(b.look_up("c"), -ENOENT);
  EXPECT_EQ(name_rmdir("/h/a/d"), 0);
  struct uk_stat st;
  EXPECT_EQ(host.stat("a/b", &st), 0);
  EXPECT_EQ(st.nlink, 2u);
}

CASE(hostfs_held, who_is_in_a_directory_stays_in_it_wherever_it_moves) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  EXPECT_EQ(name_mkdir("/h/a", 0755), 0);
  EXPECT_EQ(name_mkdir("/h/a/b", 0755), 0);
  inside b("/h/a/b");
  REQUIRE_EQ(b.error(), 0);
  // Its parent through here, then it itself behind our back, then something else in its place.
  EXPECT_EQ(name_rename("/h/a", "/h/moved"), 0);
  EXPECT_EQ(b.mkdir("1"), 0);
  EXPECT_EQ(host.rename("moved/b", "away"), 0);
  EXPECT_EQ(b.mkdir("2"), 0);
  EXPECT_EQ(host.mkdir("moved/b"), 0);
  EXPECT_EQ(b.mkdir("3"), 0);
  EXPECT_EQ(host.rmdir("moved/b"), 0);
  EXPECT_EQ(host_fs_symlink(NULL, host.fd(), "link", "moved"), 0);
  EXPECT_EQ(host.rename("link", "moved/b"), 0);
  EXPECT_EQ(b.mkdir("4"), 0);
  struct uk_stat st;
  static const char *const made[] = {"away/1", "away/2", "away/3", "away/4"};
  for (const char *name : made) EXPECT_EQ(host.stat(name, &st), 0);
  EXPECT_EQ(host.stat("moved/4", &st), -ENOENT);
}

CASE(hostfs_held, another_directory_with_the_number_is_another) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  for (int i = 0; i < 50; i++) {
    EXPECT_EQ(name_mkdir("/h/old", 0755), 0);
    inside old("/h/old");
    REQUIRE_EQ(old.error(), 0);
    struct uk_stat first, second;
    EXPECT_EQ(host.stat("old", &first), 0);
    const bool closed = is_closed("/h/old");
    EXPECT_EQ(host.rmdir("old"), 0);
    EXPECT_EQ(host.mkdir("old"), 0);
    EXPECT_EQ(host.stat("old", &second), 0);
    // Who comes by the name gets the new one; who is in the old one makes nothing there.
    if (i % 2) EXPECT_EQ(name_mkdir("/h/old/by-name", 0755), 0);
    const int error = old.mkdir("by-node");
    EXPECT_EQ(error, closed ? -ESTALE : -ENOENT);
    if (!(i % 2)) EXPECT_EQ(name_mkdir("/h/old/by-name", 0755), 0);
    EXPECT_EQ(host.stat("old/by-name", &second), 0);
    EXPECT_EQ(host.stat("old/by-node", &second), -ENOENT);
    EXPECT_EQ(name_rmdir("/h/old/by-name"), 0);
    EXPECT_EQ(name_rmdir("/h/old"), 0);
  }
}

CASE(hostfs_held, a_removed_directory_says_so) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  EXPECT_EQ(name_mkdir("/h/a", 0755), 0);
  inside a("/h/a");
  REQUIRE_EQ(a.error(), 0);
  EXPECT_EQ(name_rmdir("/h/a"), 0);
  struct uk_stat stat;
  EXPECT_EQ(a.stat(&stat), 0);
  EXPECT_EQ(stat.nlink, 0u);
  EXPECT_EQ(a.mkdir("b"), -ENOENT);
}

CASE(hostfs_held, an_idle_file_is_closed_and_opened_again) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  struct kstat stat;
  {
    open_file file("/h/a");
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write("abc", 3, 0), 3);
    EXPECT_FALSE(is_closed("/h/a"));
  }
  EXPECT_EQ(is_closed("/h/a"), can_be_closed());
  EXPECT_EQ(name_stat("/h/a", &stat), 0);
  EXPECT_EQ(stat.size, 3);
  EXPECT_EQ(name_chmod("/h/a", 0600), 0);
  EXPECT_EQ(name_link("/h/a", "/h/b"), 0);
  EXPECT_EQ(name_rename("/h/a", "/h/c"), 0);
  EXPECT_EQ(name_stat("/h/c", &stat), 0);
  EXPECT_EQ(stat.nlink, 2u);
  EXPECT_EQ(stat.mode & 0777, 0600u);
  open_file again("/h/c", O_RDWR);
  REQUIRE_EQ(again.error(), 0);
  char text[4] = {};
  EXPECT_EQ(again.read(text, 3, 0), 3);
  EXPECT_STREQ(text, "abc");
}

CASE(hostfs_held, the_last_name_of_an_open_file_is_removed) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  { open_file make("/h/a"), other("/h/b"); }
  open_file removed("/h/a", O_RDWR), replaced("/h/b", O_RDWR);
  REQUIRE_EQ(removed.error() | replaced.error(), 0);
  { open_file third("/h/c"); }
  EXPECT_EQ(name_unlink("/h/a"), 0);
  EXPECT_EQ(name_rename("/h/c", "/h/b"), 0);
  open_file *const nameless[] = {&removed, &replaced};
  for (open_file *file : nameless) {
    struct kstat stat;
    EXPECT_EQ(file->write("abcd", 4, 0), 4);
    EXPECT_EQ(vfs_getattr((*file)->f_vfsmnt, (*file)->f_dentry, &stat), 0);
    EXPECT_EQ(stat.nlink, 0u);
    EXPECT_EQ(stat.size, 4);
    EXPECT_EQ(file->truncate(1), 0);
  }
}

CASE(hostfs_held, another_file_with_the_name_is_another) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  EXPECT_EQ(host.put("a", "first"), 0);
  struct kstat first, second;
  EXPECT_EQ(name_stat("/h/a", &first), 0);
  EXPECT_EQ(host.put("b", "the second"), 0);
  EXPECT_EQ(host.rename("b", "a"), 0);
  EXPECT_EQ(name_stat("/h/a", &second), 0);
  EXPECT_EQ(second.size, 10);
  EXPECT_NE(first.ino, second.ino);
}

namespace {

struct walkers {
  int errors;
  atomic_t next;
  struct completion done;
};

int walk_and_make(void *data) {
  walkers *w = (walkers *)data;
  const int me = atomic_inc_return(&w->next);
  char path[64];
  for (int i = 0; i < 50; i++) {
    struct kstat stat;
    snprintf(path, sizeof(path), "/h/%d/%d-%d", i % 5, me, i);
    const int failed = name_mkdir(path, 0755) || name_stat(path, &stat) || name_rmdir(path);
    if (failed) __atomic_add_fetch(&w->errors, 1, __ATOMIC_RELAXED);
  }
  complete(&w->done);
  return 0;
}

}  // namespace

CASE(hostfs_held, many_threads_in_closed_directories) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  const no_idle_inodes none;
  static const char *const names[] = {"0", "1", "2", "3", "4"};
  for (const char *name : names) EXPECT_EQ(host.mkdir(name), 0);
  walkers w = {};
  init_completion(&w.done);
  for (int i = 0; i < 4; i++) EXPECT_FALSE(IS_ERR(kthread_run(walk_and_make, &w, "walker%d", i)));
  for (int i = 0; i < 4; i++) wait_for_completion(&w.done);
  EXPECT_EQ(w.errors, 0);
}
