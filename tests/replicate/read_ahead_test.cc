// SPDX-License-Identifier: GPL-2.0
// The link that reads ahead: nobody has to wait while it is not asked, up to its limit; order,
// losses and the end are passed on as they come.
#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "base/unique_fd.h"
#include "client/read_ahead.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;
using test::eventually;

constexpr std::size_t kPacket = 4096;
constexpr int kPatience = 5000;  // milliseconds without room for a packet: the link is full

// One end of a pair of sockets as a link. Losses are what the test says they are.
class SocketLink : public MessageLink {
 public:
  SocketLink(UniqueFd socket, std::atomic<int> *losses)
      : socket_(std::move(socket)), losses_(losses) {}

  int fd() const override { return socket_.get(); }

  Result<void> send(Bytes packet) override {
    if (::send(socket_.get(), packet.data(), packet.size(), 0) < 0)
      return system_error(errno, "send");
    return {};
  }

  Result<void> receive(PacketBatch &batch) override {
    batch.clear();
    if (losses_->exchange(0)) batch.overrun = true;
    for (std::size_t i = 0; i < PacketBatch::kPackets; ++i) {
      const ssize_t n = recv(socket_.get(), batch.room(i), PacketBatch::kPacketMax, MSG_DONTWAIT);
      if (n < 0) return errno == EAGAIN ? Result<void>() : system_error(errno, "recv");
      if (n == 0) batch.closed = true;
      if (n == 0) break;
      batch.packets.emplace_back(batch.room(i), static_cast<std::size_t>(n));
    }
    return {};
  }

 private:
  UniqueFd socket_;
  std::atomic<int> *losses_;
};

class ReadAheadTest : public testing::Test {
 protected:
  void SetUp() override { start(); }

  void start() {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    peer_ = UniqueFd(ends[0]);
    auto made = read_ahead(std::make_unique<SocketLink>(UniqueFd(ends[1]), &losses_), kLimit);
    ASSERT_TRUE(made.ok()) << made.error().text;
    link_ = std::move(*made);
  }

  // Sends packet number `n` if there is room for it within a while.
  bool send_packet(std::uint32_t n) {
    std::vector<std::byte> packet(kPacket);
    std::memcpy(packet.data(), &n, sizeof(n));
    pollfd writable{peer_.get(), POLLOUT, 0};
    return poll(&writable, 1, kPatience) == 1 &&
           send(peer_.get(), packet.data(), packet.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(packet.size());
  }

  // Has the other end taken all from the socket?
  bool all_taken() const {
    int unread = 0;
    return ioctl(peer_.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
  }

  bool readable(int wait_ms) {
    pollfd fd{link_->fd(), POLLIN, 0};
    return poll(&fd, 1, wait_ms) == 1;
  }

  // The next packets, in a batch that stays; waits for the first.
  PacketBatch &next() {
    EXPECT_TRUE(readable(60'000));
    EXPECT_TRUE(link_->receive(batch_).ok());
    return batch_;
  }

  static std::uint32_t number(Bytes packet) {
    std::uint32_t n = 0;
    std::memcpy(&n, packet.data(), sizeof(n));
    return n;
  }

  static constexpr std::size_t kLimit = 2000 * kPacket;
  std::atomic<int> losses_{0};
  UniqueFd peer_;
  std::unique_ptr<MessageLink> link_;
  PacketBatch batch_;
};

// More than the socket itself has room for, by far, and less than the limit.
TEST_F(ReadAheadTest, nobody_waits_while_it_is_not_asked) {
  constexpr std::uint32_t kCount = 1500;
  for (std::uint32_t n = 0; n < kCount; ++n) ASSERT_TRUE(send_packet(n)) << n;
  for (std::uint32_t expected = 0; expected < kCount;) {
    for (const Bytes packet : next().packets) {
      EXPECT_EQ(packet.size(), kPacket);
      EXPECT_EQ(number(packet), expected++);
    }
  }
  EXPECT_FALSE(readable(0));
}

TEST_F(ReadAheadTest, what_it_keeps_is_limited_and_room_is_used_again) {
  std::uint32_t sent = 0;
  while (sent < 20000 && send_packet(sent)) ++sent;
  EXPECT_GE(sent, 2000u);
  EXPECT_LT(sent, 3000u);
  std::uint32_t expected = 0;
  for (const Bytes packet : next().packets) EXPECT_EQ(number(packet), expected++);
  EXPECT_TRUE(send_packet(sent++));
  while (expected < sent) {
    for (const Bytes packet : next().packets) EXPECT_EQ(number(packet), expected++);
  }
}

// They come in portions that are not those in which they are asked for.
TEST_F(ReadAheadTest, packets_stay_until_the_next_are_asked_for) {
  std::uint32_t sent = 0, expected = 0;
  for (const std::uint32_t portion : {50u, 100u, 7u, 64u, 200u}) {
    for (std::uint32_t n = 0; n < portion; ++n) ASSERT_TRUE(send_packet(sent++));
    std::this_thread::sleep_for(5ms);
  }
  while (expected < sent) {
    const auto &packets = next().packets;
    EXPECT_LE(packets.size(), PacketBatch::kPackets);
    // What comes meanwhile changes nothing.
    if (sent < 500) {
      ASSERT_TRUE(send_packet(sent++));
    }
    std::this_thread::sleep_for(1ms);
    for (const Bytes packet : packets) EXPECT_EQ(number(packet), expected++);
  }
}

TEST_F(ReadAheadTest, the_time_of_what_is_kept_is_when_it_came) {
  ASSERT_TRUE(send_packet(0));
  ASSERT_TRUE(readable(60'000));
  const auto between = PacketBatch::Clock::now();
  std::this_thread::sleep_for(20ms);
  for (std::uint32_t n = 1; n <= PacketBatch::kPackets; ++n) ASSERT_TRUE(send_packet(n));
  // Whoever asks late is not told that it is late as long as something is kept.
  ASSERT_TRUE(eventually([&] { return all_taken(); }));
  std::this_thread::sleep_for(200ms);
  const auto asked = PacketBatch::Clock::now();
  EXPECT_EQ(next().packets.size(), PacketBatch::kPackets);
  EXPECT_GT(batch_.arrived_until, between);
  EXPECT_LT(batch_.arrived_until, asked);
  EXPECT_EQ(next().packets.size(), 1u);
  EXPECT_GE(batch_.arrived_until, asked);
}

TEST_F(ReadAheadTest, a_loss_is_told_once_and_the_end_comes_last) {
  losses_ = 1;
  ASSERT_TRUE(send_packet(7));
  ASSERT_TRUE(readable(60'000));
  peer_.reset();
  EXPECT_EQ(next().packets.size(), 1u);
  EXPECT_TRUE(batch_.overrun);
  do {
    next();  // what has ended stays readable
  } while (!batch_.closed);
  EXPECT_FALSE(batch_.overrun);
  EXPECT_TRUE(batch_.packets.empty());
  EXPECT_TRUE(readable(0));
}

TEST_F(ReadAheadTest, after_a_stop_what_was_read_comes_first) {
  std::uint32_t sent = 0, expected = 0;
  while (sent < 20) ASSERT_TRUE(send_packet(sent++));
  ASSERT_TRUE(readable(60'000));
  link_->stop_reading_ahead();
  // Less than the socket has room for, though poll would call it full.
  for (; sent < 30; ++sent) {
    std::vector<std::byte> packet(kPacket);
    std::memcpy(packet.data(), &sent, sizeof(sent));
    ASSERT_EQ(send(peer_.get(), packet.data(), packet.size(), MSG_DONTWAIT),
              static_cast<ssize_t>(packet.size()));
  }
  while (!link_->none_read_ahead()) {
    for (const Bytes packet : next().packets) EXPECT_EQ(number(packet), expected++);
  }
  // Nobody reads the rest unless it is asked for, and then at most a batch.
  while (expected < sent) {
    const std::size_t count = next().packets.size();
    EXPECT_LE(count, PacketBatch::kPackets);
    for (const Bytes packet : batch_.packets) EXPECT_EQ(number(packet), expected++);
    ASSERT_NE(count, 0u);
    EXPECT_TRUE(link_->none_read_ahead());
  }
  EXPECT_FALSE(readable(0));
}

TEST_F(ReadAheadTest, sending_does_not_wait_for_reading) {
  const std::byte packet[5] = {};
  EXPECT_TRUE(link_->send(packet).ok());
  std::byte got[16];
  EXPECT_EQ(recv(peer_.get(), got, sizeof(got), 0), 5);
}

// poll refuses more descriptors than the process may have. What came before is passed on first.
TEST_F(ReadAheadTest, that_it_cannot_wait_any_more_is_told) {
  ASSERT_TRUE(send_packet(0));
  EXPECT_EQ(next().packets.size(), 1u);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit one{1, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &one), 0);
  const bool sent = send_packet(1);
  std::this_thread::sleep_for(50ms);  // most often both the packet and the failure are there then
  Result<void> received;
  bool told = true;
  while (told && received.ok()) {
    told = readable(60'000);
    received = link_->receive(batch_);
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(sent);
  EXPECT_TRUE(told);
  ASSERT_FALSE(received.ok());
  EXPECT_EQ(received.error().text, "cannot wait for the module: Invalid argument");
  EXPECT_TRUE(batch_.packets.empty());
}

// Neither while it waits for something to come nor while it waits for room.
TEST_F(ReadAheadTest, it_ends_whatever_it_waits_for) {
  link_.reset();
  start();
  for (std::uint32_t n = 0; send_packet(n); ++n) {
  }
  link_.reset();
}

}  // namespace
}  // namespace tarn
