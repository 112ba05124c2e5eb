// SPDX-License-Identifier: GPL-2.0
// The link to a module in the kernel, on other units of the running kernel's netlink; and the
// daemon's channel over a link that answers as a kernel does, before the call that asks returns.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>
#include <deque>

#include "client/daemon.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
using Milliseconds = DaemonChannel::Milliseconds;

/* A message that the kernel answers with an error message that holds it. */
Packet wants_answer(std::size_t size) {
  Packet packet(size);
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(size);
  header.nlmsg_type = NLMSG_MIN_TYPE - 1;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header.nlmsg_seq = 4711;
  std::memcpy(packet.data(), &header, sizeof(header));
  return packet;
}

std::unique_ptr<MessageLink> open_link(int unit) {
  auto link = open_netlink_link(unit);
  EXPECT_TRUE(link.ok()) << link.error().text;
  return link.ok() ? std::move(*link) : nullptr;
}

TEST(NetlinkLink, what_the_kernel_sends_arrives) {
  const auto link = open_link(NETLINK_GENERIC);
  PacketBatch batch;
  ASSERT_TRUE(link->receive(batch).ok());
  EXPECT_TRUE(batch.empty()) << "does not wait";
  ASSERT_TRUE(link->send(wants_answer(16)).ok());
  ASSERT_TRUE(link->send(wants_answer(16)).ok());
  ASSERT_TRUE(link->receive(batch).ok());
  ASSERT_EQ(batch.packets.size(), 2u);
  nlmsghdr header;
  std::memcpy(&header, batch.packets[1].data(), sizeof(header));
  EXPECT_EQ(header.nlmsg_len, batch.packets[1].size());
  EXPECT_EQ(header.nlmsg_type, NLMSG_ERROR);
  EXPECT_EQ(header.nlmsg_seq, 4711u);
  EXPECT_EQ(header.nlmsg_pid, static_cast<std::uint32_t>(getpid())) << "the port is the process";
}

TEST(NetlinkLink, packets_of_other_programs_are_counted_and_not_taken) {
  const auto link = open_link(NETLINK_USERSOCK);
  const UniqueFd other(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK));
  sockaddr_nl ours{};
  ours.nl_family = AF_NETLINK;
  ours.nl_pid = static_cast<std::uint32_t>(getpid());
  const Packet forged = name_change(OX_OP_UNLINK, {1}, "/d/f");
  for (const std::size_t size : {forged.size(), std::size_t{16}})
    ASSERT_EQ(sendto(other.get(), forged.data(), size, 0, reinterpret_cast<sockaddr *>(&ours),
                     sizeof(ours)),
              static_cast<ssize_t>(size));
  PacketBatch batch;
  ASSERT_TRUE(link->receive(batch).ok());
  EXPECT_TRUE(batch.packets.empty());
  EXPECT_EQ(batch.foreign, 2u);
  EXPECT_FALSE(batch.closed);
}

TEST(NetlinkLink, a_packet_that_is_too_long_is_counted_and_not_taken) {
  const auto link = open_link(NETLINK_GENERIC);
  ASSERT_TRUE(link->send(wants_answer(PacketBatch::kPacketMax - 20)).ok());
  Packet refused = wants_answer(PacketBatch::kPacketMax);
  const std::uint16_t unknown = 0xffff;
  std::memcpy(refused.data() + 4, &unknown, sizeof(unknown));
  ASSERT_TRUE(link->send(refused).ok());
  PacketBatch batch;
  ASSERT_TRUE(link->receive(batch).ok());
  EXPECT_EQ(batch.packets.size(), 1u);
  EXPECT_EQ(batch.oversized, 1u);
}

TEST(NetlinkLink, an_overrun_is_seen_and_what_came_before_it_arrives) {
  const auto link = open_link(NETLINK_GENERIC);
  for (int i = 0; i < 100000; ++i) ASSERT_TRUE(link->send(wants_answer(16)).ok());
  PacketBatch batch;
  std::size_t packets = 0;
  int overruns = 0;
  do {
    ASSERT_TRUE(link->receive(batch).ok());
    packets += batch.packets.size();
    overruns += batch.overrun;
  } while (!batch.empty());
  EXPECT_EQ(overruns, 1);
  EXPECT_GT(packets, 1000u);
  EXPECT_LT(packets, 100000u);
}

TEST(NetlinkLink, one_per_process) {
  const auto link = open_link(NETLINK_USERSOCK);
  const auto second = open_netlink_link(NETLINK_USERSOCK);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code, -EADDRINUSE);
  EXPECT_NE(second.error().text.find(std::to_string(getpid())), std::string::npos);
}

TEST(NetlinkLink, nobody_at_the_unit) {
  const auto link = open_link(NETLINK_USERSOCK);
  const auto sent = link->send(message(OX_NL_HELO, {}));
  ASSERT_FALSE(sent.ok());
  EXPECT_EQ(sent.error().code, -ECONNREFUSED);
  EXPECT_NE(sent.error().text.find("not in the kernel"), std::string::npos);
}

/* A module in the kernel: its answer is in our queue before the call returns, or, without room,
 * lost. */
class AnsweringLink : public MessageLink {
 public:
  static constexpr std::size_t kRoom = 200;

  int fd() const override { return readable_.get(); }

  Result<void> send(Bytes packet) override {
    std::uint16_t type = 0;
    std::memcpy(&type, packet.data() + 4, sizeof(type));
    if (type == OX_SO_REP_DEL) deliver(test::reply(type, OX_ERR_REQUEST));
    return {};
  }

  Result<void> receive(PacketBatch &batch) override {
    batch.clear();
    eventfd_t count;
    eventfd_read(readable_.get(), &count);
    batch.overrun = std::exchange(overrun, false);
    batch.foreign = std::exchange(foreign, 0);
    while (!queue_.empty() && batch.packets.size() < PacketBatch::kPackets) {
      std::byte *room = batch.room(batch.packets.size());
      std::memcpy(room, queue_.front().data(), queue_.front().size());
      batch.packets.emplace_back(room, queue_.front().size());
      queue_.pop_front();
    }
    if (!queue_.empty()) eventfd_write(readable_.get(), 1);
    return {};
  }

  void deliver(const Packet &packet) {
    if (queue_.size() == kRoom)
      overrun = true;
    else
      queue_.push_back(packet);
    eventfd_write(readable_.get(), 1);
  }
  void wake() { eventfd_write(readable_.get(), 1); }

  bool overrun = false;
  std::size_t foreign = 0;

 private:
  UniqueFd readable_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::deque<Packet> queue_;
};

class KernelChannelTest : public testing::Test {
 protected:
  KernelChannelTest() {
    auto link = std::make_unique<AnsweringLink>();
    link_ = link.get();
    const Site site{Site::Kind::kKernel, directory_ / "made"};
    auto lock = DaemonLock::take(site, Claim::kRefuseIfTaken);
    EXPECT_TRUE(lock.ok()) << lock.error().text;
    channel_ = std::move(*DaemonChannel::open(std::move(link), std::move(*lock)));
  }
  std::uint64_t lost() { return channel_->receive(Milliseconds(0))->lost; }

  TemporaryDirectory directory_;
  AnsweringLink *link_;
  std::unique_ptr<DaemonChannel> channel_;
};

TEST_F(KernelChannelTest, a_request_makes_room_for_its_answer) {
  for (std::uint32_t n = 1; n <= AnsweringLink::kRoom; ++n)
    link_->deliver(name_change(OX_OP_UNLINK, {n}, "/d/f"));
  ASSERT_EQ(*channel_->send_barrier(), 1u);
  std::uint32_t next = 1;
  for (std::uint64_t barriers = 0; barriers < 1;) {
    const auto got = channel_->receive(Milliseconds(60'000));
    ASSERT_TRUE(got.ok());
    ASSERT_TRUE(!got->packets.empty() || got->barriers != 0) << "the answer was lost";
    EXPECT_EQ(got->lost, 0u);
    for (const Bytes packet : got->packets)
      EXPECT_EQ(std::get<Record>(*decode(packet)).wseq, next++);
    barriers = got->barriers;
  }
  EXPECT_EQ(next, AnsweringLink::kRoom + 1) << "all come before the barrier";
}

TEST_F(KernelChannelTest, an_overrun_is_a_loss_even_without_the_signal) {
  link_->overrun = true;
  link_->wake();
  EXPECT_EQ(lost(), 1u);
  EXPECT_EQ(lost(), 0u);
}

TEST_F(KernelChannelTest, an_overrun_and_its_signal_are_one_loss) {
  link_->overrun = true;
  link_->wake();
  EXPECT_EQ(lost(), 1u);
  raise(OX_SIG_LOST);
  EXPECT_EQ(lost(), 0u) << "the signal of that overrun";
  raise(OX_SIG_LOST);
  EXPECT_EQ(lost(), 1u) << "a send that timed out before the next overrun was noticed";
  link_->overrun = true;
  link_->wake();
  EXPECT_EQ(lost(), 0u);
}

TEST_F(KernelChannelTest, packets_of_others_are_told_of) {
  link_->foreign = 3;
  link_->wake();
  const auto got = channel_->receive(Milliseconds(60'000));
  EXPECT_EQ(got->foreign, 3u);
  EXPECT_TRUE(got->packets.empty());
  EXPECT_EQ(got->lost, 0u);
}

}  // namespace
}  // namespace tarn
