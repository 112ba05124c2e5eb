// SPDX-License-Identifier: GPL-2.0
// The daemon's channel: hello and quit, loss, barriers, who may register.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "client/daemon.h"
#include "module/os_public/Include/ox_ctl.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
using Types = std::vector<std::uint16_t>;
using Milliseconds = DaemonChannel::Milliseconds;

class ChannelTest : public testing::Test {
 protected:
  std::unique_ptr<DaemonChannel> open(Claim claim = Claim::kRefuseIfTaken) {
    auto channel = DaemonChannel::open(tarnd_site(fake_.run_dir()), claim);
    EXPECT_TRUE(channel.ok()) << channel.error().text;
    return channel.ok() ? std::move(*channel) : nullptr;
  }
  Types received() {
    return fake_.with([](auto &state) { return state.received; });
  }

  TemporaryDirectory directory_;
  FakeTarnd fake_{directory_ / "run"};
};

TEST_F(ChannelTest, hello_is_confirmed_and_quit_is_said) {
  {
    const auto channel = open();
    EXPECT_EQ(received(), (Types{OX_NL_HELO, OX_SO_REP_DEL}));
    EXPECT_EQ(*registered_daemon(tarnd_site(fake_.run_dir())), getpid());
    EXPECT_TRUE(channel->leave().ok());
  }
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() == 3; }));
  EXPECT_EQ(received().back(), OX_NL_QUIT);
  EXPECT_FALSE(*registered_daemon(tarnd_site(fake_.run_dir())));
}

TEST_F(ChannelTest, the_destructor_leaves_too) {
  open().reset();
  EXPECT_TRUE(
      fake_.wait_for([](const auto &state) { return state.received.back() == OX_NL_QUIT; }));
}

TEST_F(ChannelTest, without_confirmation_it_fails) {
  fake_.with([](auto &state) { state.answers = false; });
  auto link = connect_unix_link(fake_.run_dir());
  auto lock = DaemonLock::take(tarnd_site(fake_.run_dir()), Claim::kRefuseIfTaken);
  const auto channel = DaemonChannel::open(std::move(*link), std::move(*lock), Milliseconds(50));
  ASSERT_FALSE(channel.ok());
  EXPECT_EQ(channel.error().code, -EPERM);
}

TEST_F(ChannelTest, messages_arrive_whole_and_in_order) {
  const auto channel = open();
  // More than the socket holds, so the sender waits for the receiver now and then.
  std::thread sender([&] {
    for (std::uint32_t n = 1; n <= 300; ++n) fake_.send(name_change(OX_OP_UNLINK, {n}, "/d/f"));
  });
  std::uint32_t next = 1;
  while (next <= 300) {
    const auto got = channel->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    ASSERT_FALSE(got->packets.empty());
    for (const Bytes packet : got->packets)
      EXPECT_EQ(std::get<Record>(*decode(packet)).wseq, next++);
  }
  sender.join();
}

TEST_F(ChannelTest, the_hello_asks_for_packets_of_several_messages) {
  const auto channel = open();
  EXPECT_EQ(fake_.with([](auto &state) { return state.hello_flags; }), OX_CTL_HELO_BATCHED);
}

TEST_F(ChannelTest, messages_of_one_packet_are_told_apart) {
  const auto channel = open();
  // Lengths that are and are not multiples of 4, of changes and of something else.
  const std::vector<Packet> messages = {
      name_change(OX_OP_UNLINK, {1}, "/d/f"), name_change(OX_OP_UNLINK, {2}, "/d/fi"),
      message(OX_OP_STOP_RULE, Packet(OX_UUID_LEN)),
      name_change(OX_OP_RENAME, {3}, "/d/fil", "/d/" + std::string(3000, 'x'))};
  Packet together;
  for (const Packet &one : messages) together.insert(together.end(), one.begin(), one.end());
  fake_.send(together);
  const auto got = channel->receive(Milliseconds(60'000));
  ASSERT_TRUE(got.ok());
  ASSERT_EQ(got->packets.size(), messages.size());
  for (std::size_t i = 0; i < messages.size(); ++i)
    EXPECT_TRUE(std::ranges::equal(got->packets[i], messages[i])) << i;
}

// Whatever a length says, nothing outside the packet is looked at, and what cannot be told apart is
// one packet that the decoder refuses.
TEST_F(ChannelTest, a_length_that_cannot_be_ends_the_packet) {
  const auto channel = open();
  const Packet good = name_change(OX_OP_UNLINK, {1}, "/d/f");
  for (const std::uint32_t length : {0u, 15u, 1000u, 0xffffffffu}) {
    Packet packet = good;
    packet.insert(packet.end(), good.begin(), good.end());
    std::memcpy(packet.data() + good.size(), &length, sizeof(length));
    packet.insert(packet.end(), good.begin(), good.end());
    fake_.send(packet);
    const auto got = channel->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    ASSERT_EQ(got->packets.size(), 2u) << length;
    EXPECT_TRUE(decode(got->packets[0]).ok());
    EXPECT_EQ(got->packets[1].size(), 2 * good.size());
    EXPECT_FALSE(decode(got->packets[1]).ok());
  }
  fake_.send(Packet(7));
  EXPECT_EQ(channel->receive(Milliseconds(60'000))->packets[0].size(), 7u);
}

TEST_F(ChannelTest, nothing_is_lost_while_a_request_waits) {
  const auto channel = open();
  fake_.send(name_change(OX_OP_UNLINK, {1}, "/d/f"));
  prule record{};
  record.uuid[0] = 7;
  EXPECT_EQ(*channel->request(OX_SO_REP_ADD, std::as_bytes(std::span(&record, 1))), 0);
  EXPECT_EQ(*channel->request(OX_SO_REP_ADD, std::as_bytes(std::span(&record, 1))), OX_ERR_EXIST);
  EXPECT_EQ(*channel->request(OX_SO_REP_FLUSH, {}), 0);
  const auto got = channel->receive(Milliseconds(0));
  ASSERT_EQ(got->packets.size(), 1u);
  EXPECT_EQ(std::get<Record>(*decode(got->packets[0])).wseq, 1u);
  EXPECT_TRUE(channel->receive(Milliseconds(0))->packets.empty());
}

TEST_F(ChannelTest, barriers_come_back_behind_the_records) {
  const auto channel = open();
  fake_.send(name_change(OX_OP_UNLINK, {1}, "/d/f"));
  EXPECT_EQ(*channel->send_barrier(), 1u);
  EXPECT_EQ(*channel->send_barrier(), 2u);
  std::size_t records = 0;
  std::uint64_t barriers = 0;
  while (barriers < 2) {
    const auto got = channel->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    records += got->packets.size();
    barriers = got->barriers;
  }
  EXPECT_EQ(records, 1u);
}

TEST_F(ChannelTest, loss_is_an_event_and_no_death) {
  const auto channel = open();
  raise(OX_SIG_LOST);
  kill(getpid(), OX_SIG_LOST);
  std::uint64_t lost = 0;
  while (lost < 2) {
    const auto got = channel->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    ASSERT_NE(got->lost, 0u);
    lost += got->lost;
  }
  EXPECT_EQ(lost, 2u);
  EXPECT_EQ(channel->receive(Milliseconds(0))->lost, 0u);
}

TEST_F(ChannelTest, loss_during_a_request_is_kept) {
  const auto channel = open();
  raise(OX_SIG_LOST);
  EXPECT_TRUE(channel->request(OX_SO_REP_FLUSH, {}).ok());
  EXPECT_EQ(channel->receive(Milliseconds(0))->lost, 1u);
}

TEST_F(ChannelTest, a_late_signal_after_leaving_is_harmless) {
  open().reset();
  raise(OX_SIG_LOST);
}

TEST_F(ChannelTest, the_end_of_tarnd_is_seen) {
  const auto channel = open();
  fake_.send(name_change(OX_OP_UNLINK, {1}, "/d/f"));
  fake_.close_daemon_channel();
  std::size_t records = 0;
  for (;;) {
    const auto got = channel->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    records += got->packets.size();
    if (got->closed) break;
  }
  EXPECT_EQ(records, 1u);
  EXPECT_TRUE(channel->receive(Milliseconds(-1))->closed) << "must not wait for ever";
  EXPECT_FALSE(channel->request(OX_SO_REP_FLUSH, {}).ok());
  EXPECT_TRUE(channel->leave().ok());
}

TEST_F(ChannelTest, oversized_packets_are_counted) {
  const auto channel = open();
  fake_.send(Packet(20000));
  const auto got = channel->receive(Milliseconds(60'000));
  EXPECT_TRUE(got->packets.empty());
  EXPECT_EQ(got->oversized, 1u);
}

TEST_F(ChannelTest, one_daemon_at_a_time) {
  const auto channel = open();
  const auto second = DaemonLock::take(tarnd_site(fake_.run_dir()), Claim::kRefuseIfTaken);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code, -EBUSY);
  EXPECT_NE(second.error().text.find(std::to_string(getpid())), std::string::npos)
      << second.error().text;
}

TEST_F(ChannelTest, who_was_taken_over_does_not_quit) {
  const auto channel = open();
  EXPECT_FALSE(channel->taken_over());
  const auto taker = DaemonLock::take(tarnd_site(fake_.run_dir()), Claim::kTakeOver);
  ASSERT_TRUE(taker.ok());
  EXPECT_TRUE(taker->still_ours());
  EXPECT_TRUE(channel->taken_over());
  EXPECT_EQ(*registered_daemon(tarnd_site(fake_.run_dir())), getpid());
  EXPECT_EQ(DaemonLock::take(tarnd_site(fake_.run_dir()), Claim::kRefuseIfTaken).error().code,
            -EBUSY);
  EXPECT_TRUE(channel->leave().ok());
  EXPECT_EQ(received().back(), OX_SO_REP_DEL) << "a quit would unregister the other";
}

TEST_F(ChannelTest, who_asks_for_the_daemon_is_in_nobodys_way) {
  const Site site = tarnd_site(fake_.run_dir());
  std::atomic<bool> ending = false;
  std::thread asker([&] {
    while (!ending) EXPECT_TRUE(registered_daemon(site).ok());
  });
  for (int i = 0; i < 5000; ++i) EXPECT_TRUE(DaemonLock::take(site, Claim::kRefuseIfTaken).ok());
  ending = true;
  asker.join();
}

TEST_F(ChannelTest, a_lock_of_the_dead_is_no_lock) {
  std::ofstream(directory_ / "run/daemon.lock") << "1\n";
  EXPECT_FALSE(*registered_daemon(tarnd_site(fake_.run_dir())));
  EXPECT_TRUE(DaemonLock::take(tarnd_site(fake_.run_dir()), Claim::kRefuseIfTaken).ok());
}

}  // namespace
}  // namespace tarn
