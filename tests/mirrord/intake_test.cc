// SPDX-License-Identifier: GPL-2.0
// The intake of a source: what is in the log after everything, and that no loss is silent.
#include "mirrord/service/intake.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "mirrord/config/state_directory.h"
#include "mirrord/file_status.h"
#include "tests/mirrord/service_kit.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

std::string read_file_bytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void put_file_bytes(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class IntakeTest : public testing::Test {
 protected:
  std::unique_ptr<Intake> reopened(std::unique_ptr<Intake> intake) {
    intake.reset();
    return open_intake(at_);
  }
  /* As it is after kill -9: only what is in files now. */
  std::unique_ptr<Intake> after_kill(const std::string &name) {
    copy_directory(at_, dir_ / name);
    return open_intake(dir_ / name);
  }
  nlohmann::json document() const { return **read_document(document_); }
  static Packet record(std::uint32_t number, std::uint32_t generation = 7) {
    return created(number, "/s/f" + std::to_string(number), generation);
  }
  static Packet record_of(std::uint32_t number, std::uint64_t ts) {
    return name_change(OX_OP_CREATE, {number, rule_uuid(), ts, OX_CP_NAMED, 7}, "/s/f", {}, 0644);
  }
  static void expect_received(const Intake &intake, std::uint32_t generation, std::uint32_t last) {
    const auto position = intake.received();
    ASSERT_TRUE(position.has_value());
    EXPECT_EQ(position->generation, generation);
    EXPECT_EQ(position->last, last);
  }

  TemporaryDirectory dir_;
  const std::string at_ = dir_ / "s";
  const std::string document_ = at_ + "/received.json";
};

TEST_F(IntakeTest, keeps_records_gaps_and_marks_in_their_order) {
  const auto intake = open_intake(at_);
  EXPECT_FALSE(intake->received().has_value());
  EXPECT_TRUE(intake->marked());
  const Packet first = record(1);
  feed(*intake, first);
  EXPECT_FALSE(intake->marked());
  EXPECT_TRUE(intake->mark({40, 50}));
  EXPECT_TRUE(intake->marked());
  intake->gap(Intake::Missing::kEverything, "because");
  EXPECT_FALSE(intake->marked());
  feed(*intake, record(2));
  EXPECT_EQ(kinds_of(intake->log()), "RMGR");
  const auto entries = entries_of(intake->log());
  EXPECT_EQ(entries[0].payload, first);
  EXPECT_EQ(*decode_mark(entries[1].bytes()), (MarkEntry{40, 50}));
  EXPECT_EQ(*decode_gap(entries[2].bytes()), (GapEntry{kSinceEver, "because"}));
  EXPECT_EQ(intake->last_mark(), 40u);
  expect_received(*intake, 7, 2);
  EXPECT_EQ(intake->counts().captured, 2u);
  EXPECT_EQ(intake->counts().logged, 2u);
  EXPECT_EQ(intake->counts().gaps, 1u);
  EXPECT_EQ(intake->counts().last_gap, "because");
}

/* A write whose last page is missing has not been received. */
TEST_F(IntakeTest, a_write_is_received_with_its_last_page) {
  const auto intake = open_intake(at_);
  feed(*intake, record(1));
  const auto pages = write_data({2, rule_uuid(), kTime, OX_CP_NAMED, 7}, "/s/f1", 0,
                                std::string(3 * OX_PAGE_DATA, 'x'));
  ASSERT_GT(pages.size(), 1u);
  for (const Packet &page : pages) {
    expect_received(*intake, 7, 1);
    feed(*intake, page);
  }
  expect_received(*intake, 7, 2);
}

TEST_F(IntakeTest, goes_on_where_it_was) {
  auto intake = open_intake(at_);
  const Uuid rule = intake->rule();
  feed(*intake, {record(1), record(2, 9)});
  put_mark(*intake);
  intake->gap(Intake::Missing::kSinceLastRecord, "why");
  const auto epoch = intake->log().epoch();
  for (int i = 0; i < 2; ++i) {
    intake = reopened(std::move(intake));
    EXPECT_EQ(intake->rule(), rule);
    EXPECT_EQ(intake->log().epoch(), epoch);
    expect_received(*intake, 9, 2);
    EXPECT_EQ(intake->counts().logged, 2u);
    EXPECT_EQ(intake->counts().captured, 2u);
    EXPECT_EQ(intake->counts().gaps, 1u);
    EXPECT_EQ(intake->counts().last_gap, "why");
    EXPECT_EQ(intake->last_mark(), 1u);
    EXPECT_EQ(kinds_of(intake->log()), "RRMG");
  }
}

/* The first save is made by open(): a rule that only the module knows is never deleted. */
TEST_F(IntakeTest, keeps_its_rule_from_the_first_moment) {
  const auto intake = open_intake(at_);
  EXPECT_EQ(after_kill("killed")->rule(), intake->rule());
}

TEST_F(IntakeTest, a_document_that_is_older_than_the_log_is_read_on) {
  auto intake = open_intake(at_);
  feed(*intake, record(1));
  put_mark(*intake);
  ASSERT_TRUE(intake->save().ok());
  fs::copy(document_, dir_ / "old");
  feed(*intake, {record(2), record(3)});
  intake->gap(Intake::Missing::kEverything, "later");
  EXPECT_TRUE(intake->mark({77, 1}));
  feed(*intake, record(4));
  intake.reset();
  fs::copy(dir_ / "old", document_, fs::copy_options::overwrite_existing);
  intake = open_intake(at_);
  expect_received(*intake, 7, 4);
  EXPECT_EQ(intake->counts().logged, 4u);
  EXPECT_EQ(intake->counts().gaps, 1u);
  EXPECT_EQ(intake->counts().last_gap, "later");
  EXPECT_EQ(intake->last_mark(), 77u);
  EXPECT_FALSE(intake->marked());
}

/* Until a mark comes, what follows the last one is in doubt: for the next process too. */
TEST_F(IntakeTest, what_no_mark_covers_is_known_after_a_kill) {
  const auto intake = open_intake(at_);
  feed(*intake, record(1));
  ASSERT_TRUE(intake->save().ok());
  EXPECT_FALSE(after_kill("unmarked")->marked());
  put_mark(*intake);
  ASSERT_TRUE(intake->save().ok());
  EXPECT_TRUE(after_kill("marked")->marked());
}

TEST_F(IntakeTest, a_document_that_is_lost_is_made_from_the_log) {
  auto intake = open_intake(at_);
  feed(*intake, {record(1), record(2)});
  EXPECT_TRUE(intake->mark({9, 1}));
  intake.reset();
  fs::remove(document_);
  intake = open_intake(at_);
  expect_received(*intake, 7, 2);
  EXPECT_EQ(intake->counts().logged, 2u);
  EXPECT_EQ(intake->last_mark(), 9u);
  EXPECT_NE(intake->rule(), Uuid{});
}

TEST_F(IntakeTest, a_damaged_document_is_refused_and_says_what_to_do) {
  open_intake(at_).reset();
  const nlohmann::json good = document();
  std::ofstream(document_, std::ios::app) << "x";
  auto opened = Intake::open({.name = "s", .directory = at_, .log_limit = 1 << 20});
  ASSERT_FALSE(opened.ok());
  EXPECT_EQ(opened.error().code, -EBADMSG);
  EXPECT_NE(opened.error().text.find(document_), std::string::npos) << opened.error().text;
  for (const auto &[field, value] : good.items()) {
    nlohmann::json bad = good;
    bad[field] = nlohmann::json::array();
    ASSERT_TRUE(write_document(document_, bad).ok());
    opened = Intake::open({.name = "s", .directory = at_, .log_limit = 1 << 20});
    ASSERT_FALSE(opened.ok()) << field;
    EXPECT_EQ(opened.error().code, -EBADMSG) << field;
    EXPECT_NE(opened.error().text.find("remove the file"), std::string::npos);
  }
}

/* Positions and numbers are those of the log that is gone; the rule stays. */
TEST_F(IntakeTest, a_log_that_was_removed_begins_anew) {
  auto intake = open_intake(at_);
  feed(*intake, {record(1), record(2)});
  EXPECT_TRUE(intake->mark({9, 1}));
  const Uuid rule = intake->rule(), epoch = intake->log().epoch();
  intake.reset();
  fs::remove_all(at_ + "/log");
  intake = open_intake(at_);
  EXPECT_NE(intake->log().epoch(), epoch);
  EXPECT_EQ(intake->rule(), rule);
  EXPECT_FALSE(intake->received().has_value());
  EXPECT_EQ(intake->counts().logged, 0u);
  EXPECT_EQ(intake->last_mark(), 9u) << "numbers of marks only grow";
}

/* Somebody has put an older log in the place, or removed its last file. */
TEST_F(IntakeTest, a_log_that_has_lost_its_end_is_a_gap) {
  auto intake = open_intake(at_);
  feed(*intake, record(1));
  ASSERT_TRUE(intake->save().ok());
  copy_directory(at_ + "/log", dir_ / "old");
  feed(*intake, {record(2), record(3)});
  intake.reset();
  fs::remove_all(at_ + "/log");
  fs::rename(dir_ / "old", at_ + "/log");
  intake = open_intake(at_);
  EXPECT_EQ(kinds_of(intake->log()), "RG");
  EXPECT_EQ(last_gap_of(intake->log()).since, kSinceEver);
}

TEST_F(IntakeTest, damage_in_the_log_is_a_gap_since_ever) {
  auto intake = open_intake(at_);
  for (std::uint32_t n = 1; n <= 20; ++n) feed(*intake, record(n));
  intake.reset();
  for (const auto &file : fs::directory_iterator(at_ + "/log")) {
    if (!file.is_regular_file() || file.file_size() < 1000) continue;
    std::fstream segment(file.path(), std::ios::in | std::ios::out | std::ios::binary);
    segment.seekp(static_cast<std::streamoff>(file.file_size() / 2));
    segment << "damaged";
  }
  intake = open_intake(at_);
  EXPECT_EQ(kinds_of(intake->log()).back(), 'G');
  EXPECT_EQ(last_gap_of(intake->log()).since, kSinceEver);
  expect_received(*intake, 7, 20);
}

TEST_F(IntakeTest, a_gap_is_since_the_last_record_unless_the_clock_was_set) {
  const auto intake = open_intake(at_);
  intake->gap(Intake::Missing::kSinceLastRecord, "no record yet");
  EXPECT_EQ(last_gap_of(intake->log()).since, kSinceEver);
  const auto now = static_cast<std::uint64_t>(now_us());
  feed(*intake, record_of(1, now - 5'000'000));
  intake->gap(Intake::Missing::kSinceLastRecord, "usual");
  EXPECT_EQ(last_gap_of(intake->log()).since, static_cast<std::int64_t>(now - 65'000'000))
      << "with time for records that come late";
  // The clock was set back: the last record is from the future.
  feed(*intake, record_of(2, now + 3'600'000'000));
  intake->gap(Intake::Missing::kSinceLastRecord, "set back");
  EXPECT_EQ(last_gap_of(intake->log()).since, kSinceEver);
}

/* Whatever a power cut has left of the log, and however old the document beside it is: the intake
 * declares a gap, or goes on behind the last record that is left, so that the numbers tell. */
TEST_F(IntakeTest, a_log_that_is_cut_at_any_byte_is_a_gap_or_told_by_the_numbers) {
  const std::string memory = "/dev/shm/tarn-intake-" + std::to_string(getpid());
  const std::string at = memory + "/s", segment = at + "/log/00000000000000000001.log";
  fs::remove_all(memory);
  std::vector<std::string> documents;
  std::string whole;
  {
    const auto intake = open_intake(at);
    for (std::uint32_t number = 1; number <= 4; ++number) {
      feed(*intake, record(number));
      ASSERT_TRUE(intake->save().ok());
      if (number != 3) documents.push_back(read_file_bytes(at + "/received.json"));
    }
    whole = read_file_bytes(segment);
  }
  ASSERT_GT(whole.size(), 400u);
  for (const std::string &document : documents) {
    for (std::size_t size = 48; size <= whole.size(); ++size) {
      SCOPED_TRACE(size);
      put_file_bytes(segment, whole.substr(0, size));
      put_file_bytes(at + "/received.json", document);
      const auto intake = open_intake(at);
      ASSERT_TRUE(intake);
      const std::string kinds = kinds_of(intake->log());
      const auto left = static_cast<std::uint32_t>(std::count(kinds.begin(), kinds.end(), 'R'));
      const bool gap = kinds.find('G') != std::string::npos;
      const auto position = intake->received();
      const bool told = position ? position->last == left : left == 0;
      ASSERT_TRUE(gap || told) << kinds << ", received up to " << (position ? position->last : 0);
      ASSERT_TRUE(!gap || kinds.back() == 'G') << kinds;
    }
  }
  fs::remove_all(memory);
}

TEST_F(IntakeTest, another_rule_s_text_is_a_gap_since_ever) {
  fs::create_directories(at_);
  const auto opened = [this](const std::string &text) {
    auto intake =
        Intake::open({.name = "s", .directory = at_, .log_limit = 1 << 20, .rule_text = text});
    EXPECT_TRUE(intake.ok());
    return std::move(*intake);
  };
  (void)opened("one");
  EXPECT_EQ(kinds_of(opened("one")->log()), "");
  EXPECT_EQ(kinds_of(opened("two")->log()), "G");
  const auto last = opened("two");
  EXPECT_EQ(kinds_of(last->log()), "G");
  EXPECT_EQ(last_gap_of(last->log()).since, kSinceEver);
}

}  // namespace
}  // namespace tarn
