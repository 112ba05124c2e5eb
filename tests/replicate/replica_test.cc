// SPDX-License-Identifier: GPL-2.0
// The replica: every operation, and that none leads outside.
#include "mirrord/replica.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "mirrord/directory_walk.h"
#include "mirrord/file_status.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/write_back_error_fs.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Done = Replica::Done;

std::string contents(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

struct stat status_of(const std::string &path) {
  struct stat status {};
  lstat(path.c_str(), &status);
  return status;
}

Bytes bytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

class ReplicaTest : public testing::Test {
 protected:
  ReplicaTest() {
    umask(0);
    fs::create_directory(dir_ / "replica");
    fs::create_directory(dir_ / "outside");
    std::ofstream(dir_ / "outside/file") << "untouched";
    replica_.emplace(std::move(*Replica::open(dir_ / "replica")));
  }
  std::string at(const std::string &name) const { return dir_ / ("replica/" + name); }
  static void expect(const Result<Done> &result, Done done) {
    ASSERT_TRUE(result.ok()) << result.error().text;
    EXPECT_EQ(*result, done);
  }
  static void expect_error(const Result<Done> &result, int err) {
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, -err) << result.error().text;
  }

  TemporaryDirectory dir_;
  std::optional<Replica> replica_;
};

TEST_F(ReplicaTest, create_write_and_write_again) {
  expect(replica_->mkdir("d", 0750), Done::kChanged);
  expect(replica_->create("d/f", 0100640), Done::kChanged);
  EXPECT_EQ(status_of(at("d")).st_mode, mode_t{S_IFDIR | 0750});
  EXPECT_EQ(status_of(at("d/f")).st_mode, mode_t{S_IFREG | 0640});
  expect(replica_->write("d/f", 0, bytes("hello")), Done::kChanged);
  expect(replica_->write("d/f", 7, bytes("x")), Done::kChanged);
  EXPECT_EQ(contents(at("d/f")), std::string("hello\0\0x", 8));
}

TEST_F(ReplicaTest, create_empties_what_was_there) {
  std::ofstream(at("f")) << "old";
  expect(replica_->create("f", 0600), Done::kAlready);
  EXPECT_EQ(contents(at("f")), "");
  EXPECT_EQ(status_of(at("f")).st_mode & 07777, mode_t{0600});
  expect(replica_->write("f", 0, bytes("new")), Done::kChanged);
  EXPECT_EQ(contents(at("f")), "new");
}

TEST_F(ReplicaTest, any_bytes_in_names) {
  const std::string name = "a b\n\xff\\\"";
  expect(replica_->mkdir(name, 0755), Done::kChanged);
  expect(replica_->create(name + "/" + name, 0644), Done::kChanged);
  EXPECT_TRUE(fs::exists(at(name + "/" + name)));
}

TEST_F(ReplicaTest, doing_it_twice) {
  expect(replica_->mkdir("d", 0755), Done::kChanged);
  expect(replica_->mkdir("d", 0755), Done::kAlready);
  expect(replica_->create("f", 0644), Done::kChanged);
  expect_error(replica_->mkdir("f", 0755), EEXIST);
  expect_error(replica_->create("d", 0644), EINVAL);
  expect(replica_->symlink("t", "l"), Done::kChanged);
  expect(replica_->symlink("t", "l"), Done::kAlready);
  expect_error(replica_->symlink("tt", "l"), EEXIST);
  expect(replica_->link("f", "g"), Done::kChanged);
  expect(replica_->link("f", "g"), Done::kAlready);
  expect_error(replica_->link("f", "d"), EEXIST);
  expect(replica_->unlink("f"), Done::kChanged);
  expect(replica_->unlink("f"), Done::kAlready);
  expect_error(replica_->unlink("absent/f"), ENOENT);
  expect_error(replica_->rmdir("absent/d"), ENOENT);
  expect(replica_->rmdir("d"), Done::kChanged);
  expect(replica_->rmdir("d"), Done::kAlready);
}

TEST_F(ReplicaTest, removing_a_full_directory_fails_as_it_did_below) {
  expect(replica_->mkdir("d", 0755), Done::kChanged);
  expect(replica_->create("d/f", 0644), Done::kChanged);
  expect(replica_->rmdir("d"), Done::kAlready);
  EXPECT_TRUE(fs::exists(at("d/f")));
  expect_error(replica_->unlink("d"), EISDIR);
}

TEST_F(ReplicaTest, what_is_missing) {
  expect_error(replica_->create("absent/f", 0644), ENOENT);
  expect_error(replica_->write("absent", 0, bytes("x")), ENOENT);
  expect_error(replica_->rename("absent", "f"), ENOENT);
  expect_error(replica_->link("absent", "f"), ENOENT);
  expect_error(replica_->set_attributes("absent", {.mode = 0600}), ENOENT);
  EXPECT_FALSE(fs::exists(at("f")));
}

TEST_F(ReplicaTest, open_descriptors_follow_the_names) {
  expect(replica_->create("a", 0644), Done::kChanged);
  expect(replica_->write("a", 0, bytes("one")), Done::kChanged);
  expect(replica_->rename("a", "b"), Done::kChanged);
  expect(replica_->create("a", 0644), Done::kChanged);
  expect(replica_->write("a", 0, bytes("two")), Done::kChanged);
  EXPECT_EQ(contents(at("a")), "two");
  EXPECT_EQ(contents(at("b")), "one");
  expect(replica_->write("b", 3, bytes("!")), Done::kChanged);
  EXPECT_EQ(contents(at("b")), "one!");
  expect(replica_->rename("a", "b"), Done::kChanged);
  expect(replica_->write("b", 0, bytes("TWO")), Done::kChanged);
  EXPECT_EQ(contents(at("b")), "TWO");
  expect(replica_->unlink("b"), Done::kChanged);
  expect(replica_->create("b", 0644), Done::kChanged);
  expect(replica_->write("b", 0, bytes("3")), Done::kChanged);
  EXPECT_EQ(contents(at("b")), "3");
}

TEST_F(ReplicaTest, renamed_directories_take_their_files_along) {
  for (const char *name : {"d", "d/e", "dd"}) expect(replica_->mkdir(name, 0755), Done::kChanged);
  for (const char *name : {"d/e/f", "dd/f"}) expect(replica_->create(name, 0644), Done::kChanged);
  expect(replica_->rename("d", "x"), Done::kChanged);
  expect_error(replica_->write("d/e/f", 0, bytes("?")), ENOENT);
  expect(replica_->write("x/e/f", 0, bytes("moved")), Done::kChanged);
  expect(replica_->write("dd/f", 0, bytes("other")), Done::kChanged);
  EXPECT_EQ(contents(at("x/e/f")), "moved");
  EXPECT_EQ(contents(at("dd/f")), "other");
  expect(replica_->mkdir("d", 0755), Done::kChanged);
  expect(replica_->mkdir("d/e", 0755), Done::kChanged);
  expect(replica_->create("d/e/f", 0644), Done::kChanged);
  expect(replica_->write("d/e/f", 0, bytes("new")), Done::kChanged);
  EXPECT_EQ(contents(at("d/e/f")), "new");
  EXPECT_EQ(contents(at("x/e/f")), "moved");
}

TEST_F(ReplicaTest, more_files_than_are_kept_open) {
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 300; ++i) {
      const std::string d = "d" + std::to_string(i), f = d + "/f";
      if (round == 0) {
        expect(replica_->mkdir(d, 0755), Done::kChanged);
        expect(replica_->create(f, 0644), Done::kChanged);
      }
      expect(replica_->write(f, static_cast<std::uint64_t>(round), bytes("x")), Done::kChanged);
    }
  }
  EXPECT_EQ(contents(at("d7/f")), "xx");
}

TEST_F(ReplicaTest, what_was_not_kept_is_told_whatever_a_file_is_closed_for) {
  const WriteBackErrorFs files(dir_ / "replica", WriteBackErrorFs::Says::kAtClose);
  auto replica = std::move(*Replica::open(dir_ / "replica"));  // closes all before that ends
  const auto told = [&] {
    std::vector<std::string> paths;
    for (const auto &[path, error] : replica.take_write_back_errors()) {
      EXPECT_EQ(error.code, -ENOSPC) << error.text;
      paths.push_back(path);
    }
    return paths;
  };
  const std::vector<std::string> nothing, full = {"full"};
  expect(replica.create("full", 0644), Done::kChanged);
  expect(replica.write("full", 0, bytes("x")), Done::kChanged);
  EXPECT_EQ(told(), nothing) << "it is open";
  expect(replica.create("full", 0644), Done::kAlready);
  EXPECT_EQ(told(), full) << "closed to be opened anew";
  for (int i = 0; i < 300; ++i)
    expect(replica.create("f" + std::to_string(i), 0644), Done::kChanged);
  EXPECT_EQ(told(), full) << "closed to make room";
  expect(replica.write("full", 0, bytes("x")), Done::kChanged);
  replica.close_files();
  EXPECT_EQ(told(), full);
  replica.close_files();
  EXPECT_EQ(told(), nothing) << "said once";
}

TEST_F(ReplicaTest, attributes) {
  expect(replica_->create("f", 0644), Done::kChanged);
  expect(replica_->write("f", 0, bytes("content")), Done::kChanged);
  const timespec atime{1'000'000'000, 123'456'789}, mtime{1'111'111'111, 654'321'001};
  expect(replica_->set_attributes("f", {.size = 3, .mode = 04750, .atime = atime, .mtime = mtime}),
         Done::kChanged);
  struct stat s = status_of(at("f"));
  EXPECT_EQ(s.st_size, 3);
  EXPECT_EQ(s.st_mode & 07777, mode_t{04750});
  EXPECT_EQ(s.st_atim.tv_sec, 1'000'000'000);
  EXPECT_EQ(s.st_atim.tv_nsec, 123'456'789);
  EXPECT_EQ(s.st_mtim.tv_sec, 1'111'111'111);
  EXPECT_EQ(s.st_mtim.tv_nsec, 654'321'001);
  expect(replica_->set_attributes("f", {.mtime = from_microseconds(5'000'001)}), Done::kChanged);
  s = status_of(at("f"));
  EXPECT_EQ(s.st_atim.tv_sec, 1'000'000'000) << "what is not named stays";
  EXPECT_EQ(s.st_mtim.tv_sec, 5);
  EXPECT_EQ(s.st_mtim.tv_nsec, 1000);
  expect(replica_->set_attributes(
             "f", {.atime = from_microseconds(-86'400'000'000), .mtime = from_microseconds(-1)}),
         Done::kChanged);
  s = status_of(at("f"));
  EXPECT_EQ(s.st_atim.tv_sec, -86'400) << "before 1970";
  EXPECT_EQ(s.st_atim.tv_nsec, 0);
  EXPECT_EQ(s.st_mtim.tv_sec, -1);
  EXPECT_EQ(s.st_mtim.tv_nsec, 999'999'000);
}

TEST_F(ReplicaTest, attributes_of_directories_links_and_the_root) {
  expect(replica_->mkdir("d", 0755), Done::kChanged);
  expect(replica_->symlink("../outside/file", "l"), Done::kChanged);
  const Replica::Attributes times{.atime = timespec{7, 0}, .mtime = timespec{8, 1}};
  for (const char *name : {"d", "l", ""}) {
    expect(replica_->set_attributes(name, times), Done::kChanged);
    EXPECT_EQ(status_of(at(name)).st_mtim.tv_sec, 8) << name;
    EXPECT_EQ(status_of(at(name)).st_mtim.tv_nsec, 1) << name;
  }
  expect(replica_->set_attributes("d", {.mode = 01777}), Done::kChanged);
  EXPECT_EQ(status_of(at("d")).st_mode & 07777, mode_t{01777});
  expect(replica_->set_attributes("", {.mode = 0700}), Done::kChanged);
  EXPECT_EQ(status_of(at("")).st_mode & 07777, mode_t{0700});
  expect_error(replica_->set_attributes("l", {.mode = 0600}), EOPNOTSUPP);
  expect_error(replica_->set_attributes("d", {.size = 0}), EINVAL);
  EXPECT_NE(status_of(dir_ / "outside/file").st_mode & 07777, mode_t{0600});
}

TEST_F(ReplicaTest, owner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  expect(replica_->create("f", 0644), Done::kChanged);
  expect(replica_->symlink("f", "l"), Done::kChanged);
  expect(replica_->set_attributes("f", {.uid = 12, .gid = 34, .mode = 06755}), Done::kChanged);
  EXPECT_EQ(status_of(at("f")).st_uid, 12u);
  EXPECT_EQ(status_of(at("f")).st_gid, 34u);
  EXPECT_EQ(status_of(at("f")).st_mode & 07777, mode_t{06755})
      << "the owner is set before the mode";
  expect(replica_->set_attributes("l", {.gid = 56}), Done::kChanged);
  EXPECT_EQ(status_of(at("l")).st_gid, 56u);
  EXPECT_EQ(status_of(at("f")).st_gid, 34u);
}

TEST_F(ReplicaTest, read_only_files_are_written) {
  expect(replica_->create("f", 0444), Done::kChanged);
  // Many others in between: the descriptor of the creation is gone.
  for (int i = 0; i < 200; ++i)
    expect(replica_->create("x" + std::to_string(i), 0644), Done::kChanged);
  expect(replica_->write("f", 0, bytes("late")), Done::kChanged);
  EXPECT_EQ(contents(at("f")), "late");
  EXPECT_EQ(status_of(at("f")).st_mode & 07777, mode_t{0444});
}

TEST_F(ReplicaTest, symbolic_links_never_lead_outside) {
  fs::create_symlink(dir_ / "outside", at("link"));
  fs::create_symlink(dir_ / "outside/file", at("file"));
  fs::create_symlink("../outside", at("relative"));
  for (const std::string link : {"link", "relative"}) {
    EXPECT_FALSE(replica_->create(link + "/new", 0644).ok());
    EXPECT_FALSE(replica_->mkdir(link + "/new", 0755).ok());
    EXPECT_FALSE(replica_->unlink(link + "/file").ok());
    EXPECT_FALSE(replica_->rmdir(link + "/file").ok());
    EXPECT_FALSE(replica_->symlink("x", link + "/new").ok());
    EXPECT_FALSE(replica_->link(link + "/file", "stolen").ok());
    EXPECT_FALSE(replica_->rename(link + "/file", "stolen").ok());
    EXPECT_FALSE(replica_->write(link + "/file", 0, bytes("X")).ok());
    EXPECT_FALSE(replica_->set_attributes(link + "/file", {.mode = 0777}).ok());
  }
  EXPECT_FALSE(replica_->write("file", 0, bytes("X")).ok());
  EXPECT_FALSE(replica_->create("file", 0644).ok());
  EXPECT_FALSE(replica_->set_attributes("file", {.size = 0}).ok());
  EXPECT_EQ(contents(dir_ / "outside/file"), "untouched");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_ / "outside"), {}), 1);
  EXPECT_FALSE(fs::exists(at("stolen")));
  // A hard link to a link is one to the link itself.
  expect(replica_->link("file", "hard"), Done::kChanged);
  EXPECT_TRUE(fs::is_symlink(at("hard")));
}

TEST_F(ReplicaTest, dot_dot_never_leads_outside) {
  for (const char *path :
       {"../outside/new", "d/../../outside/new", "..", "./f", "d//f", "/f", "d/"}) {
    expect_error(replica_->create(path, 0644), EXDEV);
    expect_error(replica_->write(path, 0, bytes("X")), EXDEV);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_ / "outside"), {}), 1);
}

TEST_F(ReplicaTest, special_files_are_not_opened) {
  ASSERT_EQ(mkfifo(at("fifo").c_str(), 0644), 0);
  expect_error(replica_->write("fifo", 0, bytes("X")), EINVAL);
}

class WalkTest : public ReplicaTest, public testing::WithParamInterface<WalkMethod> {};

TEST_P(WalkTest, stays_below) {
  fs::create_directories(at("a/b/c"));
  fs::create_symlink("b", at("a/inside"));
  fs::create_symlink(dir_ / "outside", at("a/outside"));
  std::ofstream(at("a/file")) << "x";
  const UniqueFd root(open(at("").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const auto same = [&](const std::string &path) {
    const auto fd = open_directory_below(root.get(), path, GetParam());
    struct stat opened {};
    return fd.ok() && fstat(fd->get(), &opened) == 0 && opened.st_ino == status_of(at(path)).st_ino;
  };
  EXPECT_TRUE(same(""));
  EXPECT_TRUE(same("a"));
  EXPECT_TRUE(same("a/b/c"));
  for (const char *path : {"a/inside", "a/inside/c", "a/outside", "a/file", "a/absent", "..",
                           "a/../..", "/etc", "a//b", "."})
    EXPECT_FALSE(open_directory_below(root.get(), path, GetParam()).ok()) << path;
}

INSTANTIATE_TEST_SUITE_P(Methods, WalkTest,
                         testing::Values(WalkMethod::kBest, WalkMethod::kStepByStep),
                         [](const auto &info) {
                           return std::string(info.param == WalkMethod::kBest ? "best"
                                                                              : "step_by_step");
                         });

TEST(PlainRelative, names) {
  for (const char *path : {"", "a", "a/b", "...", "a/..b", "a./b"})
    EXPECT_TRUE(plain_relative(path)) << path;
  for (const char *path : {"/", "/a", "a/", "a//b", ".", "..", "a/.", "a/../b", "./a"})
    EXPECT_FALSE(plain_relative(path)) << path;
}

}  // namespace
}  // namespace tarn
