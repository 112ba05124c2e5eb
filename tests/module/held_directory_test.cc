// SPDX-License-Identifier: GPL-2.0
// Directories that a node holds, as FUSE holds what it has looked up, while the host replaces,
// moves or removes them: by name the mount shows what the host has, by the node what was held.
#include "tests/module/kit/mount.h"
#include "tests/ukern/host_dir.h"
#include "tests/ukern/threads.h"

namespace {

// /mnt over a directory of the host.
class over_host {
 public:
  over_host() : host("/lower") {
    error_ = host.error();
    if (!error_) error_ = test_mkdir("/mnt");
    if (!error_) error_ = uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr);
    EXPECT_EQ(error_, 0);
  }
  ~over_host() {
    if (!error_) EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  }
  over_host(const over_host &) = delete;
  over_host &operator=(const over_host &) = delete;
  int error() const { return error_; }

  host_dir host;

 private:
  int error_;
};

// What a file below a held directory holds.
bool node_holds(struct uk_node *dir, const char *name, const char *text) {
  struct uk_node *node;
  struct uk_stat stat;
  if (uk_lookup(dir, name, &node, &stat)) return false;
  struct uk_file *file;
  char held[64] = {};
  const bool same = !uk_open(node, O_RDONLY, &file) &&
                    uk_read(file, held, sizeof(held) - 1, 0) >= 0 && !strcmp(held, text);
  uk_release(file);
  uk_node_put(node, 1);
  return same;
}

}  // namespace

MODULE_CASE(held_directory, replaced_by_another_is_the_other_by_name) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  REQUIRE_EQ(mount.host.put("d", "f", "first"), 0);
  const test_node held("/mnt/d");
  REQUIRE_EQ(held.error(), 0);
  EXPECT_TRUE(node_holds(held.get(), "f", "first"));

  REQUIRE_EQ(mount.host.rename("d", "old"), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  REQUIRE_EQ(mount.host.put("d", "f", "second"), 0);
  {
    const test_name fresh("/mnt/d");
    REQUIRE_EQ(fresh.error(), 0);
    EXPECT_NE(fresh.get(), held.get());
    EXPECT_NE(fresh.stat().ino, uk_node_ino(held.get()));
    EXPECT_TRUE(node_holds(fresh.get(), "f", "second"));
    EXPECT_TRUE(node_holds(held.get(), "f", "first"));
  }
  const test_name moved("/mnt/old");
  REQUIRE_EQ(moved.error(), 0);
  EXPECT_EQ(moved.get(), held.get());
  EXPECT_TRUE(node_holds(moved.get(), "f", "first"));
}

MODULE_CASE(held_directory, removed_one_has_no_name) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  const test_node held("/mnt/d");
  REQUIRE_EQ(held.error(), 0);
  REQUIRE_EQ(mount.host.rmdir("d"), 0);
  EXPECT_EQ(test_name("/mnt/d").error(), -ENOENT);
  struct uk_stat stat = {};
  EXPECT_EQ(uk_getattr(held.get(), nullptr, &stat), 0);
  EXPECT_TRUE(S_ISDIR(stat.mode));
  EXPECT_EQ(test_mkdir("/mnt/d"), 0);
  struct uk_stat host;
  EXPECT_EQ(mount.host.stat("d", &host), 0);
  const test_name fresh("/mnt/d");
  EXPECT_EQ(fresh.stat().ino, host.ino);
}

// What is held below the directory does not keep its name either.
MODULE_CASE(held_directory, held_file_below_does_not_keep_the_name) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  REQUIRE_EQ(mount.host.put("d", "f", "text"), 0);
  test_file file("/mnt/d/f", O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  REQUIRE_EQ(mount.host.rename("d", "old"), 0);
  REQUIRE_EQ(mount.host.put("d", "now a file"), 0);
  {
    const test_name fresh("/mnt/d");
    EXPECT_TRUE(S_ISREG(fresh.stat().mode));
  }
  EXPECT_TRUE(test_holds("/mnt/d", "now a file"));
  EXPECT_EQ(file.write("T", 1, 0), 1);
  EXPECT_TRUE(test_holds("/mnt/old/f", "Text"));
}

// A directory with a mount below stays what it is: the mount would be lost.
MODULE_CASE(held_directory, one_with_a_mount_below_stays) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/d/m"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower/d/m", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(test_put("/lower/d/m/f", "inside"), 6);
  REQUIRE_EQ(mount.host.rename("d", "old"), 0);
  EXPECT_TRUE(test_holds("/lower/d/m/f", "inside"));
  EXPECT_EQ(uk_fs_umount("/lower/d/m", 0), 0);
  EXPECT_EQ(test_name("/lower/d").error(), -ENOENT);
}

// The same where something is mounted on what the mount shows.
MODULE_CASE(held_directory, one_with_a_mount_on_it_stays) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("d"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/d/m"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/mnt/d/m", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(test_put("/mnt/d/m/f", "inside"), 6);
  REQUIRE_EQ(mount.host.rename("d", "old"), 0);
  EXPECT_EQ(test_name("/mnt/d").error(), 0);
  EXPECT_TRUE(test_holds("/mnt/d/m/f", "inside"));
  EXPECT_EQ(uk_fs_umount("/mnt/d/m", 0), 0);
  EXPECT_EQ(test_name("/mnt/d").error(), -ENOENT);
}

// Through two mounts of one host directory: a name that one of them knows not to exist is found
// once the other has moved something to it.
MODULE_CASE(held_directory, name_taken_through_another_mount_is_found) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.put("y", "moved"), 0);
  EXPECT_FALSE(test_exists("/mnt/x"));
  REQUIRE_EQ(test_rename("/lower/y", "/lower/x"), 0);
  EXPECT_TRUE(test_holds("/mnt/x", "moved"));
}

// The same of names that the other has moved away or made.
MODULE_CASE(held_directory, name_moved_through_another_mount_is_gone) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.put("y", "moved"), 0);
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  EXPECT_TRUE(test_holds("/mnt/y", "moved"));
  EXPECT_FALSE(test_exists("/mnt/new"));
  REQUIRE_EQ(test_rename("/lower/y", "/lower/x"), 0);
  EXPECT_FALSE(test_exists("/mnt/y"));
  EXPECT_TRUE(test_holds("/mnt/x", "moved"));
  REQUIRE_EQ(test_rename("/lower/x", "/lower/d/x"), 0);
  EXPECT_FALSE(test_exists("/mnt/x"));
  EXPECT_TRUE(test_holds("/mnt/d/x", "moved"));
  REQUIRE_EQ(test_rename("/lower/d", "/lower/e"), 0);
  EXPECT_FALSE(test_exists("/mnt/d"));
  EXPECT_TRUE(test_holds("/mnt/e/x", "moved"));
  EXPECT_GT(test_put("/lower/new", "made"), 0);
  EXPECT_TRUE(test_holds("/mnt/new", "made"));
}

namespace {

constexpr int storm_rounds = 200;
constexpr const char *storm_names[] = {"a", "b", "c"};

struct storm {
  host_dir *host;
  struct uk_node *top;
  int unexpected;
};

// What may be said of a name that comes and goes.
void expect_one_of(struct storm *storm, int error) {
  if (error && error != -ENOENT && error != -ESTALE && error != -EEXIST && error != -ENOTEMPTY)
    __atomic_store_n(&storm->unexpected, error, __ATOMIC_RELAXED);
}

void visit(void *arg) {
  auto *storm = static_cast<struct storm *>(arg);
  for (int i = 0; i < storm_rounds; i++) {
    struct uk_node *dir, *inner;
    struct uk_stat stat;
    const int error = uk_lookup(storm->top, i % 2 ? "a" : "b", &dir, &stat);
    expect_one_of(storm, error);
    if (error) continue;
    if (!uk_lookup(dir, "f", &inner, &stat)) uk_node_put(inner, 1);
    expect_one_of(storm, uk_getattr(dir, nullptr, &stat));
    if (!uk_mkdir(dir, "sub", 0755, &inner, &stat)) {
      expect_one_of(storm, uk_rmdir(dir, "sub"));
      uk_node_put(inner, 1);
    }
    uk_node_put(dir, 1);
  }
}

void shuffle(void *arg) {
  auto *storm = static_cast<struct storm *>(arg);
  for (int i = 0; i < storm_rounds; i++) {
    storm->host->rename("a", "c");
    storm->host->rename("b", "a");
    storm->host->rename("c", "b");
    storm->host->mkdir("a");
    storm->host->rmdir("b");
    storm->host->mkdir("b");
  }
}

}  // namespace

// Visitors of directories that the host moves about, removes and makes again.
MODULE_CASE(held_directory, storm) {
  over_host mount;
  REQUIRE_EQ(mount.error(), 0);
  REQUIRE_EQ(mount.host.mkdir("a"), 0);
  REQUIRE_EQ(mount.host.mkdir("b"), 0);
  REQUIRE_EQ(mount.host.put("a", "f", "text"), 0);
  const test_node top("/mnt");
  struct storm storm = {&mount.host, top.get(), 0};
  struct ThreadTeam visitors, shuffler;
  REQUIRE_TRUE(thread_team_start(&visitors, 3, visit, &storm));
  REQUIRE_TRUE(thread_team_start(&shuffler, 1, shuffle, &storm));
  thread_team_wait(&visitors, 3);
  thread_team_wait(&shuffler, 1);
  EXPECT_EQ(storm.unexpected, 0);
  // In the end by name what the host has.
  for (const char *name : storm_names) {
    char path[16];
    struct uk_stat host;
    snprintf(path, sizeof(path), "/mnt/%s", name);
    const int there = mount.host.stat(name, &host);
    const test_name at(path);
    EXPECT_EQ(at.error(), there);
    if (!there && !at.error()) EXPECT_EQ(at.stat().ino, host.ino);
  }
}
