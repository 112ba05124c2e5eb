// SPDX-License-Identifier: GPL-2.0
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <csignal>

#include "client/loss_signal.h"
#include "client/signal_pipe.h"

namespace tarn {
namespace {

bool readable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(SignalPipe, signals_come_out_one_by_one) {
  const auto signals = SignalPipe::open({SIGTERM, SIGUSR1});
  ASSERT_TRUE(signals.ok());
  EXPECT_FALSE(readable((*signals)->fd()));
  EXPECT_EQ((*signals)->take(), 0);
  raise(SIGUSR1);
  raise(SIGTERM);
  raise(SIGUSR1);
  EXPECT_TRUE(readable((*signals)->fd()));
  EXPECT_EQ((*signals)->take(), SIGTERM);
  EXPECT_EQ((*signals)->take(), SIGUSR1);
  EXPECT_TRUE(readable((*signals)->fd()));
  EXPECT_EQ((*signals)->take(), SIGUSR1);
  EXPECT_FALSE(readable((*signals)->fd()));
  EXPECT_EQ((*signals)->take(), 0);
}

TEST(SignalPipe, none_is_lost_to_a_full_pipe) {
  const auto signals = SignalPipe::open({SIGUSR1});
  constexpr std::uint64_t kMany = 100000;
  for (std::uint64_t i = 0; i < kMany; ++i) raise(SIGUSR1);
  EXPECT_EQ((*signals)->take_all(), kMany);
  EXPECT_FALSE(readable((*signals)->fd()));
  raise(SIGUSR1);
  EXPECT_EQ((*signals)->take_all(), 1u);
}

TEST(SignalPipe, what_the_signals_did_comes_back) {
  ASSERT_NE(std::signal(SIGUSR2, SIG_IGN), SIG_ERR);
  {
    const auto signals = SignalPipe::open({SIGUSR2});
    ASSERT_TRUE(signals.ok());
    EXPECT_EQ(SignalPipe::open({SIGUSR1, SIGUSR2}).error().code, -EBUSY);
    struct sigaction now;
    sigaction(SIGUSR1, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL) << "one that cannot have all takes none";
    EXPECT_TRUE(SignalPipe::open({SIGUSR1}).ok());
  }
  EXPECT_EQ(std::signal(SIGUSR2, SIG_DFL), SIG_IGN);
}

TEST(LossSignal, one_per_process) {
  auto first = LossSignal::install();
  ASSERT_TRUE(first.ok());
  EXPECT_EQ(LossSignal::install().error().code, -EBUSY);
  first->reset();
  EXPECT_TRUE(LossSignal::install().ok());
}

}  // namespace
}  // namespace tarn
