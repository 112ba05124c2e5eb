// SPDX-License-Identifier: GPL-2.0
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>

#include <fmt/format.h>

#include "base/unique_fd.h"
#include "client/message_link.h"

namespace tarn {
namespace {

/* Receive buffer for some thousand records while the daemon is busy. It is kernel memory, allocated
 * only as far as it is used. */
constexpr int kQueueBytes = 4 << 20;

class NetlinkLink : public MessageLink {
 public:
  explicit NetlinkLink(UniqueFd socket) : socket_(std::move(socket)) {}

  int fd() const override { return socket_.get(); }

  Result<void> send(Bytes packet) override {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    while (sendto(socket_.get(), packet.data(), packet.size(), 0,
                  reinterpret_cast<sockaddr *>(&kernel), sizeof(kernel)) < 0) {
      if (errno == ECONNREFUSED)
        return Error{-ECONNREFUSED, "the module is not in the kernel: load tarn.ko"};
      if (errno != EINTR) return system_error(errno, "cannot send to the module");
    }
    return {};
  }

  Result<void> receive(PacketBatch &batch) override {
    batch.clear();
    for (std::size_t i = 0; i < PacketBatch::kPackets; ++i) {
      const int err = receive_one(batch);
      if (err == EAGAIN) return {};
      if (err != 0) return system_error(err, "cannot receive from the module");
    }
    return {};
  }

 private:
  /* Returns 0 or an error number, EAGAIN when the queue is empty. */
  int receive_one(PacketBatch &batch) {
    std::byte *room = batch.room(batch.packets.size());
    iovec part = {room, PacketBatch::kPacketMax};
    sockaddr_nl sender{};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t got = recvmsg(socket_.get(), &message, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) return 0;
    if (got < 0 && errno == ENOBUFS) {
      batch.overrun = true;
      return 0;
    }
    if (got < 0) return errno;
    // Any program may send to any port; port 0 is the kernel's alone.
    if (message.msg_namelen != sizeof(sender) || sender.nl_family != AF_NETLINK ||
        sender.nl_pid != 0)
      ++batch.foreign;
    else if (message.msg_flags & MSG_TRUNC)
      ++batch.oversized;
    else
      batch.packets.emplace_back(room, static_cast<std::size_t>(got));
    return 0;
  }

  UniqueFd socket_;
};

Error open_error(int err) {
  if (err == EPROTONOSUPPORT || err == EAFNOSUPPORT)
    return {-err, "the kernel has no netlink sockets of the module's kind: load tarn.ko"};
  if (err == EADDRINUSE)
    return {-err, fmt::format("another socket has the netlink port {} of this process: try again",
                              getpid())};
  return system_error(err, "cannot open a netlink socket");
}

}  // namespace

Result<std::unique_ptr<MessageLink>> open_netlink_link(int unit) {
  UniqueFd socket_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, unit));
  if (!socket_fd) return open_error(errno);
  // Beyond the limit of unprivileged sockets if we may, else up to it.
  if (setsockopt(socket_fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kQueueBytes, sizeof(kQueueBytes)) !=
          0 &&
      setsockopt(socket_fd.get(), SOL_SOCKET, SO_RCVBUF, &kQueueBytes, sizeof(kQueueBytes)) != 0)
    return open_error(errno);
  // The module sends to the port whose number is the process id of the hello.
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_pid = static_cast<std::uint32_t>(getpid());
  if (bind(socket_fd.get(), reinterpret_cast<sockaddr *>(&own), sizeof(own)) != 0)
    return open_error(errno);
  return adopt_netlink_link(std::move(socket_fd));
}

std::unique_ptr<MessageLink> adopt_netlink_link(UniqueFd socket) {
  return std::make_unique<NetlinkLink>(std::move(socket));
}

}  // namespace tarn
