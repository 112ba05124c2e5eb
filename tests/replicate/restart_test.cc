// SPDX-License-Identifier: GPL-2.0
// A daemon that ends while a store keeps its channel, and the next one that goes on.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>

#include "client/daemon.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
using Milliseconds = DaemonChannel::Milliseconds;
using Numbers = std::vector<std::uint32_t>;

UniqueFd duplicate(int fd) {
  return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

// Keeps what it is given, like the manager, until it is told not to.
class Store : public ChannelStore {
 public:
  Former take() override {
    ++taken_;
    Former former;
    if (taken_ != 1) return former;
    if (lock_) former.lock = duplicate(lock_.get());
    for (const UniqueFd &channel : former_) former.channels.push_back(duplicate(channel.get()));
    return former;
  }
  bool has_former() const override { return taken_ == 0 && !former_.empty(); }
  void keep(int channel, int lock) override {
    channel_ = duplicate(channel);
    if (!lock_) lock_ = duplicate(lock);
  }
  bool keeps() const override { return true; }
  void drop_former() override {
    if (!forgetful_) former_.clear();
  }
  void clear() override {
    former_.clear();
    channel_.reset();
    lock_.reset();
    ++cleared_;
  }

  // As the next process finds it.
  void restart() {
    if (channel_) former_.push_back(std::move(channel_));
    taken_ = 0;
  }

  int cleared_ = 0;
  bool forgetful_ = false;  // is not told before the process ends

 private:
  int taken_ = 0;
  UniqueFd lock_, channel_;
  std::vector<UniqueFd> former_;
};

class RestartTest : public testing::Test {
 protected:
  std::unique_ptr<DaemonChannel> open() {
    store_.restart();
    auto channel = DaemonChannel::open(site_, Claim::kRefuseIfTaken, &store_);
    EXPECT_TRUE(channel.ok()) << channel.error().text;
    return channel.ok() ? std::move(*channel) : nullptr;
  }
  void send(std::uint32_t number) { fake_.send(name_change(OX_OP_UNLINK, {number}, "/d/f")); }
  // The numbers of `count` records, in the order in which they come.
  static Numbers receive(DaemonChannel &channel, std::size_t count) {
    Numbers numbers;
    while (numbers.size() < count) {
      const auto got = channel.receive(Milliseconds(60'000));
      if (!got || got->packets.empty()) break;
      for (const Bytes packet : got->packets) {
        const auto message = decode(packet);
        if (const auto *record = std::get_if<Record>(&*message)) numbers.push_back(record->wseq);
      }
    }
    return numbers;
  }

  TemporaryDirectory directory_;
  FakeTarnd fake_{directory_ / "run"};
  const Site site_ = tarnd_site(fake_.run_dir());
  Store store_;
};

TEST_F(RestartTest, what_nobody_has_read_comes_first) {
  auto first = open();
  EXPECT_FALSE(first->goes_on());
  send(1);
  EXPECT_EQ(receive(*first, 1), (Numbers{1}));
  first->pass_on();
  for (std::uint32_t n = 2; n <= 200; ++n) send(n);
  first.reset();
  send(201);
  const auto second = open();
  EXPECT_TRUE(second->goes_on());
  send(202);
  Numbers all(201);
  std::generate(all.begin(), all.end(), [n = 2u]() mutable { return n++; });
  EXPECT_EQ(receive(*second, all.size()), all);
  const auto received = fake_.with([](auto &state) { return state.received; });
  EXPECT_EQ(std::ranges::count(received, OX_NL_HELO), 2);
  EXPECT_EQ(std::ranges::count(received, OX_NL_QUIT), 0);
}

TEST_F(RestartTest, what_was_read_ahead_is_received_before_the_end) {
  auto first = open();
  for (std::uint32_t n = 1; n <= 100; ++n) send(n);
  EXPECT_EQ(*first->send_barrier(), 1u);
  // Its answer is behind all of them.
  while (first->receive(Milliseconds(60'000))->barriers < 1) {
  }
  for (std::uint32_t n = 101; n <= 200; ++n) send(n);
  first->pass_on();
  Numbers numbers;
  while (!first->all_received()) {
    const auto some = receive(*first, 1);
    numbers.insert(numbers.end(), some.begin(), some.end());
  }
  first.reset();
  const auto second = open();
  const auto rest = receive(*second, 100 - numbers.size());
  numbers.insert(numbers.end(), rest.begin(), rest.end());
  Numbers all(100);
  std::generate(all.begin(), all.end(), [n = 101u]() mutable { return n++; });
  EXPECT_EQ(numbers, all);
}

TEST_F(RestartTest, nobody_else_becomes_the_daemon_meanwhile) {
  auto first = open();
  first->pass_on();
  first.reset();
  const auto other = DaemonChannel::open(site_, Claim::kRefuseIfTaken);
  ASSERT_FALSE(other.ok());
  EXPECT_EQ(other.error().code, -EBUSY);
  EXPECT_TRUE(open()->goes_on());
  store_.clear();
  EXPECT_TRUE(DaemonChannel::open(site_, Claim::kRefuseIfTaken).ok());
}

TEST_F(RestartTest, who_took_over_on_purpose_ends_it) {
  auto first = open();
  first->pass_on();
  first.reset();
  DaemonChannel::open(site_, Claim::kTakeOver)->reset();
  const auto second = open();
  EXPECT_FALSE(second->goes_on());
  EXPECT_EQ(store_.cleared_, 1);
  send(1);
  EXPECT_EQ(receive(*second, 1), (Numbers{1}));
}

TEST_F(RestartTest, answers_to_the_former_process_are_not_ours) {
  auto first = open();
  first->pass_on();
  EXPECT_TRUE(first->send_barrier().ok());
  EXPECT_TRUE(first->send_barrier().ok());
  first.reset();
  const auto second = open();
  fake_.with([](auto &state) { state.answers = false; });
  EXPECT_TRUE(second->send_barrier().ok());
  send(1);
  EXPECT_EQ(receive(*second, 1), (Numbers{1}));
  EXPECT_EQ(second->receive(Milliseconds(0))->barriers, 0u);
}

// The second process ends before it has told that it has read the channel of the first.
TEST_F(RestartTest, channels_of_several_processes_are_read_in_order) {
  auto first = open();
  first->pass_on();
  send(1);
  first.reset();
  store_.forgetful_ = true;
  auto second = open();
  EXPECT_EQ(receive(*second, 1), (Numbers{1}));
  second->pass_on();
  send(2);
  second.reset();
  const auto third = open();
  EXPECT_TRUE(third->goes_on());
  send(3);
  EXPECT_EQ(receive(*third, 2), (Numbers{2, 3}));
}

TEST_F(RestartTest, of_a_tarnd_that_has_ended_the_rest_is_received) {
  auto first = open();
  first->pass_on();
  send(1);
  fake_.close_daemon_channel();
  first.reset();
  const auto second = open();
  EXPECT_EQ(receive(*second, 1), (Numbers{1}));
}

TEST_F(RestartTest, what_fails_keeps_nothing) {
  store_.restart();
  EXPECT_FALSE(
      DaemonChannel::open(tarnd_site(directory_ / "none"), Claim::kRefuseIfTaken, &store_).ok());
  EXPECT_EQ(store_.cleared_, 1);
}

}  // namespace
}  // namespace tarn
