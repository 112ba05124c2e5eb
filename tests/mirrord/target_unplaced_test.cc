// SPDX-License-Identifier: GPL-2.0
// A target that learns of a change to a file whose name the module does not know.
#include <filesystem>

#include "mirrord/file_status.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/message_builder.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class TargetUnplacedTest : public TargetTest {
 protected:
  /* A write to some file that had this name once. */
  void feed_unplaced_write(const std::string &name) {
    Stamp stamp = next();
    stamp.cp = OX_CP_UNPLACED;
    feed(*intake_, write_data(stamp, in_source(name), 0, "x"));
  }
};

TEST_F(TargetUnplacedTest, the_file_is_looked_for_and_nothing_counts_as_lost) {
  fs::create_directory(in_source("d"));
  write_unseen("f", "old");
  write_unseen("d/g", "old");
  start();
  expect_equal_trees();
  write_unseen("d/g", "new");
  const LogPosition end = intake_->log().end();
  feed_unplaced_write("f");
  mark();
  ASSERT_TRUE(eventually([&] { return walks_since(end); }));
  EXPECT_EQ(target_->report().gaps, 0u);
  expect_equal_trees();
}

TEST_F(TargetUnplacedTest, a_name_outside_the_rule_is_watched_when_the_file_is_found) {
  lists_.exclude.push_back(in_source("out"));
  fs::create_directory(in_source("d"));
  fs::create_directory(in_source("out"));
  write_unseen("f", "old");
  write_unseen("d/g", "old");
  start();
  ASSERT_TRUE(equal());
  fs::create_hard_link(in_source("d/g"), in_source("out/g"));
  Stamp stamp = next();
  stamp.cp = OX_CP_UNPLACED;
  feed(*intake_, name_change(OX_OP_LINK, stamp, in_source("f"), in_source("out/g")));
  ASSERT_TRUE(equal());
  write_unseen("out/g", "changed by its other name");
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("d/g")), "changed by its other name");
  EXPECT_EQ(content_of(in_target("f")), "old");
}

/* Another walk follows the one that had come by the file already; the first one is not made anew.
 */
TEST_F(TargetUnplacedTest, a_walk_under_way_is_followed_by_another_one) {
  write_unseen("f", "old");
  start();
  expect_equal_trees();
  walker_->stop();
  const std::int64_t before = now_us();
  intake_->gap(Intake::Missing::kEverything, "lost");
  const std::uint64_t walk = intake_->log().end();
  const auto append = [&](EntryKind kind, const std::vector<std::byte> &payload) {
    ASSERT_TRUE(intake_->append(kind, payload));
  };
  append(EntryKind::kWalkBegin, encode(WalkBeginEntry{walk, kSinceEver, ""}));
  append(EntryKind::kLook, encode(LookEntry{walk, 0, ""}));
  const LogPosition looked = intake_->log().end();
  ASSERT_TRUE(eventually([&] { return target_->report().position >= looked; }));
  write_unseen("f", "new");
  feed_unplaced_write("g");
  append(EntryKind::kWalkEnd, encode(WalkEndEntry{walk, true}));
  mark();
  ASSERT_TRUE(becomes("healing")) << "not copying any more, and not equal yet";
  EXPECT_EQ(content_of(in_target("f")), "old");
  stop();
  ASSERT_TRUE(saved().missing_since.has_value());
  EXPECT_GE(*saved().missing_since, before);
  walker_.reset();
  intake_.reset();
  start();
  expect_equal_trees();
  EXPECT_EQ(content_of(in_target("f")), "new");
}

}  // namespace
}  // namespace tarn
