// SPDX-License-Identifier: GPL-2.0
// Verification: each kind of difference is found and named, and nothing else is.
#include "mirrord/verify/verify.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "mirrord/verify/comparison.h"
#include "mirrord/verify/local_tree.h"
#include "tests/mirrord/verify_trees.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

class VerifyTest : public testing::Test {
 protected:
  std::vector<Difference> verify(const VerifyOptions &options = {}) {
    auto found = verify_trees(trees_.source(), trees_.target(), options);
    EXPECT_TRUE(found.ok()) << found.error().text;
    return found ? *found : std::vector<Difference>();
  }
  /* A change in the target moves its directory's time, which is not what these cases are about. */
  void expect_only(const Texts &expected) {
    set_time(trees_.source(), 1000, 0);
    set_time(trees_.target(), 1000, 0);
    EXPECT_EQ(kinds(verify()), expected);
  }
  std::string source(const std::string &path = "") { return trees_.source(path); }
  std::string target(const std::string &path = "") { return trees_.target(path); }

  TwoTrees trees_;
};

TEST_F(VerifyTest, equal_trees_have_no_difference) {
  fs::create_directories(source("a/b/c"));
  write_file(source("a/file"), "text");
  write_file(source("a/empty"), "");
  write_file(source("a/b/large"), std::string(3 * kBlockSize + 17, 'x'));
  fs::create_symlink("nowhere", source("a/link"));
  fs::create_hard_link(source("a/file"), source("a/b/second"));
  mkfifo(source("fifo").c_str(), 0640);
  mknod(source("device").c_str(), S_IFCHR | 0600, makedev(1, 3));
  trees_.copy();
  EXPECT_EQ(kinds(verify()), Texts());
}

TEST_F(VerifyTest, missing_and_extra_names) {
  fs::create_directories(source("d/below"));
  write_file(source("f"), "1");
  trees_.copy();
  fs::remove_all(target("d"));
  fs::remove(target("f"));
  write_file(target("g"), "1");
  fs::create_directories(target("h/below"));
  expect_only({"d missing", "f missing", "g extra", "h extra"});
}

TEST_F(VerifyTest, another_type) {
  write_file(source("f"), "1");
  fs::create_directory(source("d"));
  trees_.copy();
  fs::remove(target("f"));
  fs::create_directory(target("f"));
  fs::remove(target("d"));
  fs::create_symlink("x", target("d"));
  expect_only({"d type", "f type"});
}

TEST_F(VerifyTest, size_and_data) {
  const std::string blocks(3 * kBlockSize, 'x');
  for (const char *name : {"longer", "shorter", "first", "last", "small"})
    write_file(source(name), name == std::string("small") ? "123" : blocks);
  trees_.copy();
  write_at(target("longer"), blocks.size(), "y");
  fs::resize_file(target("shorter"), blocks.size() - 1);
  write_at(target("first"), 0, "y");
  write_at(target("last"), blocks.size() - 1, "y");
  write_at(target("small"), 1, "y");
  for (const char *name : {"longer", "shorter", "first", "last", "small"}) {
    set_time(source(name), 5, 6);
    set_time(target(name), 5, 6);
  }
  expect_only({"first data", "last data", "longer size", "shorter size", "small data"});
  const auto found = verify();
  EXPECT_NE(found[0].detail.find("byte 0 "), std::string::npos) << found[0].detail;
  EXPECT_NE(found[1].detail.find("byte 2097152 "), std::string::npos) << found[1].detail;
}

TEST_F(VerifyTest, mode_owner_and_time) {
  for (const char *name : {"mode", "user", "group", "time"}) write_file(source(name), "1");
  fs::create_directory(source("directory"));
  fs::create_symlink("x", source("link"));
  trees_.copy();
  chmod(target("mode").c_str(), 04644);
  lchown(target("user").c_str(), 12, -1);
  lchown(target("group").c_str(), -1, 12);
  lchown(target("link").c_str(), 12, 12);
  struct stat status = status_of(source("time"));
  set_time(target("time"), status.st_mtim.tv_sec, (status.st_mtim.tv_nsec + 1) % 1000000000);
  set_time(target("link"), 5, 0);
  set_time(target("directory"), 5, 0);
  expect_only({"directory mtime", "group owner", "link mtime", "link owner", "mode mode",
               "time mtime", "user owner"});
}

TEST_F(VerifyTest, texts_of_links_and_numbers_of_devices) {
  fs::create_symlink("one", source("link"));
  mknod(source("device").c_str(), S_IFCHR | 0600, makedev(1, 3));
  trees_.copy();
  fs::remove(target("link"));
  fs::create_symlink("two", target("link"));
  fs::remove(target("device"));
  mknod(target("device").c_str(), S_IFCHR | 0600, makedev(1, 5));
  for (const char *name : {"link", "device"}) {
    set_time(source(name), 5, 0);
    set_time(target(name), 5, 0);
  }
  expect_only({"device device", "link symlink"});
}

TEST_F(VerifyTest, extended_attributes_and_access_lists) {
  // Version 2; user::rw-, user 12:r--, group::r--, mask::r--, other::---.
  using namespace std::string_view_literals;
  constexpr auto kList =
      "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\4\0\x0c\0\0\0\4\0\4\0\xff\xff\xff\xff"
      "\x10\0\4\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff"sv;
  for (const char *name : {"added", "removed", "changed", "empty", "same", "list", "capability"})
    write_file(source(name), "1");
  fs::create_directory(source("default"));
  chmod(source("list").c_str(), 0640);
  for (const char *name : {"removed", "changed", "same"})
    set_attribute(source(name), "user.a", "1");
  set_attribute(source("same"), "trusted.b", "2");
  set_attribute(source("empty"), "trusted.b", "");
  trees_.copy();
  set_attribute(target("added"), "trusted.a", "1");
  set_attribute(target("removed"), "user.a", "2");
  set_attribute(target("changed"), "user.b", "");
  set_attribute(target("empty"), "trusted.b", "1");
  set_attribute(target("list"), "system.posix_acl_access", kList);
  set_attribute(target("default"), "system.posix_acl_default", kList);
  set_attribute(target("capability"), "security.capability",
                "\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv);
  expect_only({"added xattr", "capability xattr", "changed xattr", "default xattr", "empty xattr",
               "list xattr", "removed xattr"});
}

TEST_F(VerifyTest, names_that_are_one_file_on_one_side_only) {
  write_file(source("a"), "1");
  fs::create_hard_link(source("a"), source("b"));
  write_file(source("c"), "1");
  write_file(source("d"), "1");
  fs::create_directory(source("z"));
  fs::create_hard_link(source("a"), source("z/e"));
  for (const char *name : {"a", "c", "d"}) set_time(source(name), 5, 0);
  trees_.copy();
  fs::remove(target("b"));
  write_file(target("b"), "1");
  fs::remove(target("d"));
  fs::create_hard_link(target("c"), target("d"));
  set_time(target("b"), 5, 0);
  expect_only({"b link", "d link"});
  const auto found = verify();
  EXPECT_EQ(found.at(0).other, "a");
  EXPECT_EQ(found.at(1).other, "c");
}

TEST_F(VerifyTest, stored_zeros_differ_from_a_hole_of_64_kib_only) {
  write_at(source("large"), 4 << 20, "end");
  write_at(source("small"), 32 << 10, "end");
  write_file(source("stored"), std::string(1 << 20, '\0'));
  trees_.copy();
  const std::string zeros(4 << 20, '\0');
  write_at(target("large"), 0, zeros);
  write_at(target("small"), 0, zeros.substr(0, 32 << 10));
  for (const char *name : {"large", "small", "stored"}) {
    set_time(source(name), 5, 0);
    set_time(target(name), 5, 0);
  }
  expect_only({"large holes"});
}

TEST_F(VerifyTest, a_root_closed_to_others_keeps_its_mode) {
  chmod(source().c_str(), 0755);
  chmod(target().c_str(), 0700);
  expect_only({});
  chmod(target().c_str(), 0750);
  expect_only({" mode"});
}

TEST_F(VerifyTest, excluded_names_are_neither_compared_nor_entered) {
  fs::create_directory(source("d"));
  trees_.copy();
  write_file(source("d/out"), "1");
  fs::create_directories(target("out/below"));
  write_file(target("d/in"), "1");
  set_time(source("d"), 5, 0);
  set_time(target("d"), 5, 0);
  set_time(source(), 5, 0);
  set_time(target(), 5, 0);
  VerifyOptions options;
  options.included = [](const std::string &path) {
    EXPECT_FALSE(path.starts_with("out/"));
    return !path.ends_with("out");
  };
  EXPECT_EQ(kinds(verify(options)), Texts({"d/in extra"}));
}

TEST_F(VerifyTest, hostile_names) {
  const Texts names = {"\n",   " ",   "-rf", "\xff\xfe", std::string(255, '\xc3'),
                       "a\tb", "...", "\\",  "\x1b[2J"};
  for (const std::string &name : names) {
    fs::create_directory(source(name));
    write_file(source(name + "/" + name), name);
  }
  trees_.copy();
  EXPECT_EQ(kinds(verify()), Texts());
  Texts expected;
  for (const std::string &name : names) {
    chmod(target(name + "/" + name).c_str(), 0600);
    expected.push_back(name + "/" + name + " mode");
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(kinds(verify()), expected);
}

TEST_F(VerifyTest, a_path_longer_than_a_path_may_be) {
  const std::string name(200, 'n');
  std::string path;
  for (const bool at_source : {true, false}) {
    UniqueFd here(open((at_source ? source() : target()).c_str(), O_PATH | O_CLOEXEC));
    path.clear();
    for (int depth = 0; depth < 50; ++depth) {
      ASSERT_EQ(mkdirat(here.get(), name.c_str(), 0755), 0);
      here = UniqueFd(openat(here.get(), name.c_str(), O_PATH | O_CLOEXEC));
      path = path.empty() ? name : path + "/" + name;
    }
    ASSERT_EQ(mkdirat(here.get(), at_source ? "x" : "y", 0755), 0);
  }
  Texts found;
  for (const std::string &text : kinds(verify())) {
    if (!text.ends_with(" mtime")) found.push_back(text);
  }
  EXPECT_EQ(found, Texts({path + "/x missing", path + "/y extra"}));
}

TEST_F(VerifyTest, what_settling_brings_is_no_difference) {
  fs::create_directories(source("d/e"));
  write_file(source("d/e/f"), "1");
  write_file(source("f"), "1");
  int settled = 0;
  VerifyOptions options;
  options.settle = [&]() -> Result<void> {
    if (++settled == 1) trees_.copy();
    return {};
  };
  EXPECT_EQ(kinds(verify(options)), Texts());
  EXPECT_EQ(settled, 1);
}

TEST_F(VerifyTest, a_directory_that_settling_brings_is_compared_too) {
  fs::create_directories(source("d/e"));
  write_file(source("d/e/f"), "1");
  bool settled = false;
  VerifyOptions options;
  options.settle = [&]() -> Result<void> {
    if (std::exchange(settled, true)) return {};
    trees_.copy();
    chmod(target("d/e/f").c_str(), 0600);
    return {};
  };
  EXPECT_EQ(kinds(verify(options)), Texts({"d/e/f mode"}));
}

TEST_F(VerifyTest, what_changes_each_time_is_called_changing) {
  write_file(source("f"), "1");
  write_file(source("g"), "1");
  trees_.copy();
  write_file(target("g"), "2");
  write_file(target("f"), "2");
  unsigned settled = 0;
  VerifyOptions options;
  options.settle = [&]() -> Result<void> {
    ++settled;
    chmod(source("f").c_str(), 0600 + settled % 2);
    return {};
  };
  const auto found = verify(options);
  EXPECT_EQ(kinds(found), Texts({"f changing", "g data", "g mtime"}));
  ASSERT_EQ(found.size(), 3u);
  EXPECT_FALSE(found[0].persists());
  EXPECT_TRUE(found[1].persists());
  EXPECT_EQ(settled, Comparison::kLooks + 1);
}

/* The source is changed all the time, and the target has each change when it is asked to. */
TEST_F(VerifyTest, changes_that_are_applied_late_are_no_differences) {
  for (int i = 0; i < 20; ++i) write_file(source("f" + std::to_string(i)), "0");
  trees_.copy();
  struct stat fixed = status_of(source("f19"));
  chmod(target("f19").c_str(), 0611);
  std::atomic<bool> end = false;
  std::atomic<int> wanted = 0, applied = 0;
  std::thread writer([&] {
    for (int n = 0; !end; ++n) {
      const int request = wanted;
      const std::string name = "f" + std::to_string(n % 19);
      for (const std::string &path : {source(name), target(name)}) {
        write_file(path, std::to_string(n));
        set_time(path, n, n);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      applied = request;
    }
  });
  VerifyOptions options;
  options.settle = [&]() -> Result<void> {
    const int request = ++wanted;
    while (applied < request) std::this_thread::yield();
    return {};
  };
  for (int i = 0; i < 5; ++i) {
    Texts found;
    for (const Difference &difference : verify(options))
      if (difference.persists()) found.push_back(difference.path + " " + difference.kind);
    EXPECT_EQ(found, Texts({"f19 mode"}));
  }
  end = true;
  writer.join();
  EXPECT_EQ(status_of(source("f19")).st_mode, fixed.st_mode);
}

TEST_F(VerifyTest, a_swapped_link_is_not_followed) {
  fs::create_directories(source("d/e"));
  write_file(source("d/e/f"), "1");
  trees_.copy();
  fs::create_directories(trees_.beside("outside/e"));
  write_file(trees_.beside("outside/e/secret"), "1");
  std::atomic<bool> end = false;
  std::thread swapper([&] {
    fs::create_directory_symlink(trees_.beside("outside"), target("link"));
    const std::string d = target("d"), link = target("link");
    while (!end) renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
  });
  for (int i = 0; i < 50; ++i) {
    auto local = LocalTree::open(target());
    ASSERT_TRUE(local.ok());
    for (int k = 0; k < 100; ++k) {
      const auto listing = local->list("d/e");
      if (listing) {
        EXPECT_EQ(listing->entries.at(0).name, "f");
      }
      const auto secret = local->find("d/e/secret");
      if (secret) {
        EXPECT_FALSE(secret->has_value());
      }
    }
  }
  end = true;
  swapper.join();
}

TEST_F(VerifyTest, the_caller_ends_it) {
  fs::create_directories(source("d/e"));
  trees_.copy();
  VerifyOptions options;
  double last = 0;
  options.progress = [&](double done, const std::string &what) {
    EXPECT_GE(done, last);
    last = done;
    return what.find("d/e") == std::string::npos;
  };
  const auto found = verify_trees(source(), target(), options);
  ASSERT_FALSE(found.ok());
  EXPECT_EQ(found.error().code, -ECANCELED);
}

TEST_F(VerifyTest, an_error_of_settling_ends_it) {
  write_file(source("f"), "1");
  VerifyOptions options;
  options.settle = []() -> Result<void> { return Error{-EIO, "no barrier"}; };
  const auto found = verify_trees(source(), target(), options);
  ASSERT_FALSE(found.ok());
  EXPECT_EQ(found.error().text, "no barrier");
}

TEST_F(VerifyTest, a_root_that_is_not_there_is_an_error) {
  const auto found = verify_trees(source(), target("none"), {});
  ASSERT_FALSE(found.ok());
  EXPECT_EQ(found.error().code, -ENOENT);
  EXPECT_NE(found.error().text.find("none"), std::string::npos);
}

TEST_F(VerifyTest, too_many_differences_are_cut_and_that_is_said) {
  for (int i = 0; i < 10; ++i) write_file(source("f" + std::to_string(i)), "1");
  auto ours = LocalTree::open(source()), theirs = LocalTree::open(target());
  const auto thread = SideThread::start();
  ASSERT_TRUE(ours.ok() && theirs.ok() && thread.ok());
  const VerifyOptions options;
  Comparison comparison(*ours, *theirs, options, **thread, Comparison::What::kAll, 4);
  ASSERT_TRUE(comparison.walk("").ok());
  const auto found = comparison.conclude();
  ASSERT_TRUE(found.ok());
  EXPECT_EQ(found->back().kind, "more");
  EXPECT_EQ(found->back().detail, "more than 4 differences: repair these and verify again");
}

}  // namespace
}  // namespace tarn
