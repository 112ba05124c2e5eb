// SPDX-License-Identifier: GPL-2.0
// A wall clock that was set back: nothing is taken for older than it is.
#include "mirrord/service/wall_clock.h"

#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include <nlohmann/json.hpp>

#include "mirrord/config/state_directory.h"
#include "mirrord/file_status.h"
#include "mirrord/pending_paths.h"
#include "tests/mirrord/target_kit.h"

namespace tarn::test {
namespace {

constexpr std::int64_t kSecond = 1'000'000, kHour = 3600 * kSecond;

TEST(WallClockTest, a_clock_that_is_set_back_is_told_from_one_that_runs) {
  const ClockReading now = read_clock();
  EXPECT_FALSE(was_set_back(now, read_clock()));
  EXPECT_FALSE(
      was_set_back({now.wall, now.ahead, "b"}, {now.wall + kHour, now.ahead + kHour, "b"}));
  // Later than before, but less than has passed.
  EXPECT_TRUE(was_set_back({now.wall, now.ahead, "b"}, {now.wall + kHour, now.ahead - kHour, "b"}));
  // Another run of the machine has another beginning.
  EXPECT_FALSE(was_set_back({now.wall, now.ahead, "b"}, {now.wall + 1, now.ahead - kHour, "c"}));
  EXPECT_TRUE(was_set_back({now.wall, now.ahead, "b"}, {now.wall - 1, now.ahead + kHour, "c"}));
}

/* A record of before the copy may have been captured after it, by a clock that was ahead. */
TEST(WallClockTest, a_mark_on_a_path_ends_by_the_log_s_clock_too) {
  const auto wall = static_cast<std::uint64_t>(now_us());
  const std::uint64_t log = 1'000'000'000;
  PendingPaths paths(std::chrono::seconds(5), [] { return Result<std::int64_t>(now_us()); });
  paths.set_log_clock([] { return log; });
  paths.mark("a").names = true;
  EXPECT_TRUE(paths.expire({wall + kHour, log}).empty());
  EXPECT_TRUE(paths.expire({wall - kHour, log + 6 * kSecond}).empty());
  EXPECT_TRUE(paths.covers("a"));
  EXPECT_EQ(paths.expire({wall + kHour, log + 6 * kSecond}).size(), 1u);
  paths.mark("b").names = true;
  EXPECT_TRUE(paths.expire({wall - kHour, log + 60 * kSecond}).empty());
  EXPECT_EQ(paths.expire({wall - kHour, log + 70 * kSecond}).size(), 1u)
      << "it is never on its way so long";
}

class ClockSetBack : public TargetTest {
 protected:
  /* The wall clock was an hour ahead when the intake was closed. */
  void set_back_while_closed() {
    walker_.reset();
    intake_.reset();
    const std::string file = dir_ / "log" + "/received.json";
    nlohmann::json document = **read_document(file);
    document["clock"]["ahead"] = document["clock"]["ahead"].get<std::int64_t>() + kHour;
    ASSERT_TRUE(write_document(file, document).ok());
    open_log();
  }
  std::int64_t since_of_a_gap() {
    intake_->gap(Intake::Missing::kSinceLastRecord, "test");
    return last_gap_of(intake_->log()).since;
  }
};

TEST_F(ClockSetBack, a_gap_is_since_ever_though_the_last_record_is_in_the_past) {
  open_log();
  write("f", "one");
  const std::int64_t before = since_of_a_gap();
  EXPECT_GT(before, now_us() - kHour);
  set_back_while_closed();
  EXPECT_EQ(since_of_a_gap(), kSinceEver);
}

/* It was sent an hour back, and the clock is right again when it is applied. */
TEST_F(ClockSetBack, a_mark_of_meanwhile_has_all_that_was_changed_before) {
  start();
  expect_equal_trees();
  write("f", "with a record");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a file's times are in ticks
  write_unseen("f", "by a name outside the rule");
  const std::uint64_t number = intake_->last_mark() + 1;
  ASSERT_TRUE(intake_->mark({number, now_us() - kHour}));
  ASSERT_TRUE(target_->wait(number, std::chrono::steady_clock::now() + std::chrono::seconds(30)));
  EXPECT_EQ(content_of(in_target("f")), "by a name outside the rule");
  EXPECT_EQ(std::filesystem::last_write_time(in_target("f")),
            std::filesystem::last_write_time(in_source("f")));
}

TEST_F(ClockSetBack, a_target_that_lost_its_place_compares_all) {
  log_limit_ = 1 << 16;
  start();
  expect_equal_trees();
  stop();
  TargetState state = saved();
  ASSERT_TRUE(state.clean);
  for (int i = 0; i < 40; ++i) write("f" + std::to_string(i % 7), std::string(600, 'a' + i % 26));
  set_back_while_closed();
  const LogPosition first = intake_->log().first();
  ASSERT_TRUE(intake_->log().release(intake_->log().end()).ok());
  ASSERT_GT(intake_->log().first(), first);
  // The clock shows the time of the last mark again, long after the changes.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  state.until = now_us();
  put_state(state);
  start();
  expect_equal_trees();
}

TEST_F(ClockSetBack, a_walk_that_was_asked_for_before_looks_for_everything) {
  start();
  expect_equal_trees();
  stop();
  write_unseen("g", "unseen");
  TargetState state = saved();
  // Of a gap that was declared while the clock was ahead.
  state.missing_since = now_us() + kHour;
  state.clean = false;
  put_state(state);
  set_back_while_closed();
  start();
  expect_equal_trees();
}

TEST_F(ClockSetBack, a_gap_that_is_read_afterwards_reaches_back_for_ever) {
  start();
  expect_equal_trees();
  stop();
  // Declared while the clock was ahead.
  ASSERT_TRUE(intake_->append(EntryKind::kGap, encode(GapEntry{now_us() + kHour, "test"})).ok());
  write_unseen("g", "unseen");
  set_back_while_closed();
  start();
  expect_equal_trees();
}

/* The records of before the mark tell that their files had been changed before it. */
TEST_F(ClockSetBack, a_mark_whose_time_is_before_its_records_compares_their_files) {
  start();
  expect_equal_trees();
  write("f", "one");
  const std::uint64_t number = ++marks_;
  ASSERT_TRUE(intake_->mark({number, now_us() - kHour}));
  ASSERT_TRUE(
      target_->wait(number, std::chrono::steady_clock::now() + std::chrono::seconds(20)).ok());
  struct stat mine, theirs;
  ASSERT_EQ(stat(in_target("f").c_str(), &mine), 0);
  ASSERT_EQ(stat(in_source("f").c_str(), &theirs), 0);
  EXPECT_TRUE(same_time(mine.st_mtim, theirs.st_mtim));
}

}  // namespace
}  // namespace tarn::test
