// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/path_walk.h"

#include <gtest/gtest.h>

namespace tarnd {
namespace {

constexpr int kOne = 100, kOther = 101;
constexpr unsigned long kNow = 5, kNextTick = 6, kLater = 1000;

TEST(PathWalkTest, what_follows_a_lookup_of_the_same_thread_belongs_to_it) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, the_last_step_ends_it) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
}

TEST(PathWalkTest, any_other_request_ends_it) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kNone, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, another_threads_request_ends_it) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOther, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOther, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, a_later_tick_ends_it) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNextTick));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kLater));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kLater));
}

TEST(PathWalkTest, the_host_itself_walks_no_paths) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(0, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(0, Step::kLast, kNow));
}

}  // namespace
}  // namespace tarnd
