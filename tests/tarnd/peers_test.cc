// SPDX-License-Identifier: GPL-2.0
// What anybody who connects may cost, and may have printed.
#include <gtest/gtest.h>

#include "base/text.h"
#include "tarnd/channel/peer_count.h"
#include "tarnd/process/limited_warning.h"

namespace tarnd {
namespace {

TEST(PeerCount, OneUserHasAFew) {
  PeerCount count;
  for (int i = 0; i < PeerCount::kMostOfOne; i++) EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(1000));
  EXPECT_TRUE(count.enter(1001));
  count.leave(1000);
  EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(1000));
}

TEST(PeerCount, AllTogetherHaveNotMoreThanThereMayBe) {
  PeerCount count;
  for (int i = 0; i < PeerCount::kMostOfAll; i++)
    EXPECT_TRUE(count.enter(static_cast<uid_t>(2000 + i)));
  EXPECT_FALSE(count.enter(1000));
  count.leave(2000);
  EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(2000));
}

TEST(LimitedWarning, AFewAreSaidAndTheOthersCounted) {
  LimitedWarning warning;
  const auto start = LimitedWarning::Clock::now();
  for (int i = 0; i < LimitedWarning::kAtOnce; i++)
    EXPECT_EQ(warning.line("again", start), "tarnd: again\n");
  EXPECT_EQ(warning.line("again", start), "");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kWhile / 2), "");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kWhile),
            "tarnd: again (and 2 like it before)\n");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kWhile), "tarnd: again\n");
}

TEST(LimitedWarning, NamesCannotEndALineOrSteerATerminal) {
  EXPECT_EQ(tarn::escape_controls("a\nb\x1b[2J\x7f\\ \xc3\xa4"),
            "a\\012b\\033[2J\\177\\\\ \xc3\xa4");
}

}  // namespace
}  // namespace tarnd
