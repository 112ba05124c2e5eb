// SPDX-License-Identifier: GPL-2.0
#include "tarnd/daemon_channel.h"

#include <sys/socket.h>

// The header of glibc 2.36 forgets to say that these are C.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tarnd/peer.h"
#include "tarnd/unique_fd.h"
#include "ukern/uk_core.h"
#include "ukern/uk_net.h"

namespace tarnd {

static constexpr int kUnit = 29;
// Longer than any message: the largest that the kernel takes is bounded by a socket's send buffer.
static constexpr size_t kPacketMax = 256 * 1024;
static constexpr unsigned kReceiveWaitMs = 60'000;
// How many messages that wait already are passed on at one stroke.
static constexpr size_t kBatch = 64;

namespace {

class NetlinkSocket {
 public:
  NetlinkSocket() {
    if (const int err = uk_nl_open(kUnit, 0, 0, &sock_); err != 0)
      throw std::runtime_error(std::string("netlink socket: ") + std::strerror(-err));
  }
  ~NetlinkSocket() { uk_nl_close(sock_); }
  NetlinkSocket(const NetlinkSocket &) = delete;
  NetlinkSocket &operator=(const NetlinkSocket &) = delete;

  uk_nlsock *get() const { return sock_; }

 private:
  uk_nlsock *sock_ = nullptr;
};

}  // namespace

static int deliver_signal(void *arg, int signal) {
  const auto *process = static_cast<const UniqueFd *>(arg);
  if (!*process) return -ESRCH;
  return pidfd_send_signal(process->get(), signal, nullptr, 0) == 0 ? 0 : -errno;
}

namespace {

// Messages on their way to the peer, as many as wait and fit.
class Batch {
 public:
  Batch() : room_(2 * kPacketMax) {}

  /* At least one message, or the error of waiting for it. */
  long fill(uk_nlsock *sock) {
    used_ = count_ = 0;
    long n = uk_nl_recv(sock, room_.data(), room_.size(), kReceiveWaitMs);
    if (n < 0) return n;
    for (; n >= 0; n = uk_nl_recv(sock, room_.data() + used_, room_.size() - used_, 0)) {
      parts_[count_] = {room_.data() + used_, static_cast<size_t>(n)};
      headers_[count_] = {};
      headers_[count_].msg_hdr.msg_iov = &parts_[count_];
      headers_[count_].msg_hdr.msg_iovlen = 1;
      used_ += static_cast<size_t>(n);
      count_++;
      if (count_ == kBatch || room_.size() - used_ < kPacketMax) break;
    }
    return 0;
  }

  /* False: the peer has hung up. */
  bool send_to(int connection) {
    for (size_t sent = 0; sent < count_;) {
      const int n =
          sendmmsg(connection, &headers_[sent], static_cast<unsigned>(count_ - sent), MSG_NOSIGNAL);
      if (n < 0 && errno != EINTR) return false;
      if (n > 0) sent += static_cast<size_t>(n);
    }
    return true;
  }

 private:
  std::vector<char> room_;
  size_t used_ = 0;
  size_t count_ = 0;
  iovec parts_[kBatch];
  mmsghdr headers_[kBatch];
};

}  // namespace

// Messages for the peer, until its socket is shut down or it has hung up. It acts as this program:
// a receiver needs no identity, and the peer's task is busy sending.
static void pump_to_peer(uk_nlsock *sock, int connection) {
  const Task task(service_identity());
  const ActAs act(task);
  Batch batch;
  for (;;) {
    const long err = batch.fill(sock);
    if (err == -ESHUTDOWN) return;
    // Nothing came for a while, or messages were lost, which the peer learns from their numbers.
    if (err < 0) continue;
    if (!batch.send_to(connection)) break;
  }
  // Wakes the other pump, which ends the connection.
  shutdown(connection, SHUT_RDWR);
}

// The peer's messages, until it hangs up. The calling thread acts as the peer.
static void pump_to_kernel(int connection, uk_nlsock *sock) {
  std::vector<char> packet(kPacketMax);
  for (;;) {
    const ssize_t n = recv(connection, packet.data(), packet.size(), MSG_TRUNC);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    const long sent = static_cast<size_t>(n) > packet.size()
                          ? -EMSGSIZE
                          : uk_nl_send(sock, packet.data(), static_cast<size_t>(n));
    if (sent < 0)
      std::fprintf(stderr, "tarnd: a message of %zd bytes was not taken: %s\n", n,
                   std::strerror(static_cast<int>(-sent)));
  }
}

void serve_daemon_channel(int connection) {
  const Identity peer = peer_identity(connection);
  // Taken now: the number may belong to another process when a signal is due.
  UniqueFd process(pidfd_open(peer.pid, 0));
  const Task task(peer);
  uk_task_set_signal_handler(task.get(), deliver_signal, &process);
  {
    const ActAs act(task);
    const NetlinkSocket sock;
    std::thread to_peer(pump_to_peer, sock.get(), connection);
    pump_to_kernel(connection, sock.get());
    // A pump that is blocked on a peer that does not read is let go, too.
    shutdown(connection, SHUT_RDWR);
    uk_nl_shutdown(sock.get());
    to_peer.join();
  }
  uk_task_set_signal_handler(task.get(), nullptr, nullptr);
}

}  // namespace tarnd
