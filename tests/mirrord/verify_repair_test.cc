// SPDX-License-Identifier: GPL-2.0
// Repair: each kind of difference is mended, and nothing else is touched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "base/unique_fd.h"
#include "mirrord/verify/tree.h"
#include "tests/mirrord/verify_trees.h"

namespace tarn {
namespace {

using namespace test;
using namespace std::string_view_literals;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr auto kCapability = "\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv;

/* What this process has written to files. */
std::uint64_t bytes_written() {
  std::ifstream io("/proc/self/io");
  std::string name;
  std::uint64_t value = 0;
  while (io >> name >> value && name != "wchar:") continue;
  return value;
}

char byte_at(const std::string &path, std::uint64_t offset) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char byte = 0;
  EXPECT_EQ(pread(file.get(), &byte, 1, static_cast<off_t>(offset)), 1) << path;
  return byte;
}

class RepairTest : public testing::Test {
 protected:
  std::vector<Difference> verify(const VerifyOptions &options = {}) {
    auto found = verify_trees(trees_.source(), trees_.target(), options);
    EXPECT_TRUE(found.ok()) << found.error().text;
    return found ? *found : std::vector<Difference>();
  }
  std::vector<Difference> repair(const std::vector<Difference> &found,
                                 const VerifyOptions &options = {}) {
    auto left = repair_trees(trees_.source(), trees_.target(), found, options);
    EXPECT_TRUE(left.ok()) << left.error().text;
    return left ? *left : std::vector<Difference>();
  }
  /* There is something to mend, and then nothing. */
  void expect_mended() {
    const auto found = verify();
    EXPECT_FALSE(found.empty());
    EXPECT_EQ(kinds(repair(found)), Texts());
    EXPECT_EQ(kinds(verify()), Texts());
  }
  std::string source(const std::string &path = "") { return trees_.source(path); }
  std::string target(const std::string &path = "") { return trees_.target(path); }

  TwoTrees trees_;
};

TEST_F(RepairTest, names_and_types) {
  fs::create_directories(source("d/below"));
  write_file(source("d/below/f"), std::string(2 * kBlockSize + 5, 'x'));
  set_attribute(source("d/below"), "user.a", "1");
  chown(source("d/below/f").c_str(), 12, 13);
  chmod(source("d/below").c_str(), 02711);
  fs::create_symlink("x", source("d/link"));
  lchown(source("d/link").c_str(), 14, 15);
  set_time(source("d/link"), 77, 78);
  mkfifo(source("d/fifo").c_str(), 0601);
  mknod(source("d/device").c_str(), S_IFCHR | 0612, makedev(1, 3));
  mknod(source("d/socket").c_str(), S_IFSOCK | 0612, 0);
  fs::create_directory(source("was_file"));
  write_file(source("was_directory"), "1");
  write_file(source("was_link"), "1");
  fs::create_symlink("one", source("link"));
  mknod(source("node").c_str(), S_IFCHR | 0600, makedev(1, 3));
  set_time(source("d"), 5, 6);
  trees_.copy();
  fs::remove_all(target("d"));
  fs::create_directories(target("extra/below"));
  write_file(target("extra/below/f"), "1");
  fs::remove(target("was_file"));
  write_file(target("was_file"), "1");
  fs::remove(target("was_directory"));
  fs::create_directories(target("was_directory/below"));
  fs::remove(target("was_link"));
  fs::create_symlink(source("link"), target("was_link"));
  fs::remove(target("link"));
  fs::create_symlink("two", target("link"));
  fs::remove(target("node"));
  mknod(target("node").c_str(), S_IFCHR | 0600, makedev(1, 5));
  expect_mended();
  EXPECT_EQ(status_of(target("d/device")).st_rdev, makedev(1, 3));
  EXPECT_EQ(status_of(target("d/link")).st_uid, 14u);
  EXPECT_EQ(status_of(target("d")).st_mtim.tv_nsec, 6);
}

TEST_F(RepairTest, attributes_and_nothing_else) {
  for (const char *name : {"mode", "owner", "time", "xattr", "capability", "same"})
    write_file(source(name), "1");
  set_attribute(source("xattr"), "user.a", "1");
  set_attribute(source("xattr"), "trusted.c", "");
  set_attribute(source("capability"), "security.capability", kCapability);
  chmod(source("mode").c_str(), 06755);
  chmod(source("owner").c_str(), 04711);
  trees_.copy();
  chmod(target("mode").c_str(), 0);
  chown(target("owner").c_str(), 12, 12);
  set_time(target("time"), 5, 0);
  set_attribute(target("xattr"), "user.a", "2");
  set_attribute(target("xattr"), "user.b", "2");
  chown(target("capability").c_str(), 12, 12);
  std::vector<struct stat> before;
  const Texts names = {"mode", "owner", "time", "xattr", "capability", "same"};
  for (const std::string &name : names) before.push_back(status_of(target(name)));
  expect_mended();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const struct stat after = status_of(target(names[i]));
    EXPECT_EQ(after.st_ino, before[i].st_ino) << names[i];
    EXPECT_EQ(after.st_ctim.tv_nsec == before[i].st_ctim.tv_nsec, names[i] == "same") << names[i];
  }
  EXPECT_EQ(status_of(target("owner")).st_mode & 07777, 04711u);
  EXPECT_EQ(attribute(target("capability"), "security.capability"), kCapability);
}

TEST_F(RepairTest, only_differing_ranges_are_written_and_in_place) {
  const std::string blocks(8 * kBlockSize, 'x');
  for (const char *name : {"bytes", "longer", "shorter"}) write_file(source(name), blocks);
  trees_.copy();
  write_at(target("bytes"), 3 * kBlockSize + 10000, "y");
  write_at(target("bytes"), 8 * kBlockSize - 1, "y");
  write_at(target("longer"), blocks.size(), "y");
  fs::resize_file(target("shorter"), blocks.size() - 10);
  const ino_t inode = status_of(target("bytes")).st_ino;
  const auto found = verify();
  const std::uint64_t before = bytes_written();
  EXPECT_EQ(kinds(repair(found)), Texts());
  // A sanitizer writes a few bytes to pipes.
  EXPECT_LT(bytes_written() - before, 3 * 4096u + 1024);
  EXPECT_EQ(kinds(verify()), Texts());
  EXPECT_EQ(status_of(target("bytes")).st_ino, inode);
}

TEST_F(RepairTest, holes_are_kept_made_and_filled) {
  write_at(source("sparse"), 64 << 20, "end");
  write_at(source("new"), 64 << 20, "end");
  write_file(source("stored"), std::string(1 << 20, 'x'));
  trees_.copy();
  fs::remove(target("new"));
  write_at(target("sparse"), 1 << 20, std::string(1 << 20, '\0'));
  write_at(target("sparse"), 5 << 20, "y");
  fs::remove(target("stored"));
  fs::resize_file((write_file(target("stored"), ""), target("stored")), 1 << 20);
  expect_mended();
  EXPECT_LT(status_of(target("sparse")).st_blocks, 256);
  EXPECT_LT(status_of(target("new")).st_blocks, 256);
  EXPECT_EQ(byte_at(target("new"), (64 << 20) + 2), 'd');
}

TEST_F(RepairTest, names_are_joined_and_parted) {
  write_file(source("a"), "1");
  fs::create_hard_link(source("a"), source("b"));
  write_file(source("c"), "2");
  write_file(source("d"), "3");
  fs::create_symlink("x", source("l"));
  linkat(AT_FDCWD, source("l").c_str(), AT_FDCWD, source("m").c_str(), 0);
  fs::create_directories(source("new/below"));
  write_file(source("new/f"), "4");
  fs::create_hard_link(source("new/f"), source("new/below/g"));
  fs::create_hard_link(source("new/f"), source("z"));
  trees_.copy();
  const ino_t kept = status_of(target("z")).st_ino;
  fs::remove(target("b"));
  write_file(target("b"), "1");
  fs::remove(target("d"));
  fs::create_hard_link(target("c"), target("d"));
  fs::remove(target("m"));
  fs::create_symlink("x", target("m"));
  fs::remove_all(target("new"));
  fs::create_hard_link(target("z"), trees_.beside("outside"));
  expect_mended();
  EXPECT_EQ(status_of(target("a")).st_ino, status_of(target("b")).st_ino);
  EXPECT_NE(status_of(target("c")).st_ino, status_of(target("d")).st_ino);
  EXPECT_EQ(read_file(target("d")), "3");
  EXPECT_EQ(status_of(target("l")).st_ino, status_of(target("m")).st_ino);
  EXPECT_EQ(status_of(target("new/f")).st_ino, status_of(target("new/below/g")).st_ino);
  EXPECT_EQ(status_of(target("new/f")).st_ino, status_of(target("z")).st_ino);
  EXPECT_TRUE(kept == status_of(target("z")).st_ino || read_file(trees_.beside("outside")) == "4");
}

/* A file that the target shares with another name is not written through that name. */
TEST_F(RepairTest, another_name_of_the_targets_file_keeps_its_bytes) {
  write_file(source("f"), "right");
  trees_.copy();
  write_file(target("f"), "wrong");
  fs::create_hard_link(target("f"), trees_.beside("outside"));
  expect_mended();
  EXPECT_EQ(read_file(target("f")), "right");
  EXPECT_EQ(read_file(trees_.beside("outside")), "wrong");
}

TEST_F(RepairTest, excluded_names_stay) {
  fs::create_directories(source("d/out"));
  write_file(source("d/out/f"), "1");
  write_file(source("d/in"), "1");
  fs::create_directories(target("e/out"));
  write_file(target("e/in"), "1");
  VerifyOptions options;
  options.included = [](const std::string &path) {
    return !path.ends_with("out") && path.find("out/") == path.npos;
  };
  const auto left = repair(verify(options), options);
  EXPECT_EQ(kinds(left), Texts({"e extra"}));
  EXPECT_NE(left.at(0).detail.find("excluded"), std::string::npos) << left.at(0).detail;
  EXPECT_TRUE(exists(target("d/in")));
  EXPECT_FALSE(exists(target("d/out")));
  EXPECT_TRUE(exists(target("e/out")));
  EXPECT_FALSE(exists(target("e/in")));
}

TEST_F(RepairTest, a_root_closed_to_others_stays_closed) {
  chmod(source().c_str(), 0755);
  chmod(target().c_str(), 0700);
  set_attribute(source(), "user.a", "1");
  write_file(source("f"), "1");
  expect_mended();
  EXPECT_EQ(status_of(trees_.target()).st_mode & 07777, 0700u);
  EXPECT_EQ(attribute(target(), "user.a"), "1");
}

TEST_F(RepairTest, hostile_names_and_paths_that_are_too_long) {
  for (const std::string &name :
       Texts{"\n", " ", "-rf", "\xff\xfe", std::string(255, '\xc3'), "...", "\\"}) {
    fs::create_directory(source(name));
    write_file(source(name + "/" + name), name);
    write_file(target(name), "");
  }
  const std::string name(200, 'n');
  for (const char *root : {"source", "target"}) {
    UniqueFd here(open(trees_.beside(root).c_str(), O_PATH | O_CLOEXEC));
    for (int depth = 0; depth < 50; ++depth) {
      const std::string mine = depth == 0 ? root : name;
      ASSERT_EQ(mkdirat(here.get(), mine.c_str(), 0755), 0);
      here = UniqueFd(openat(here.get(), mine.c_str(), O_PATH | O_CLOEXEC));
    }
    ASSERT_EQ(mkdirat(here.get(), "x", 0755), 0);
    const UniqueFd file(openat(here.get(), "y", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(write(file.get(), root, 3), 3);
  }
  expect_mended();
}

/* The set-user-id bit and the capability are not on bytes that are not the source's. */
TEST_F(RepairTest, privileges_come_last) {
  for (const char *name : {"f", "g"}) write_file(source(name), std::string(70 * kBlockSize, 'x'));
  chmod(source("f").c_str(), 04755);
  set_attribute(source("f"), "security.capability", kCapability);
  chmod(source("g").c_str(), 0700);
  trees_.copy();
  for (const char *name : {"f", "g"}) {
    write_at(target(name), 0, "y");
    write_at(target(name), 69 * kBlockSize, "y");
    chmod(target(name).c_str(), 04755);
    set_attribute(target(name), "security.capability", kCapability);
  }
  int looks = 0;
  VerifyOptions options;
  const auto found = verify();
  options.progress = [&](double, const std::string &what) {
    // Between two ranges that are copied: the first has been written, the second has not.
    for (const char *name : {"f", "g"}) {
      const bool half =
          byte_at(target(name), 0) == 'x' && byte_at(target(name), 69 * kBlockSize) == 'y';
      if (!half) continue;
      ++looks;
      EXPECT_EQ(status_of(target(name)).st_mode & 07000, 0u) << what;
      EXPECT_EQ(attribute(target(name), "security.capability"), "") << what;
    }
    return true;
  };
  EXPECT_EQ(kinds(repair(found, options)), Texts());
  EXPECT_GE(looks, 2);
  EXPECT_EQ(status_of(target("f")).st_mode & 07777, 04755u);
  EXPECT_EQ(attribute(target("f"), "security.capability"), kCapability);
  EXPECT_EQ(status_of(target("g")).st_mode & 07777, 0700u);
  EXPECT_EQ(attribute(target("g"), "security.capability"), "");
}

/* A file that changes while it is mended is mended again, or left as changing. */
TEST_F(RepairTest, what_changes_meanwhile_is_not_left_old) {
  write_file(source("f"), std::string(66 * kBlockSize, 'x'));
  write_file(source("g"), "1");
  trees_.copy();
  write_at(target("f"), 0, "y");
  write_file(target("g"), "2");
  const auto found = verify();
  int changes = 0;
  VerifyOptions options;
  options.progress = [&](double, const std::string &what) {
    if (what.starts_with("copying") && ++changes == 2) write_at(source("f"), 5, "new");
    return true;
  };
  EXPECT_EQ(kinds(repair(found, options)), Texts());
  EXPECT_EQ(byte_at(target("f"), 5), 'n');
  EXPECT_EQ(kinds(verify()), Texts());
  write_at(target("f"), 0, "y");
  write_file(target("g"), "2");
  const auto again = verify();
  options.settle = [&]() -> Result<void> {
    write_at(source("f"), 7, std::to_string(++changes));
    return {};
  };
  const auto left = repair(again, options);
  EXPECT_EQ(kinds(left), Texts({"f changing"}));
}

TEST_F(RepairTest, a_swapped_link_is_not_followed) {
  fs::create_directories(trees_.beside("outside/e"));
  write_file(trees_.beside("outside/e/f"), "untouched");
  const struct stat before = status_of(trees_.beside("outside/e"));
  fs::create_directories(source("d/e/new"));
  write_file(source("d/e/f"), std::string(100, 'x'));
  write_file(source("d/e/new/g"), "1");
  fs::create_directories(target("d/e/old"));
  write_file(target("d/e/f"), std::string(100, 'y'));
  fs::create_directory_symlink(trees_.beside("outside"), target("link"));
  const auto found = verify();
  std::atomic<bool> end = false;
  std::thread swapper([&] {
    const std::string d = target("d"), link = target("link");
    while (!end) renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
  });
  std::vector<Difference> all = found;
  for (const char *path : {"d/e/f", "d/e/new", "d/e/new/g", "d/e/old", "d/e"})
    for (const char *kind : {"data", "missing", "extra", "type"}) all.push_back({path, kind, ""});
  for (int i = 0; i < 10; ++i) {
    write_file(source("d/e/f"), std::string(100, static_cast<char>('a' + i)));
    VerifyOptions options;
    // Ends before it looks whether something is left: that takes its time.
    options.progress = [](double, const std::string &what) { return !what.starts_with("waiting"); };
    EXPECT_FALSE(repair_trees(trees_.source(), trees_.target(), all, options).ok());
  }
  end = true;
  swapper.join();
  EXPECT_EQ(read_file(trees_.beside("outside/e/f")), "untouched");
  const struct stat after = status_of(trees_.beside("outside/e"));
  EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
  EXPECT_FALSE(exists(trees_.beside("outside/e/new")));
}

class SmallTarget : public RepairTest {
 protected:
  void SetUp() override {
    write_file(source("large"), std::string(3 * kBlockSize, 'x'));
    write_file(source("small"), "1");
    write_file(source("z"), "1");
    if (mount("tarn-test", target().c_str(), "tmpfs", 0, "size=1m,mode=0755") != 0)
      GTEST_SKIP() << "cannot mount a file system";
    mounted_ = true;
  }
  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(umount2(target().c_str(), MNT_DETACH), 0);
    }
  }
  bool mounted_ = false;
};

TEST_F(SmallTarget, a_full_target_keeps_nothing_else_from_being_mended) {
  const auto left = repair(verify());
  ASSERT_EQ(kinds(left), Texts({"large missing"}));
  EXPECT_NE(left[0].detail.find("No space left on device; free space"), std::string::npos)
      << left[0].detail;
  EXPECT_EQ(read_file(target("small")), "1");
  EXPECT_EQ(read_file(target("z")), "1");
  EXPECT_EQ(fs::file_size(source("large")), 3 * kBlockSize);
}

TEST_F(SmallTarget, a_target_that_is_read_only) {
  write_file(target("extra"), "1");
  ASSERT_EQ(mount(nullptr, target().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const auto found = verify();
  const auto left = repair(found);
  EXPECT_EQ(kinds(left), kinds(found));
  for (const Difference &difference : left)
    EXPECT_NE(difference.detail.find("Read-only file system; mount"), std::string::npos)
        << difference.path << " " << difference.detail;
}

TEST_F(RepairTest, the_caller_ends_it) {
  write_file(source("f"), "1");
  VerifyOptions options;
  options.progress = [](double, const std::string &) { return false; };
  const auto left = repair_trees(trees_.source(), trees_.target(), {{"f", "missing", ""}}, options);
  ASSERT_FALSE(left.ok());
  EXPECT_EQ(left.error().code, -ECANCELED);
}

}  // namespace
}  // namespace tarn
