// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/path_walk.h"

#include <gtest/gtest.h>

namespace tarnd {
namespace {

constexpr int kOne = 100, kOther = 101;
constexpr unsigned long kNow = 5, kNextTick = 6, kLater = 1000;

TEST(PathWalkTest, WhatFollowsALookupOfTheSameThreadBelongsToIt) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, TheLastStepEndsIt) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
}

TEST(PathWalkTest, AnyOtherRequestEndsIt) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kNone, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, AnotherThreadsRequestEndsIt) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOther, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOther, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNow));
}

TEST(PathWalkTest, ALaterTickEndsIt) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLast, kNextTick));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(kOne, Step::kLookup, kLater));
  EXPECT_TRUE(walk.take(kOne, Step::kLast, kLater));
}

TEST(PathWalkTest, TheHostItselfWalksNoPaths) {
  PathWalk walk;
  EXPECT_FALSE(walk.take(0, Step::kLookup, kNow));
  EXPECT_FALSE(walk.take(0, Step::kLast, kNow));
}

}  // namespace
}  // namespace tarnd
