// SPDX-License-Identifier: GPL-2.0
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/run_dir.h"
#include "base/unique_fd.h"
#include "client/message_link.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

class UnixLink : public MessageLink {
 public:
  explicit UnixLink(UniqueFd socket) : socket_(std::move(socket)) {}

  int fd() const override { return socket_.get(); }

  std::uint16_t hello_flags() const override { return OX_CTL_HELO_BATCHED; }

  Result<void> send(Bytes packet) override {
    while (::send(socket_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
      if (errno != EINTR) return system_error(errno, "cannot send to the module");
    }
    return {};
  }

  Result<void> receive(PacketBatch &batch) override {
    std::array<iovec, kRooms> rooms;
    std::array<mmsghdr, kRooms> headers{};
    for (std::size_t i = 0; i < kRooms; ++i) {
      rooms[i] = {batch.storage() + i * OX_CTL_DAEMON_PACKET_MAX, OX_CTL_DAEMON_PACKET_MAX};
      headers[i].msg_hdr.msg_iov = &rooms[i];
      headers[i].msg_hdr.msg_iovlen = 1;
    }
    batch.clear();
    int count;
    do {
      count = recvmmsg(socket_.get(), headers.data(), headers.size(), MSG_DONTWAIT, nullptr);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return {};
    if (count < 0 && errno == ECONNRESET) {
      batch.closed = true;
      return {};
    }
    if (count < 0) return system_error(errno, "cannot receive from the module");
    for (const mmsghdr &header : std::span(headers).first(static_cast<std::size_t>(count)))
      take(header, batch);
    return {};
  }

  bool half_close() override { return shutdown(socket_.get(), SHUT_WR) == 0; }

 private:
  static constexpr std::size_t kRooms = PacketBatch::kBytes / OX_CTL_DAEMON_PACKET_MAX;

  static void take(const mmsghdr &header, PacketBatch &batch) {
    if (header.msg_len == 0) {  // no packet is empty: this is the end
      batch.closed = true;
    } else if (header.msg_hdr.msg_flags & MSG_TRUNC) {
      ++batch.oversized;
    } else {
      take_each({static_cast<const std::byte *>(header.msg_hdr.msg_iov->iov_base), header.msg_len},
                batch);
    }
  }

  static void take_each(Bytes packet, PacketBatch &batch) {
    while (!packet.empty()) {
      const Bytes message = packet.first(message_length(packet));
      if (message.size() > PacketBatch::kPacketMax)
        ++batch.oversized;
      else
        batch.packets.push_back(message);
      packet = packet.subspan(message.size());
    }
  }

  /* Of the first message, with what pads it; a length that cannot be means all that is left, for
   * the decoder to refuse. */
  static std::size_t message_length(Bytes packet) {
    nlmsghdr header{};
    if (packet.size() >= sizeof(header)) std::memcpy(&header, packet.data(), sizeof(header));
    const std::size_t length = header.nlmsg_len;
    if (length < sizeof(header) || length > packet.size()) return packet.size();
    return std::min<std::size_t>(NLMSG_ALIGN(length), packet.size());
  }

  UniqueFd socket_;
};

}  // namespace

Result<std::unique_ptr<MessageLink>> connect_unix_link(const std::string &run_dir) {
  auto socket = connect_socket(run_dir, OX_CTL_DAEMON_SOCKET);
  if (!socket) return socket.error();
  return adopt_unix_link(std::move(*socket));
}

std::unique_ptr<MessageLink> adopt_unix_link(UniqueFd socket) {
  return std::make_unique<UnixLink>(std::move(socket));
}

}  // namespace tarn
