// SPDX-License-Identifier: GPL-2.0
// What is kept of a target: written and read, damaged in every way, and which directory it is.
#include "mirrord/service/target_state.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "base/text.h"
#include "mirrord/config/state_directory.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
using Json = nlohmann::json;
namespace fs = std::filesystem;

TargetState full_state() {
  return {.uuid = rule_uuid(3),
          .identity = DirectoryIdentity{"12 34.000000005", "/mnt/x"},
          .log = "an epoch",
          .position = ~std::uint64_t{0},
          .clean = true,
          .until = -7,
          .missing_since = kSinceEver,
          .read_since = -8,
          .walk = WalkPlace{.begin = {.walk = 7, .since = kSinceEver, .target = "t"},
                            .position = 9,
                            .after = "a/\xff",
                            .suspects = {"s", "\xfe"},
                            .doubts = {{"c", "d\xfd"}, {"f"}, {12, ~std::uint64_t{0}}},
                            .last_captured = -5,
                            .source = {"1 2", "/m"}},
          .paused = true,
          .applied = 1,
          .failures = 2,
          .gaps = 3,
          .skipped = 4};
}

void expect_equal(const TargetState &a, const TargetState &b) {
  EXPECT_EQ(a.uuid, b.uuid);
  EXPECT_EQ(a.identity, b.identity);
  EXPECT_EQ(a.log, b.log);
  EXPECT_EQ(a.position, b.position);
  EXPECT_EQ(a.clean, b.clean);
  EXPECT_EQ(a.until, b.until);
  EXPECT_EQ(a.missing_since, b.missing_since);
  EXPECT_EQ(a.read_since, b.read_since);
  EXPECT_EQ(a.walk, b.walk);
  EXPECT_EQ(a.paused, b.paused);
  EXPECT_EQ(std::tie(a.applied, a.failures, a.gaps, a.skipped),
            std::tie(b.applied, b.failures, b.gaps, b.skipped));
}

std::string bytes_of(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class TargetStateTest : public testing::Test {
 protected:
  void expect_refused(const std::string &what) const {
    const auto read = read_target_state(file_);
    ASSERT_FALSE(read.ok()) << what;
    EXPECT_EQ(read.error().code, -EBADMSG) << what << ": " << read.error().text;
    EXPECT_NE(read.error().text.find(file_), std::string::npos) << read.error().text;
    EXPECT_EQ(read.error().text.find('\n'), std::string::npos) << read.error().text;
  }
  Json document() const {
    EXPECT_TRUE(write_target_state(file_, full_state()).ok());
    return **read_document(file_);
  }

  TemporaryDirectory dir_;
  const std::string file_ = dir_ / "target-a";
};

TEST_F(TargetStateTest, is_read_as_written) {
  const auto none = read_target_state(file_);
  ASSERT_TRUE(none.ok());
  EXPECT_FALSE(none->has_value());
  for (const TargetState &state : {full_state(), TargetState{.uuid = rule_uuid(1)}}) {
    ASSERT_TRUE(write_target_state(file_, state).ok());
    const auto read = read_target_state(file_);
    ASSERT_TRUE(read.ok() && read->has_value());
    expect_equal(**read, state);
  }
}

TEST_F(TargetStateTest, a_file_that_is_cut_anywhere_is_refused) {
  ASSERT_TRUE(write_target_state(file_, full_state()).ok());
  const std::string whole = bytes_of(file_);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    fs::resize_file(file_, size);
    expect_refused("cut after " + std::to_string(size));
    std::ofstream(file_, std::ios::binary) << whole;
  }
  ASSERT_TRUE(read_target_state(file_).ok());
}

TEST_F(TargetStateTest, a_missing_field_or_one_of_another_type_is_refused) {
  const Json good = document();
  for (const auto &[field, value] : good.items()) {
    Json bad = good;
    bad.erase(field);
    ASSERT_TRUE(write_document(file_, bad).ok());
    if (field == "identity" || field == "missing_since" || field == "read_since" || field == "walk")
      EXPECT_TRUE(read_target_state(file_).ok()) << field;
    else
      expect_refused("without " + field);
    for (const Json &other : {Json(), Json::array(), Json::object(), Json("text"), Json(-1.5)}) {
      if (other.is_string() && value.is_string() && field != "uuid") continue;
      bad[field] = other;
      ASSERT_TRUE(write_document(file_, bad).ok());
      expect_refused(field + " is " + other.dump());
    }
  }
  for (const Json &bad : {Json(), Json::array(), Json(1), Json("text")}) {
    ASSERT_TRUE(write_document(file_, bad).ok());
    expect_refused(bad.dump());
  }
  for (const auto &[field, value] : good["walk"].items()) {
    Json bad = good;
    bad["walk"].erase(field);
    ASSERT_TRUE(write_document(file_, bad).ok());
    expect_refused("a walk without " + field);
    for (const Json &other : {Json(), Json::object(), Json(-1.5), Json(true)}) {
      bad["walk"][field] = other;
      ASSERT_TRUE(write_document(file_, bad).ok());
      expect_refused("a walk whose " + field + " is " + other.dump());
    }
  }
  for (const char *field : {"object", "mount_point"}) {
    Json bad = good;
    bad["identity"].erase(field);
    ASSERT_TRUE(write_document(file_, bad).ok());
    expect_refused(std::string("an identity without ") + field);
  }
}

/* A position that wraps or is a fraction is no position. */
TEST_F(TargetStateTest, numbers_that_do_not_fit_are_refused) {
  const Json good = document();
  for (const char *field : {"position", "applied", "failures", "gaps", "skipped"}) {
    for (const Json &other : {Json(-1), Json(1.5), Json(1e300)}) {
      Json bad = good;
      bad[field] = other;
      ASSERT_TRUE(write_document(file_, bad).ok());
      expect_refused(std::string(field) + " is " + other.dump());
    }
  }
  for (const char *field : {"until", "missing_since"}) {
    for (const Json &other : {Json(1.5), Json(~std::uint64_t{0})}) {
      Json bad = good;
      bad[field] = other;
      ASSERT_TRUE(write_document(file_, bad).ok());
      expect_refused(std::string(field) + " is " + other.dump());
    }
  }
}

TEST(DirectoryIdentityTest, belongs_to_the_directory_and_not_to_its_path) {
  TemporaryDirectory dir;
  fs::create_directory(dir / "a");
  fs::create_directory(dir / "b");
  const auto a = identify_directory(dir / "a");
  const auto b = identify_directory(dir / "b");
  ASSERT_TRUE(a.ok() && b.ok());
  EXPECT_FALSE(*a == *b);
  std::ofstream(dir / "a/f") << "x";  // contents do not matter
  EXPECT_EQ(*identify_directory(dir / "a"), *a);
  fs::rename(dir / "a", dir / "c");
  fs::rename(dir / "b", dir / "a");
  EXPECT_EQ(*identify_directory(dir / "a"), *b);
  EXPECT_EQ(*identify_directory(dir / "c"), *a);
}

TEST(DirectoryIdentityTest, needs_a_directory) {
  TemporaryDirectory dir;
  EXPECT_EQ(identify_directory(dir / "none").error().code, -ENOENT);
  std::ofstream(dir / "f").flush();
  EXPECT_EQ(identify_directory(dir / "f").error().code, -ENOTDIR);
  EXPECT_EQ(identify_directory(dir / "f/g").error().code, -ENOTDIR);
  fs::create_symlink("nowhere", dir / "dangling");
  EXPECT_EQ(identify_directory(dir / "dangling").error().code, -ENOENT);
}

TEST(DirectoryIdentityTest, tells_a_file_system_that_is_not_mounted) {
  if (geteuid() != 0) GTEST_SKIP() << "mounts";
  TemporaryDirectory dir;
  const std::string at = dir / "a\tb";  // a blank in the mount table is escaped
  fs::create_directory(at);
  const auto below = identify_directory(at);
  if (mount("tmpfs", at.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "mounts";
  const auto mounted = identify_directory(at);
  fs::create_directory(at + "/d");
  const auto inside = identify_directory(at + "/d");
  umount2(at.c_str(), MNT_DETACH);
  ASSERT_TRUE(below.ok() && mounted.ok() && inside.ok());
  EXPECT_NE(mounted->mount_point, below->mount_point);
  EXPECT_EQ(inside->mount_point, mounted->mount_point);
  EXPECT_EQ(mounted->mount_point, printable(fs::canonical(at).string()));
  EXPECT_EQ(*identify_directory(at), *below);
}

TEST(DirectoryIdentityTest, an_empty_directory_holds_at_most_what_mkfs_makes) {
  TemporaryDirectory dir;
  EXPECT_TRUE(*directory_is_empty(dir.path()));
  fs::create_directory(dir / "lost+found");
  EXPECT_TRUE(*directory_is_empty(dir.path()));
  std::ofstream(dir / ".hidden").flush();
  EXPECT_FALSE(*directory_is_empty(dir.path()));
  fs::remove(dir / "lost+found");
  EXPECT_FALSE(*directory_is_empty(dir.path()));
  EXPECT_EQ(directory_is_empty(dir / "none").error().code, -ENOENT);
  EXPECT_EQ(directory_is_empty(dir / ".hidden").error().code, -ENOTDIR);
}

}  // namespace
}  // namespace tarn
