// SPDX-License-Identifier: GPL-2.0
// A target whose log does not have what it has not read: nothing of it is missed.
#include <algorithm>
#include <filesystem>
#include <limits>

#include <nlohmann/json.hpp>

#include "mirrord/config/state_directory.h"
#include "mirrord/file_status.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

class TargetLogTest : public TargetTest {
 protected:
  /* Changes whose records fill several segments; that of `early` is in the first one only. */
  void change_much() {
    write("early", "x");
    for (int i = 0; i < 40; ++i) write("f" + std::to_string(i % 7), std::string(600, 'a' + i % 26));
  }
  /* While nobody holds the log's older entries any more. */
  void release_all() {
    const LogPosition first = intake_->log().first();
    ASSERT_TRUE(intake_->log().release(intake_->log().end()).ok());
    ASSERT_GT(intake_->log().first(), first);
  }
  void close_log() {
    walker_.reset();
    intake_.reset();
  }
  /* Its last entry is not whole any more. */
  void cut_log() {
    std::string last;
    for (const auto &file : fs::directory_iterator(dir_ / "log/log")) {
      if (file.is_regular_file() && file.path().extension() == ".log")
        last = std::max(last, file.path().string());
    }
    fs::resize_file(last, fs::file_size(last) - 1);
  }
  void stop_clean() {
    expect_equal_trees();
    stop();
    ASSERT_TRUE(saved().clean);
  }
};

TEST_F(TargetLogTest, entries_that_were_released_before_they_were_read_are_a_gap) {
  log_limit_ = 1 << 16;
  start();
  stop_clean();
  change_much();
  release_all();
  const LogPosition end = intake_->log().end();
  start();
  expect_equal_trees();
  EXPECT_TRUE(walks_since(end));
}

TEST_F(TargetLogTest, entries_that_are_released_under_a_reader_are_a_gap) {
  log_limit_ = 1 << 16;
  start();
  expect_equal_trees();
  ASSERT_TRUE(target_->pause().ok());
  change_much();
  release_all();
  const LogPosition end = intake_->log().end();
  ASSERT_TRUE(target_->resume().ok());
  expect_equal_trees();
  EXPECT_TRUE(walks_since(end));
}

/* What lies before the walk that is to come is no gap of its own. */
TEST_F(TargetLogTest, a_copy_may_begin_in_the_middle_of_a_write) {
  start();
  stop_clean();
  const std::string data(8192, 'd');
  const auto packets = write_data(next(), in_source("f"), 0, data);
  ASSERT_GT(packets.size(), 1u);
  feed(*intake_, packets[0]);
  TargetState state = saved();
  state.position = intake_->log().end();
  state.missing_since = kSinceEver;
  put_state(state);
  feed(*intake_, std::vector<Packet>(packets.begin() + 1, packets.end()));
  write_unseen("f", data);
  testing::internal::CaptureStderr();
  start();
  expect_equal_trees();
  EXPECT_EQ(testing::internal::GetCapturedStderr().find("GAP"), std::string::npos);
}

/* Times before the clock was set back tell nothing. */
TEST_F(TargetLogTest, released_entries_are_found_though_the_clock_was_set_back) {
  log_limit_ = 1 << 16;
  start();
  stop_clean();
  TargetState state = saved();
  state.until = now_us() + 3'600'000'000;
  put_state(state);
  change_much();
  release_all();
  start();
  expect_equal_trees();
}

/* A comparison may have copied a file's time from the source while its data was still to come. */
TEST_F(TargetLogTest, equal_times_tell_nothing_of_data_when_the_clock_was_set_back) {
  write_unseen("f", "what was copied");
  start();
  expect_equal_trees();
  stop_clean();
  close_log();
  const std::string file = dir_ / "log/received.json";
  auto document = read_document(file);
  ASSERT_TRUE(document.ok() && *document);
  (**document)["clock"]["wall"] = now_us() + 3'600'000'000;
  (**document)["clock"]["ahead"] =
      (**document)["clock"]["ahead"].get<std::int64_t>() + 3'600'000'000;
  ASSERT_TRUE(write_document(file, **document).ok());
  write_unseen("f", "what was missing");
  put_content(in_target("f"), "what was copied!");
  fs::last_write_time(in_target("f"), fs::last_write_time(in_source("f")));
  start();
  intake_->gap(Intake::Missing::kSinceLastRecord, "lost");
  expect_equal_trees();
}

TEST_F(TargetLogTest, a_claim_that_was_dropped_is_healed) {
  log_limit_ = 1 << 16;
  start();
  expect_equal_trees();
  ASSERT_TRUE(target_->pause().ok());
  change_much();
  target_->drop_claim();
  EXPECT_EQ(target_->needed(), std::numeric_limits<LogPosition>::max());
  release_all();
  ASSERT_TRUE(target_->resume().ok());
  expect_equal_trees();
  EXPECT_LE(target_->needed(), intake_->log().end());
}

TEST_F(TargetLogTest, another_log_is_a_gap) {
  start();
  stop_clean();
  write("f", "its record is lost with the log");
  close_log();
  fs::remove_all(dir_ / "log/log");
  start();
  expect_equal_trees();
  EXPECT_EQ(saved().log, to_string(intake_->log().epoch()));
}

TEST_F(TargetLogTest, a_log_that_lost_its_end_is_a_gap) {
  start();
  stop_clean();
  TargetState state = saved();
  state.position += 100;
  put_state(state);
  write_unseen("f", "its record was in the end");
  close_log();
  start();
  expect_equal_trees();
  EXPECT_TRUE(walks_since(1));
  stop();
  EXPECT_LE(saved().position, intake_->log().end());
}

/* The gap that the log declares has the position of an entry that the target has applied once. */
TEST_F(TargetLogTest, positions_that_are_given_again_are_read) {
  start();
  write("f", "1");
  stop_clean();
  close_log();
  cut_log();
  write_unseen("g", "its record was in the end");
  open_log();
  ASSERT_EQ(kinds_of(intake_->log()).back(), 'G');
  ASSERT_EQ(intake_->log().end(), saved().position);
  start();
  expect_equal_trees();
}

/* Nor when the process ends before the target is there. */
TEST_F(TargetLogTest, a_lost_end_is_remembered) {
  start();
  write("f", "1");
  stop_clean();
  close_log();
  cut_log();
  write_unseen("g", "its record was in the end");
  fs::rename(copy_, dir_ / "elsewhere");
  start();
  ASSERT_TRUE(becomes("away"));
  drop_target();
  close_log();
  fs::rename(dir_ / "elsewhere", copy_);
  start();
  expect_equal_trees();
}

/* A target that never reaches the end of the log gives its entries free all the same. */
TEST_F(TargetLogTest, the_position_is_saved_under_load_too) {
  log_limit_ = 1 << 28;
  start();
  expect_equal_trees();
  write("f", "x");
  const LogPosition busy = intake_->log().end();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (target_->needed() <= busy && std::chrono::steady_clock::now() < end) {
    while (intake_->log().end() < target_->report().position + 20'000) mark();
  }
  EXPECT_GT(target_->needed(), busy);
}

}  // namespace
}  // namespace tarn::test
