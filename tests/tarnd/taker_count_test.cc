// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/taker_count.h"

#include <gtest/gtest.h>

namespace tarnd {
namespace {

constexpr int kLooks = TakerCount::kLooks;

TakerCount::Look look(int serving, int free, bool waiting, int slow = 0) {
  return {.serving = serving, .able = serving + free - slow, .free = free, .waiting = waiting};
}

// As many looks as are judged together, `held_up` of them with a request that waits while all who
// are wanted have one.
void judge(TakerCount &count, int held_up) {
  for (int i = 0; i < kLooks; i++) count.saw(look(count.wanted(), 0, i < held_up));
}

// The same, `needed` of them with everybody at work, the others with one that has nothing to do.
void judge_spare(TakerCount &count, int needed) {
  const int wanted = count.wanted();
  for (int i = 0; i < kLooks; i++)
    count.saw(i < needed ? look(wanted, 0, false) : look(wanted - 1, 1, false));
}

int times_until_lowered(TakerCount &count) {
  const int before = count.wanted();
  int times = 0;
  for (; count.wanted() == before && times < 10 * TakerCount::kMaxPatience; times++)
    judge_spare(count, 0);
  return times;
}

TEST(TakerCount, OneServesWhoeverWaitsForEachAnswer) {
  TakerCount count(4);
  EXPECT_EQ(count.wanted(), 1);
  for (int i = 0; i < 100; i++) {
    count.saw(look(1, 0, false));
    count.saw(look(0, 1, true));
    count.saw(look(0, 1, false));
  }
  EXPECT_EQ(count.wanted(), 1);
}

TEST(TakerCount, ItGrowsOneByOneWhileRequestsWaitAtHalfOfTheLooks) {
  TakerCount count(4);
  for (int wanted = 2; wanted <= 4; wanted++) {
    judge(count, kLooks / 2 - 1);
    EXPECT_EQ(count.wanted(), wanted - 1);
    judge(count, kLooks / 2);
    EXPECT_EQ(count.wanted(), wanted);
  }
  judge(count, kLooks);
  EXPECT_EQ(count.wanted(), 4);
}

TEST(TakerCount, ARequestThatAFreeWorkerIsAboutToTakeIsNotHeldUp) {
  TakerCount count(4);
  for (int i = 0; i < 4 * kLooks; i++) count.saw(look(1, 1, true));
  EXPECT_EQ(count.wanted(), 1);
}

TEST(TakerCount, ItIsLoweredWhenFewerDoAtNearlyAllLooks) {
  TakerCount count(4);
  judge(count, kLooks);
  for (int i = 0; i < 10; i++) judge_spare(count, kLooks / 8 + 1);
  EXPECT_EQ(count.wanted(), 2);
  for (int i = 0; i < 10; i++) judge_spare(count, kLooks / 8);
  EXPECT_EQ(count.wanted(), 1);
}

TEST(TakerCount, WhatWaitsNeedsAWorkerToo) {
  TakerCount count(4);
  judge(count, kLooks);
  for (int i = 0; i < 10 * kLooks; i++) count.saw(look(1, 1, true));
  EXPECT_EQ(count.wanted(), 2);
}

TEST(TakerCount, AfterALullTheOtherOnesGoAtOnce) {
  TakerCount count(4);
  for (int i = 0; i < 3; i++) judge(count, kLooks);
  ASSERT_EQ(count.wanted(), 4);
  EXPECT_GT(times_until_lowered(count), 1);
  EXPECT_EQ(times_until_lowered(count), 1);
  EXPECT_EQ(times_until_lowered(count), 1);
  EXPECT_EQ(count.wanted(), 1);
}

TEST(TakerCount, EachTimeThatItWasLoweredTooSoonItIsKeptTwiceAsLong) {
  TakerCount count(2);
  for (int times = 2; times <= TakerCount::kMaxPatience; times *= 2) {
    judge(count, kLooks);
    EXPECT_EQ(times_until_lowered(count), times);
  }
  judge(count, kLooks);
  EXPECT_EQ(times_until_lowered(count), TakerCount::kMaxPatience);
}

TEST(TakerCount, WhileOneIsEnoughThatIsForgotten) {
  TakerCount count(2);
  for (int i = 0; i < 5; i++) {
    judge(count, kLooks);
    times_until_lowered(count);
  }
  for (int i = 0; i < 10; i++) judge(count, 0);
  judge(count, kLooks);
  EXPECT_EQ(times_until_lowered(count), 2);
}

TEST(TakerCount, TheFirstRequestBehindASlowOneAddsAWorker) {
  TakerCount count(4);
  count.saw(look(1, 0, false, 1));
  EXPECT_EQ(count.wanted(), 1);
  count.saw(look(1, 0, true, 1));
  EXPECT_EQ(count.wanted(), 2);
  count.saw(look(2, 0, true, 2));
  EXPECT_EQ(count.wanted(), 3);
}

TEST(TakerCount, OneProcessorHasASecondForSlowRequestsAlone) {
  TakerCount count(1);
  for (int i = 0; i < 10; i++) judge(count, kLooks);
  EXPECT_EQ(count.wanted(), 1);
  count.saw(look(1, 0, true, 1));
  EXPECT_EQ(count.wanted(), 2);
  count.saw(look(2, 0, true, 2));
  EXPECT_EQ(count.wanted(), 2);
  EXPECT_EQ(times_until_lowered(count), 2);
}

TEST(TakerCount, NobodyIsTooManyWhileARequestIsSlow) {
  TakerCount count(4);
  judge(count, kLooks);
  for (int i = 0; i < 10 * kLooks; i++) count.saw(look(1, 2, false, 1));
  EXPECT_EQ(count.wanted(), 2);
}

}  // namespace
}  // namespace tarnd
