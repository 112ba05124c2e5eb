// SPDX-License-Identifier: GPL-2.0
// A walk that was interrupted goes on where it was, and nothing is lost by that.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>

#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class TargetWalkTest : public TargetTest {
 protected:
  static std::string directory(int number) { return fmt::format("d{:02}", number); }
  /* Its copy takes two seconds. */
  void make_tree() {
    for (int i = 0; i < 40; ++i) {
      fs::create_directory(in_source(directory(i)));
      write_unseen(directory(i) + "/f", std::string(3 << 10, 'x'));
    }
    copy_rate_ = 60 << 10;
  }
  /* Until the state tells of a place behind that directory. */
  ::testing::AssertionResult comes_to(const std::string &name) {
    const bool there = eventually([&] {
      const auto state = read_target_state(state_file_);
      return state && *state && (*state)->walk && (*state)->walk->after >= name;
    });
    return there ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << name;
  }
  /* Of every file and directory. A mark sets them, for what a record has named before it. */
  static std::string times(const std::string &root) {
    std::map<std::string, std::string> lines;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
      struct stat status;
      EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
      lines[entry.path().string().substr(root.size())] =
          fmt::format("{}.{:09}", status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
    }
    std::string text;
    for (const auto &[name, line] : lines) text += name + ": " + line + "\n";
    return text;
  }
  /* As on kill -9 of the process. */
  void kill_process() {
    kill();
    walker_.reset();
    intake_.reset();
    ASSERT_NO_FATAL_FAILURE(open_log());
  }
  std::multiset<std::string> looks_since(LogPosition position) const {
    std::multiset<std::string> looks;
    for (const LoggedEntry &entry : entries_of(intake_->log())) {
      if (entry.position >= position && entry.kind == EntryKind::kLook)
        looks.insert(decode_look(entry.bytes())->directory);
    }
    return looks;
  }
  void make_directory(const std::string &name) {
    fs::create_directory(in_source(name));
    feed(*intake_, name_change(OX_OP_MKDIR, next(), in_source(name), {}, 0755));
  }
  void link(const std::string &name, const std::string &other) {
    fs::create_hard_link(in_source(name), in_source(other));
    feed(*intake_, name_change(OX_OP_LINK, next(), in_source(name), in_source(other), 0100644));
  }
};

TEST_F(TargetWalkTest, a_first_copy_that_was_killed_goes_on) {
  make_tree();
  start();
  ASSERT_TRUE(comes_to("d10"));
  kill_process();
  copy_rate_ = 0;
  const LogPosition begin = intake_->log().end();
  const TargetState early = saved();
  ASSERT_TRUE(early.walk);
  // Whoever looks at what was copied finds that nobody has told of this.
  write_unseen("d05/g", "unseen");
  start();
  ASSERT_TRUE(equal());
  EXPECT_FALSE(fs::exists(in_target("d05/g")));
  EXPECT_FALSE(walks_since(begin));
  fs::remove(in_source("d05/g"));
  target_->resync().ok();
  expect_equal_trees();
}

/* The walker was not far ahead, as when it keeps to a speed or waits. */
TEST_F(TargetWalkTest, the_rest_of_a_walk_that_is_not_in_the_log_is_walked) {
  make_tree();
  copy_rate_ = 0;
  files_per_second_ = 40;
  start();
  ASSERT_TRUE(comes_to("d10"));
  kill_process();
  files_per_second_ = 0;
  walker_.reset();
  intake_.reset();
  ASSERT_NO_FATAL_FAILURE(open_log());
  const LogPosition begin = intake_->log().end();
  const std::multiset<std::string> before = looks_since(1);
  ASSERT_LT(before.size(), 35u);
  start();
  expect_equal_trees();
  EXPECT_FALSE(walks_since(begin));
  EXPECT_EQ(looks_since(begin).size(), 41 - before.size()) << "each directory once";
}

TEST_F(TargetWalkTest, a_gap_makes_it_begin_anew) {
  make_tree();
  start();
  ASSERT_TRUE(comes_to("d10"));
  kill_process();
  copy_rate_ = 0;
  write_unseen("d05/g", "unseen");
  const LogPosition begin = intake_->log().end();
  intake_->gap(Intake::Missing::kSinceLastRecord, "lost");
  start();
  expect_equal_trees();
  EXPECT_TRUE(walks_since(begin));
  EXPECT_TRUE(fs::exists(in_target("d05/g")));
}

TEST_F(TargetWalkTest,
       another_directory_in_the_place_of_the_source_or_the_target_is_compared_whole) {
  make_tree();
  start();
  ASSERT_TRUE(comes_to("d10"));
  kill_process();
  copy_rate_ = 0;
  const TargetState early = saved();
  fs::rename(source_, source_ + "-old");
  fs::create_directory(source_);
  write_unseen("other", "1");
  walker_.reset();
  intake_.reset();
  start();
  expect_equal_trees();
  drop_target();
  fs::remove_all(copy_);
  fs::create_directory(copy_);
  fs::permissions(copy_, fs::perms::owner_all);
  put_state(early);
  start();
  expect_equal_trees();
}

TEST_F(TargetWalkTest, what_records_have_named_before_is_compared) {
  make_tree();
  write_unseen("d02/name", "of two");
  fs::create_hard_link(in_source("d02/name"), in_source("d35/name"));
  copy_rate_ = 0;
  files_per_second_ = 30;  // the records are between the looks
  start();
  ASSERT_TRUE(comes_to("d03"));
  write("d01/f", std::string(3 << 10, 'y'));
  rename("d38", "d00/from-behind");
  rename("d00/f", "d37/from-before");
  make_directory("d36/new");
  write("d36/new/f", "new");
  link("d01/f", "d34/link");
  feed(*intake_,
       set_attributes(next(), {in_source("d02/f"), OX_ATTR_MODE, 0600, 0, 0, 0, 0, 0, 0}));
  fs::permissions(in_source("d02/f"), fs::perms{0600});
  const LogPosition named = intake_->log().end();
  ASSERT_TRUE(eventually([&] {
    const auto state = read_target_state(state_file_);
    return state && *state && (*state)->walk && (*state)->walk->position >= named;
  }));
  kill_process();
  ASSERT_TRUE(saved().walk);
  EXPECT_FALSE(saved().walk->suspects.empty());
  EXPECT_FALSE(saved().walk->doubts.changed.empty());
  const LogPosition begin = intake_->log().end();
  start();
  expect_equal_trees();
  EXPECT_EQ(times(copy_), times(source_));
  EXPECT_FALSE(walks_since(begin));
}

/* A place that does not tell of all makes a silent difference here. */
TEST_F(TargetWalkTest, programs_go_on_while_it_is_killed_again_and_again) {
  static unsigned seed = 0;
  std::mt19937 random(++seed);
  const auto below = [&](std::size_t n) { return static_cast<int>(random() % n); };
  lists_ = {{source_ + "/in"}, {source_ + "/in/out"}};
  Programs programs(source_, seed);
  for (int i = 0; i < 100; ++i) programs.step();
  for (int i = 0; i < 90; ++i) {
    static constexpr const char *kAbove[] = {"in/a", "in/b", "in"};
    const std::string name = fmt::format("{}/c{:02}", kAbove[i % 3], i);
    fs::create_directories(in_source(name));
    write_unseen(name + "/f", std::string(2 << 10, 'x'));
    if (i % 5 == 4)
      fs::create_hard_link(in_source(name + "/f"), in_source(fmt::format("in/b/l{:02}", i)));
  }
  programs.records.clear();  // of before the log was made
  if (below(3) == 0)
    copy_rate_ = 60 << 10;  // all looks are in the log before
  else
    files_per_second_ = 100;
  const auto feed_some = [&](std::size_t left) {
    for (; programs.records.size() > left; programs.records.pop_front())
      feed(*intake_, programs.records.front());
  };
  int places = 0;
  start();
  for (int kills = 2 + below(3); kills > 0; --kills) {
    for (int steps = 50 + below(200); steps > 0; --steps) {
      programs.step();
      feed_some(below(4));
      if (below(50) == 0) {
        feed_some(0);
        mark();
      }
      usleep(4000);
    }
    feed_some(0);
    const LogPosition all = intake_->log().end();
    kill_process();
    const bool place = saved().walk.has_value();
    places += place;
    start();
    const bool gone_on = eventually([&] { return target_->following() != Target::kNotFollowing; });
    EXPECT_TRUE(gone_on);
    EXPECT_FALSE(place && walks_since(all)) << "seed " << seed;
  }
  feed_some(0);
  EXPECT_TRUE(equal()) << state() << ": " << target_->report().last_error;
  EXPECT_EQ(picture(copy_ + "/in"), picture(source_ + "/in", "out")) << "seed " << seed << "\n"
                                                                     << programs.log;
  RecordProperty("places", places);
}

}  // namespace
}  // namespace tarn
