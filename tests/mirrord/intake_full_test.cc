// SPDX-License-Identifier: GPL-2.0
// The log has no room: what was lost is declared before anything else, also by the next process.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "mirrord/file_status.h"
#include "tests/mirrord/service_kit.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr std::uint64_t kLimit = 16384;

class IntakeFullTest : public testing::Test {
 protected:
  Packet next() { return created(++number_, "/s/" + std::string(200, 'f')); }
  /* Gives it records until neither they nor a gap, which is smaller, find room. */
  void fill(Intake &intake) {
    for (LogPosition end = 0; end != intake.log().end() && number_ < 10'000;) {
      end = intake.log().end();
      feed(intake, next());
    }
    feed(intake, next());
    ASSERT_FALSE(intake.marked());
    kept_ = 0;
    gaps_ = 0;
    for (const LoggedEntry &entry : entries_of(intake.log())) {
      gaps_ += entry.kind == EntryKind::kGap;
      if (entry.kind == EntryKind::kRecord) kept_ = std::get<Record>(*decode(entry.bytes())).wseq;
    }
    ASSERT_EQ(intake.counts().gaps, gaps_ + 1) << "one waits";
  }
  /* While a gap waits, whatever follows would seem to be complete. */
  void expect_nothing_more(Intake &intake, LogPosition end) {
    feed(intake, next());
    EXPECT_FALSE(intake.mark({1, 1}));
    const auto end_entry = encode(WalkEndEntry{1, true});
    EXPECT_FALSE(intake.append(EntryKind::kWalkEnd, {end_entry.data(), end_entry.size()}).ok());
    EXPECT_EQ(intake.log().end(), end);
    EXPECT_FALSE(intake.marked());
  }

  TemporaryDirectory dir_;
  const std::string at_ = dir_ / "s";
  std::uint32_t number_ = 0;
  std::uint32_t kept_ = 0; /* the last record in the log */
  std::uint64_t gaps_ = 0; /* in the log */
};

TEST_F(IntakeFullTest, the_gap_comes_before_all_else_when_there_is_room) {
  const auto intake = open_intake(at_, kLimit);
  bool room = false;
  int asked = 0;
  intake->set_make_room([&] {
    ++asked;
    if (!room) return false;
    const LogPosition first = intake->log().first();
    EXPECT_TRUE(intake->log().release(intake->log().end()).ok());
    return intake->log().first() != first;
  });
  fill(*intake);
  EXPECT_GT(asked, 0);
  const LogPosition end = intake->log().end();
  expect_nothing_more(*intake, end);
  room = true;
  const auto captured = intake->counts().captured;
  const Packet after = next();
  feed(*intake, after);
  const auto entries = entries_of(intake->log());
  const auto at = [&](LogPosition position) {
    for (const auto &entry : entries)
      if (entry.position == position) return entry;
    ADD_FAILURE() << "entry " << position << " is not there";
    return LoggedEntry{};
  };
  ASSERT_EQ(at(end).kind, EntryKind::kGap);
  EXPECT_EQ(at(end + 1).payload, after);
  EXPECT_GT(intake->counts().captured, captured);
  EXPECT_EQ(intake->counts().gaps, gaps_ + 1) << "one hole is one gap";
}

TEST_F(IntakeFullTest, nothing_smaller_passes_a_gap_that_waits) {
  const auto intake = open_intake(at_, kLimit);
  while (intake->log().bytes() + 2500 < kLimit) feed(*intake, next());
  EXPECT_EQ(intake->counts().gaps, 0u);
  intake->gap(Intake::Missing::kEverything, std::string(3000, 'r'));
  expect_nothing_more(*intake, intake->log().end());
  EXPECT_EQ(kinds_of(intake->log()).find_first_not_of('R'), std::string::npos);
}

/* Nothing else has to come for it. */
TEST_F(IntakeFullTest, the_gap_does_not_wait_for_another_record) {
  const auto intake = open_intake(at_, kLimit);
  fill(*intake);
  const LogPosition end = intake->log().end();
  ASSERT_TRUE(intake->log().release(end).ok());
  EXPECT_TRUE(eventually([&] { return intake->log().end() == end + 1; }));
  EXPECT_EQ(kinds_of(intake->log()).back(), 'G');
  EXPECT_FALSE(intake->marked());
}

/* The hole in the numbers tells the next process: the lost records are not counted as received. */
TEST_F(IntakeFullTest, lost_records_are_not_received) {
  auto intake = open_intake(at_, kLimit);
  fill(*intake);
  EXPECT_LT(kept_, number_);
  EXPECT_EQ(intake->received()->last, kept_);
  copy_directory(at_, dir_ / "killed");
  EXPECT_EQ(open_intake(dir_ / "killed", 1 << 20)->received()->last, kept_);
  intake.reset();
  EXPECT_EQ(open_intake(at_, 1 << 20)->received()->last, kept_);
}

/* A gap that no number tells of, as when the module has stopped capturing. */
TEST_F(IntakeFullTest, a_gap_outlives_the_process_that_could_not_log_it) {
  auto intake = open_intake(at_, kLimit);
  fill(*intake);
  intake->gap(Intake::Missing::kEverything, "the module has stopped");
  ASSERT_TRUE(intake->save().ok());
  copy_directory(at_, dir_ / "killed");
  intake.reset();
  for (const std::string &directory : {dir_ / "killed", at_}) {
    const auto again = open_intake(directory, 1 << 20);
    EXPECT_EQ(kinds_of(again->log()).back(), 'G') << directory;
    EXPECT_EQ(last_gap_of(again->log()).since, kSinceEver) << directory;
    EXPECT_EQ(again->counts().gaps, gaps_ + 1) << directory;
  }
  EXPECT_EQ(open_intake(at_, 1 << 20)->counts().gaps, gaps_ + 1) << "it is declared once";
}

TEST_F(IntakeFullTest, a_full_disk_is_a_gap_and_not_an_end) {
  if (geteuid() != 0) GTEST_SKIP() << "mounts";
  fs::create_directory(at_);
  if (mount("tmpfs", at_.c_str(), "tmpfs", 0, "size=256k") != 0) GTEST_SKIP() << "mounts";
  {
    const auto intake = open_intake(at_);
    feed(*intake, next());
    {
      std::ofstream ballast(at_ + "/ballast");
      for (int i = 0; i < 300 && ballast.flush(); ++i) ballast << std::string(1024, 'x');
    }
    fill(*intake);
    const LogPosition end = intake->log().end();
    feed(*intake, next());
    EXPECT_EQ(intake->log().end(), end);
    fs::remove(at_ + "/ballast");
    feed(*intake, next());
    EXPECT_TRUE(kinds_of(intake->log()).ends_with("GR")) << kinds_of(intake->log());
    EXPECT_EQ(intake->received()->last, number_);
    EXPECT_TRUE(intake->save().ok());
  }
  EXPECT_EQ(open_intake(at_)->counts().gaps, gaps_ + 1);
  umount2(at_.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace tarn
