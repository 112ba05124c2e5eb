// SPDX-License-Identifier: GPL-2.0
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "client/message_link.h"
#include "client/run_dir.h"
#include "client/unique_fd.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

class UnixLink : public MessageLink {
 public:
  explicit UnixLink(UniqueFd socket) : socket_(std::move(socket)) {}

  int fd() const override { return socket_.get(); }

  Result<void> send(Bytes packet) override {
    while (::send(socket_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
      if (errno != EINTR) return system_error(errno, "cannot send to the module");
    }
    return {};
  }

  Result<void> receive(PacketBatch &batch) override {
    std::array<iovec, PacketBatch::kPackets> rooms;
    std::array<mmsghdr, PacketBatch::kPackets> headers{};
    for (std::size_t i = 0; i < headers.size(); ++i) {
      rooms[i] = {batch.room(i), PacketBatch::kPacketMax};
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
    for (int i = 0; i < count; ++i) take(headers[static_cast<std::size_t>(i)], batch, i);
    return {};
  }

 private:
  static void take(const mmsghdr &header, PacketBatch &batch, int i) {
    if (header.msg_len == 0) {  // no packet is empty: this is the end
      batch.closed = true;
    } else if (header.msg_hdr.msg_flags & MSG_TRUNC) {
      ++batch.oversized;
    } else {
      batch.packets.emplace_back(batch.room(static_cast<std::size_t>(i)), header.msg_len);
    }
  }

  UniqueFd socket_;
};

}  // namespace

Result<std::unique_ptr<MessageLink>> connect_unix_link(const std::string &run_dir) {
  auto socket = connect_socket(run_dir, OX_CTL_DAEMON_SOCKET);
  if (!socket) return socket.error();
  return std::unique_ptr<MessageLink>(std::make_unique<UnixLink>(std::move(*socket)));
}

}  // namespace tarn
