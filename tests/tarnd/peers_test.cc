// SPDX-License-Identifier: GPL-2.0
// Limits on the connections of unprivileged users and on warnings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/text.h"
#include "base/unique_fd.h"
#include "tarnd/channel/peer_count.h"
#include "tarnd/process/limited_warning.h"

namespace tarnd {
namespace {

TEST(PeerCount, one_user_has_a_few_connections) {
  PeerCount count;
  for (int i = 0; i < PeerCount::kMaxPerUser; i++) EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(1000));
  EXPECT_TRUE(count.enter(1001));
  count.leave(1000);
  EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(1000));
}

TEST(PeerCount, all_users_together_have_a_limit) {
  PeerCount count;
  for (int i = 0; i < PeerCount::kMaxTotal; i++)
    EXPECT_TRUE(count.enter(static_cast<uid_t>(2000 + i)));
  EXPECT_FALSE(count.enter(1000));
  count.leave(2000);
  EXPECT_TRUE(count.enter(1000));
  EXPECT_FALSE(count.enter(2000));
}

TEST(LimitedWarning, a_burst_is_printed_and_the_others_counted) {
  LimitedWarning warning;
  const auto start = LimitedWarning::Clock::now();
  for (int i = 0; i < LimitedWarning::kBurst; i++)
    EXPECT_EQ(warning.line("again", start), "tarnd: again\n");
  EXPECT_EQ(warning.line("again", start), "");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kInterval / 2), "");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kInterval),
            "tarnd: again (and 2 like it before)\n");
  EXPECT_EQ(warning.line("again", start + LimitedWarning::kInterval), "tarnd: again\n");
}

TEST(LimitedWarning, no_harm_is_done_when_standard_error_cannot_be_written) {
  const tarn::UniqueFd before(dup(STDERR_FILENO)), unwritable(open("/dev/null", O_RDONLY));
  ASSERT_EQ(dup2(unwritable.get(), STDERR_FILENO), STDERR_FILENO);
  LimitedWarning warning;
  EXPECT_NO_THROW(warning.print("again"));
  ASSERT_EQ(dup2(before.get(), STDERR_FILENO), STDERR_FILENO);
}

TEST(LimitedWarning, names_cannot_end_a_line_or_steer_a_terminal) {
  EXPECT_EQ(tarn::escape_controls("a\nb\x1b[2J\x7f\\ \xc3\xa4"),
            "a\\012b\\033[2J\\177\\\\ \xc3\xa4");
}

}  // namespace
}  // namespace tarnd
