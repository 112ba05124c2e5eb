// SPDX-License-Identifier: GPL-2.0
// A target whose source is on another host becomes equal over a line that fails.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/mirrord/remote_kit.h"
#include "tests/mirrord/replay_kit.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

class RemoteTargetTest : public TargetTest {
 protected:
  RemoteTargetTest() : line_(serving(source_, lists_)) {
    view_ = [this] { return std::make_unique<RemoteSource>(line_); };
  }
  ~RemoteTargetTest() override { target_.reset(); }

  void make_tree() {
    fs::create_directories(in_source("d/e"));
    for (int i = 0; i < 30; ++i)
      write_unseen("d/file" + std::to_string(i),
                   std::string(static_cast<std::size_t>(i) * 997, 'x'));
    write_unseen("d/e/large", std::string(2'000'000, 'l'));
    fs::create_symlink("../elsewhere", in_source("d/e/link"));
    fs::create_hard_link(in_source("d/e/large"), in_source("other-name"));
    ASSERT_EQ(mkfifo(in_source("d/fifo").c_str(), 0640), 0);
    ASSERT_EQ(setxattr(in_source("d/file3").c_str(), "user.test", "value", 5, 0), 0);
    fs::permissions(in_source("d/file4"), fs::perms{04755});
    fs::permissions(in_source("d/e"), fs::perms{0750});
  }
  void expect_xattr() {
    char value[16] = "";
    EXPECT_EQ(getxattr(in_target("d/file3").c_str(), "user.test", value, sizeof(value)), 5);
    EXPECT_STREQ(value, "value");
  }

  Line line_;
};

TEST_F(RemoteTargetTest, copies_what_is_there_and_applies_what_follows) {
  make_tree();
  put_content(in_target("stale"), "not in the source");
  start();
  expect_equal_trees();
  expect_xattr();
  write("h", "hello");
  rename("h", "d/h");
  remove("d/file7");
  write("d/e/large", "short now");
  expect_equal_trees();
  EXPECT_EQ(state(), "equal");
  EXPECT_EQ(target_->report().failures, 0u);
}

/* Most of a tree costs few questions: a directory's statuses come together. */
TEST_F(RemoteTargetTest, a_restart_with_a_gap_asks_little_of_what_is_equal) {
  fs::create_directory(in_source("d"));
  for (int i = 0; i < 600; ++i) write_unseen("d/file" + std::to_string(i), "text");
  start();
  expect_equal_trees();
  stop();
  TargetState state = saved();
  state.missing_since = kSinceEver;
  put_state(state);
  const std::uint64_t before = line_.asked();
  const LogPosition end = intake_->log().end();
  start();
  expect_equal_trees();
  EXPECT_TRUE(walks_since(end));
  EXPECT_LT(line_.asked() - before, 150u);
}

/* At one mark for many. */
TEST_F(RemoteTargetTest, a_target_that_is_behind_asks_little) {
  make_tree();
  start();
  expect_equal_trees();
  ASSERT_TRUE(target_->pause().ok());
  const std::uint64_t before = line_.asked();
  for (int i = 0; i < 100; ++i) {
    write("d/file1", "text " + std::to_string(i));
    mark();
  }
  ASSERT_TRUE(target_->resume().ok());
  expect_equal_trees();
  EXPECT_LT(line_.asked() - before, 300u) << "two for each truncation, none for a mark";
}

TEST_F(RemoteTargetTest, waits_while_the_host_is_away_and_goes_on) {
  make_tree();
  line_.cut();
  start();
  EXPECT_TRUE(becomes("away"));
  EXPECT_NE(target_->report().last_error.find("does not answer"), std::string::npos);
  line_.mend();
  expect_equal_trees();
  line_.cut();
  write("d/file1", "while it is away");
  mark();
  EXPECT_TRUE(becomes("held")) << state();
  EXPECT_NE(target_->report().last_error.find("does not answer"), std::string::npos);
  line_.mend();
  expect_equal_trees();
  expect_xattr();
}

TEST_F(RemoteTargetTest, is_equal_over_a_line_that_fails_often) {
  make_tree();
  line_.disturb(10);
  start();
  EXPECT_TRUE(equal());
  line_.disturb(0);
  expect_equal_trees();
  expect_xattr();
}

/* Each is another object when it is read than when it was found. */
TEST_F(RemoteTargetTest, copies_files_that_are_replaced_all_the_time) {
  fs::create_directory(in_source("d"));
  std::atomic<bool> stop = false;
  std::thread program([&] {
    for (int i = 0; !stop || i < 200; ++i) {
      const std::string name = in_source("d/f" + std::to_string(i % 7));
      put_content(name + ".new",
                  std::string(static_cast<std::size_t>(i % 5) * 200'000, 'a' + i % 26));
      fs::rename(name + ".new", name);
    }
  });
  start();
  EXPECT_TRUE(eventually([&] { return fs::exists(in_target("d")); }));
  stop = true;
  program.join();
  // No record tells of what was done.
  ASSERT_TRUE(target_->resync().ok());
  expect_equal_trees();
}

class RemoteReplay : public Replay {
 public:
  explicit RemoteReplay(unsigned seed) : Replay(seed), line_(serving(source_, lists_)) {
    view_ = [this] { return std::make_unique<RemoteSource>(line_); };
    line_.disturb(seed % 3 == 0 ? 0 : 50);
  }
  ~RemoteReplay() override { target_.reset(); }

 private:
  Line line_;
};

TEST(RemoteReplayTest, ends_like_the_source_from_any_position) {
  replay_at_random<RemoteReplay>(3);
}

}  // namespace
}  // namespace tarn::test
