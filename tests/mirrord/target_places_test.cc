// SPDX-License-Identifier: GPL-2.0
// A target's directory that is replaced, goes away and comes back, or is full.
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

class TargetPlacesTest : public TargetTest {
 protected:
  std::string error() const { return target_->report().last_error; }
};

TEST_F(TargetPlacesTest, an_empty_directory_in_its_place_is_filled) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  fs::rename(copy_, dir_ / "elsewhere");
  fs::create_directory(copy_);
  // It is looked at from time to time.
  ASSERT_TRUE(eventually([&] { return content_of(in_target("f")) == "1"; }));
  expect_equal_trees();
  EXPECT_EQ(target_->report().gaps, 0u);
}

TEST_F(TargetPlacesTest, an_empty_directory_in_its_place_is_not_said_to_be_equal) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  for (int i = 0; i < 3; ++i) {
    fs::rename(copy_, dir_ / ("elsewhere" + std::to_string(i)));
    fs::create_directory(copy_);
    ASSERT_TRUE(target_->wait(mark(), steady_clock::now() + std::chrono::seconds(30)));
    EXPECT_EQ(content_of(in_target("f")), "1");
  }
}

TEST_F(TargetPlacesTest, an_empty_directory_is_filled_after_a_restart_too) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  stop();
  fs::rename(copy_, dir_ / "elsewhere");
  fs::create_directory(copy_);
  start();
  expect_equal_trees();
  EXPECT_EQ(content_of(in_target("f")), "1");
}

TEST_F(TargetPlacesTest, another_directory_is_not_touched_until_somebody_says_so) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  // With its contents at once: an empty directory would be filled.
  fs::create_directory(dir_ / "other");
  put_content(dir_ / "other/precious", "of somebody else");
  fs::rename(copy_, dir_ / "elsewhere");
  fs::rename(dir_ / "other", copy_);
  ASSERT_TRUE(becomes("away"));
  EXPECT_NE(error().find("resync s/t"), std::string::npos) << error();
  write("g", "2");
  EXPECT_EQ(target_->wait(mark(), steady_clock::now() + std::chrono::seconds(9)).error().code,
            -EIO);
  EXPECT_EQ(content_of(in_target("precious")), "of somebody else");
  EXPECT_FALSE(fs::exists(in_target("f")));

  // Back again: it goes on where it was.
  const LogPosition end = intake_->log().end();
  fs::rename(copy_, dir_ / "other");
  fs::rename(dir_ / "elsewhere", copy_);
  expect_equal_trees();
  EXPECT_EQ(content_of(in_target("g")), "2");
  EXPECT_FALSE(walks_since(end));

  fs::rename(copy_, dir_ / "elsewhere");
  fs::rename(dir_ / "other", copy_);
  ASSERT_TRUE(becomes("away"));
  EXPECT_TRUE(fs::exists(in_target("precious")));
  ASSERT_TRUE(target_->resync().ok());
  expect_equal_trees();
  EXPECT_FALSE(fs::exists(in_target("precious")));
}

TEST_F(TargetPlacesTest, a_directory_that_is_away_is_waited_for) {
  start();
  expect_equal_trees();
  fs::rename(copy_, dir_ / "elsewhere");
  ASSERT_TRUE(becomes("away"));
  write("f", "while it was away");
  fs::rename(dir_ / "elsewhere", copy_);
  expect_equal_trees();
  stop();
  fs::rename(copy_, dir_ / "elsewhere");
  start();
  ASSERT_TRUE(becomes("away"));
  EXPECT_FALSE(fs::exists(copy_));
  write("g", "again");
  fs::rename(dir_ / "elsewhere", copy_);
  expect_equal_trees();
}

/* As a repair that was asked for before. */
TEST_F(TargetPlacesTest, nothing_works_on_another_directory_in_its_place) {
  start();
  expect_equal_trees();
  fs::rename(copy_, dir_ / "elsewhere");
  fs::create_directory(copy_);
  put_content(in_target("precious"), "of somebody else");
  EXPECT_EQ(target_->between_entries([] { FAIL(); }).error().code, -ENODEV);
  // Renamed, as an empty directory would be taken as the target while it is removed.
  fs::rename(copy_, dir_ / "other");
  EXPECT_EQ(target_->between_entries([] { FAIL(); }).error().code, -ENODEV);
  fs::rename(dir_ / "elsewhere", copy_);
  bool done = false;
  EXPECT_TRUE(target_->between_entries([&] { done = true; }).ok());
  EXPECT_TRUE(done);
}

/* The mount point below it is an empty directory, which is not the target. */
TEST_F(TargetPlacesTest, a_file_system_that_is_not_mounted_is_not_replaced) {
  if (geteuid() != 0) GTEST_SKIP() << "mounts";
  fs::create_directory(dir_ / "m");
  const auto mounted = [&] { return mount("tmpfs", (dir_ / "m").c_str(), "tmpfs", 0, "size=1m"); };
  if (mounted() != 0) GTEST_SKIP() << "mounts";
  copy_ = dir_ / "m";
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  stop();
  EXPECT_EQ(umount2(copy_.c_str(), MNT_DETACH), 0);
  start();
  EXPECT_TRUE(becomes("away"));
  EXPECT_TRUE(fs::is_empty(copy_));
  EXPECT_NE(error().find("mount the target"), std::string::npos) << error();
  // A new file system is empty and at the same mount point.
  ASSERT_EQ(mounted(), 0);
  expect_equal_trees();
  stop();
  EXPECT_EQ(umount2(copy_.c_str(), MNT_DETACH), 0);
}

/* Nor is the target emptied because of it. */
TEST_F(TargetPlacesTest, another_directory_in_the_source_s_place_is_not_compared_with) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  fs::rename(source_, dir_ / "elsewhere");
  fs::create_directory(source_);
  write("g", "in the other one");
  EXPECT_EQ(target_->wait(mark(), steady_clock::now() + std::chrono::seconds(9)).error().code,
            -EIO);
  ASSERT_TRUE(becomes("held"));
  EXPECT_NE(error().find("put it back"), std::string::npos) << error();
  EXPECT_TRUE(fs::exists(in_target("f")));
  ASSERT_TRUE(target_->pause().ok());  // it is opened anew
  ASSERT_TRUE(target_->resume().ok());
  EXPECT_TRUE(becomes("away"));
  EXPECT_TRUE(fs::exists(in_target("f")));
  fs::remove_all(source_);
  fs::rename(dir_ / "elsewhere", source_);
  expect_equal_trees();
}

/* A target on a small file system with something else on it. */
class FullTargetTest : public TargetPlacesTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "mounts";
    fs::create_directory(dir_ / "m");
    if (mount("tmpfs", (dir_ / "m").c_str(), "tmpfs", 0, "size=512k") != 0)
      GTEST_SKIP() << "mounts";
    mounted_ = true;
    copy_ = dir_ / "m/t";
    fs::create_directory(copy_);
    fs::permissions(copy_, fs::perms::owner_all);
  }
  void TearDown() override {
    drop_target();
    if (mounted_) umount2((dir_ / "m").c_str(), MNT_DETACH);
  }
  void fill() { put_content(dir_ / "m/ballast", std::string(300 << 10, 'b')); }
  void free() { fs::remove(dir_ / "m/ballast"); }
  const std::string large_ = std::string(300 << 10, 'x');

 private:
  bool mounted_ = false;
};

TEST_F(FullTargetTest, holds_and_goes_on_when_there_is_room) {
  start();
  expect_equal_trees();
  fill();
  write("f", large_);
  write("g", "behind");
  ASSERT_TRUE(becomes("held"));
  EXPECT_NE(error().find("No space"), std::string::npos) << error();
  EXPECT_EQ(target_->wait(mark(), steady_clock::now() + std::chrono::seconds(9)).error().code,
            -EIO);
  EXPECT_FALSE(fs::exists(in_target("g"))) << "what follows waits";
  free();
  expect_equal_trees();
  EXPECT_EQ(target_->report().skipped, 0u);
  EXPECT_EQ(target_->report().last_error, "");
}

TEST_F(FullTargetTest, a_first_copy_holds_too) {
  write_unseen("f", large_);
  fill();
  start();
  ASSERT_TRUE(becomes("held"));
  kill();
  start();
  ASSERT_TRUE(becomes("held"));
  free();
  expect_equal_trees();
}

TEST_F(FullTargetTest, a_held_target_is_paused_and_resumed_over_a_restart) {
  start();
  expect_equal_trees();
  fill();
  write("f", large_);
  ASSERT_TRUE(becomes("held"));
  const auto paused = target_->pause();
  EXPECT_TRUE(paused.ok()) << paused.error().text;
  EXPECT_TRUE(saved().paused);
  stop();
  free();
  start();
  EXPECT_EQ(state(), "paused");
  ASSERT_TRUE(target_->resume().ok());
  expect_equal_trees();
}

TEST_F(FullTargetTest, a_skip_is_a_gap_until_all_is_compared) {
  start();
  expect_equal_trees();
  EXPECT_EQ(target_->skip().error().code, -ENOENT);
  fill();
  write("f", large_);
  ASSERT_TRUE(becomes("held"));
  std::string skipped;
  std::uint64_t count = 0;
  // The writes of its pages, and marks that compare the file: each holds it.
  EXPECT_TRUE(eventually([&] {
    if (const auto done = target_->skip()) {
      skipped += *done + "\n";
      ++count;
      EXPECT_TRUE(eventually([&] { return target_->report().skipped == count; })) << count;
    }
    return target_->report().lag_entries == 0 && state() != "held";
  }));
  EXPECT_NE(skipped.find("/f"), std::string::npos) << skipped;
  EXPECT_GT(target_->report().skipped, 0u);
  EXPECT_GT(target_->report().gaps, 0u);
  EXPECT_NE(state(), "equal");
  free();
  ASSERT_TRUE(target_->resync().ok());
  expect_equal_trees();
  EXPECT_EQ(target_->report().gaps, 0u);
  EXPECT_TRUE(becomes("equal"));
}

/* The entry that holds it is tried again and again, which may take long. */
TEST_F(FullTargetTest, a_skip_during_an_attempt_waits_for_its_end) {
  write_unseen("f", std::string(600 << 10, 'x'));
  put_content(dir_ / "m/ballast", std::string(150 << 10, 'b'));
  copy_rate_ = 256 << 10;  // an attempt reads so much again and takes a second
  start();
  ASSERT_TRUE(becomes("held"));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the second one has begun
  const auto skipped = target_->skip();
  ASSERT_TRUE(skipped.ok()) << skipped.error().text;
  EXPECT_TRUE(eventually([&] { return target_->report().skipped == 1; }));
}

}  // namespace
}  // namespace tarn::test
